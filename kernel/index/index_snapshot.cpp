#include "kernel/index/index_snapshot.h"

#include <utility>

namespace tarv {

IndexSnapshot::IndexSnapshot(const std::filesystem::path& config, std::shared_ptr<const Compatibility> compatibility)
    : IndexSnapshot(Configuration::read(config), std::move(compatibility)) {}

IndexSnapshot::IndexSnapshot(const Configuration& configuration, std::shared_ptr<const Compatibility> compatibility)
    : sources_(configuration.sources) {
  std::vector<JoinedSearch::Source> entries;
  std::vector<SearchIndexPtr> indexes;
  for (const Configuration::Source& source : sources_) {
    fingerprints_.push_back(Configuration::sha256(source.file));
    auto catalog = std::make_shared<Catalog>(source.load());
    // Labels come from the configuration, not the file list, so they are set
    // before the catalog is shared.
    catalog->applyDeviceLabels(source.deviceLabels);
    CatalogPtr shared = std::move(catalog);
    indexes.push_back(std::make_shared<const SearchIndex>(shared, compatibility));
    entries.push_back({source.id, source.label, shared});
    counts_.push_back(shared->count());
    keys_.emplace_back();
  }
  search_ = std::make_shared<const JoinedSearch>(std::move(entries), std::move(indexes), keys_, std::move(compatibility));
}

void IndexSnapshot::finishWrites() {}

}  // namespace tarv
