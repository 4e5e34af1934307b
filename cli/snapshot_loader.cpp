#include "cli/searcher.h"

#include "kernel/index/index_snapshot.h"
#include "kernel/index/load_trace.h"

namespace tarv::cli {
namespace {

// One "query.plan" line per source: the planner's strategy and how many of
// the source's rows matched, so a slow query shows which way it went.
void tracePlan(const JoinedSearch& search, const JoinedSearch::Result& result, const std::string& sort) {
  const auto& starts = search.starts();
  for (std::size_t s = 0; s < result.counts.size() && s < result.strategies.size(); ++s)
    LoadTrace::event("query.plan", "source",
                     "source=" + search.sources()[s].id + " strategy=" +
                         std::string(ExecutionPlanner::name(result.strategies[s])) + " rows=" +
                         std::to_string(result.counts[s]) + " records=" + std::to_string(starts[s + 1] - starts[s]));
  LoadTrace::event("query.plan", "total",
                   "sort=" + sort + " rows=" + std::to_string(result.total) + " records=" +
                       std::to_string(search.total()));
}

// The command line's view of an index snapshot.
class SnapshotAdapter final : public LoadedSnapshot {
 public:
  explicit SnapshotAdapter(std::shared_ptr<const IndexSnapshot> snapshot) : snapshot_(std::move(snapshot)) {
    counts_.assign(snapshot_->counts().begin(), snapshot_->counts().end());
  }

  Matches search(const std::string& query, const std::string& sort, std::int64_t wanted) const override {
    JoinedSearch::Result result = snapshot_->search().search(query, sort, wanted);
    if (LoadTrace::enabled()) tracePlan(snapshot_->search(), result, sort);
    return {result.total, std::move(result.ids)};
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
