#include "cli/searcher.h"
#include "kernel/index/index_snapshot.h"

namespace tarv::cli {
namespace {

// The command line's view of an index snapshot.
class SnapshotAdapter final : public LoadedSnapshot {
 public:
  explicit SnapshotAdapter(std::shared_ptr<const IndexSnapshot> snapshot) : snapshot_(std::move(snapshot)) {
    counts_.assign(snapshot_->counts().begin(), snapshot_->counts().end());
  }

  Column<std::int32_t> search(const std::string& query, const std::string& sort) const override {
    return snapshot_->search().search(query, sort).ids;
  }

  ResultRow row(std::int32_t id) const override {
    JoinedSearch::Row found = snapshot_->search().row(id);
    ResultRow row;
    row.id = found.id;
    row.sourceId = std::move(found.sourceId);
    row.name = std::move(found.name);
    row.path = std::move(found.path);
    row.kind = found.kind;
    row.size = found.size;
    row.modifiedMs = found.modifiedMs;
    row.createdMs = found.createdMs;
    row.sizeOnDisk = found.sizeOnDisk;
    row.device = std::move(found.device);
    return row;
  }

  std::int64_t totalRecords() const override { return snapshot_->search().total(); }
  const std::vector<Configuration::Source>& sources() const override { return snapshot_->sources(); }
  const std::vector<std::int64_t>& counts() const override { return counts_; }
  void finishWrites() const override { IndexSnapshot::finishWrites(); }

 private:
  std::shared_ptr<const IndexSnapshot> snapshot_;
  std::vector<std::int64_t> counts_;
};

}  // namespace

std::shared_ptr<const LoadedSnapshot> loadSnapshot(const Configuration& config,
                                                   const std::shared_ptr<const Compatibility>& compatibility) {
  return std::make_shared<const SnapshotAdapter>(std::make_shared<const IndexSnapshot>(config, compatibility));
}

}  // namespace tarv::cli
