#include "kernel/index/index_snapshot.h"

#include <chrono>
#include <optional>
#include <set>
#include <utility>

#include "kernel/index/index_cache.h"
#include "kernel/index/joined_orders_cache.h"
#include "kernel/index/pending_writes.h"

namespace tarv {

IndexSnapshot::IndexSnapshot(const std::filesystem::path& config, std::shared_ptr<const Compatibility> compatibility)
    : IndexSnapshot(Configuration::read(config), std::move(compatibility)) {}

IndexSnapshot::IndexSnapshot(const Configuration& configuration, std::shared_ptr<const Compatibility> compatibility)
    : sources_(configuration.sources) {
  const IndexCache cache;
  std::vector<IndexCache::Loaded> loads;
  std::vector<JoinedSearch::Source> entries;
  std::vector<SearchIndexPtr> indexes;
  for (const Configuration::Source& source : sources_) {
    // The cache applies the source's device labels before the catalog is
    // shared, and starts writing a fresh catalog's cache file while the
    // source's search index is still being built.
    IndexCache::Loaded loaded = cache.loadStoring(source, compatibility);
    entries.push_back({source.id, source.label, loaded.catalog});
    indexes.push_back(loaded.index);
    counts_.push_back(loaded.catalog->count());
    fingerprints_.push_back(loaded.fingerprint);
    keys_.push_back(loaded.key);
    loads.push_back(std::move(loaded));
  }
  std::optional<JoinedOrdersCache> orders;
  if (cache.directory()) orders.emplace(*cache.directory());
  search_ = std::make_shared<const JoinedSearch>(std::move(entries), std::move(indexes), keys_,
                                                 std::move(compatibility), JoinedSearch::Tuning(),
                                                 orders ? &*orders : nullptr);
  // Everything this configuration uses stays; other configurations' files
  // go only once they are stale.
  std::set<std::string> keeping(keys_.begin(), keys_.end());
  keeping.insert(search_->joinKey());
  cache.storeInBackground(std::move(loads), std::move(keeping));
}

void IndexSnapshot::finishWrites() { PendingWrites::waitUntilDone(std::chrono::seconds(60)); }

}  // namespace tarv
