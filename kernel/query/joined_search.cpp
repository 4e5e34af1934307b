#include "kernel/query/joined_search.h"

#include <algorithm>
#include <limits>
#include <new>

#include "kernel/base/json.h"
#include "kernel/base/kernel_error.h"
#include "kernel/base/sha256.h"
#include "kernel/query/parallel.h"
#include "kernel/query/search_memory.h"

namespace tarv {
namespace {

std::vector<SearchIndexPtr> checkedIndexes(const std::vector<JoinedSearch::Source>& sources,
                                           std::vector<SearchIndexPtr> indexes) {
  if (sources.size() != indexes.size())
    throw KernelError::invalid("Joined search needs one index per source");
  std::int64_t rows = 0;
  for (std::size_t s = 0; s < sources.size(); ++s) {
    if (!indexes[s] || !sources[s].catalog || &indexes[s]->catalog() != sources[s].catalog.get())
      throw KernelError::invalid("Index does not belong to source " + sources[s].id);
    rows += sources[s].catalog->count();
  }
  // Global ids are 32-bit signed values.
  if (rows > std::numeric_limits<std::int32_t>::max())
    throw KernelError::invalid("Too many records to search together: " + std::to_string(rows));
  return indexes;
}

std::string deriveJoinKey(const std::vector<std::string>& keys) {
  json::Value array = json::Value::array();
  for (const auto& key : keys) array.push_back(key);
  const std::string text = json::encode(array);
  Sha256 digest;
  digest.update(text.data(), text.size());
  return digest.finishHex().substr(0, 32);
}

// Sets the members of one source's selection in the bitset over global ids,
// shifted to the source's first id.
void placeSelection(const Bitset& local, std::int64_t start, std::vector<std::uint64_t>& global) {
  const auto base = static_cast<std::size_t>(start >> 6);
  const int shift = static_cast<int>(start & 63);
  const auto& words = local.words();
  for (std::size_t w = 0; w < words.size(); ++w) {
    const std::uint64_t bits = words[w];
    if (bits == 0) continue;
    global[base + w] |= bits << shift;
    if (shift != 0 && base + w + 1 < global.size()) global[base + w + 1] |= bits >> (64 - shift);
  }
}


// The matching global ids of all sources, unordered.
std::vector<std::int32_t> gatherIds(const std::vector<Bitset>& selections, const std::vector<std::int64_t>& starts,
                                    std::int64_t total) {
  std::vector<std::int32_t> ids;
  ids.reserve(static_cast<std::size_t>(total));
  for (std::size_t s = 0; s < selections.size(); ++s) {
    const auto start = static_cast<std::int32_t>(starts[s]);
    selections[s].forEach([&](std::int64_t row) { ids.push_back(start + static_cast<std::int32_t>(row)); });
  }
  return ids;
}

// Membership of a global id in the result, for walks over a whole order.
// An order mapped from a damaged index file may hold ids past the rows: they
// are never members, rather than looked up.
class Members {
 public:
  Members(const std::vector<Bitset>& selections, const std::vector<std::int64_t>& starts, std::int64_t total,
          std::int64_t rows)
      : limit_(static_cast<std::uint32_t>(rows)), everyRow_(total == rows) {
    if (everyRow_) return;
    words_.assign(Bitset::wordCount(rows), 0);
    for (std::size_t s = 0; s < selections.size(); ++s) placeSelection(selections[s], starts[s], words_);
  }
  bool contains(std::int32_t id) const noexcept {
    return static_cast<std::uint32_t>(id) < limit_ && (everyRow_ || Bitset::test(words_, id));
  }

 private:
  std::vector<std::uint64_t> words_;
  std::uint32_t limit_;
  bool everyRow_;
};

}  // namespace

JoinedSearch::JoinedSearch(std::vector<Source> sources, std::vector<SearchIndexPtr> indexes,
                           std::vector<std::string> cacheKeys, std::shared_ptr<const Compatibility> compatibility)
    : JoinedSearch(std::move(sources), std::move(indexes), std::move(cacheKeys), std::move(compatibility), Tuning()) {}

JoinedSearch::JoinedSearch(std::vector<Source> sources, std::vector<SearchIndexPtr> indexes,
                           std::vector<std::string> cacheKeys, std::shared_ptr<const Compatibility> compatibility,
                           Tuning tuning, const JoinedOrdersStore* ordersStore)
    : sources_(std::move(sources)),
      indexes_(checkedIndexes(sources_, std::move(indexes))),
      cacheKeys_(std::move(cacheKeys)),
      compatibility_(std::move(compatibility)),
      tuning_(tuning),
      // With a store, the parent ranks may come from it along with the orders.
      order_(indexes_, compatibility_, ordersStore ? GlobalOrder::Ranking::deferred : GlobalOrder::Ranking::now),
      joinKey_(deriveJoinKey(cacheKeys_)) {
  engines_.reserve(indexes_.size());
  for (const auto& index : indexes_) engines_.emplace_back(index, tuning_.scanMinimum);

  // Every key that any source stores; a source without the column takes part
  // with all its values unknown (its own order for the key is its name order).
  for (const SortKey key : kSortKeys) {
    if (key == SortKey::device || key == SortKey::none) continue;
    const bool always = key == SortKey::name || key == SortKey::path || key == SortKey::size ||
                        key == SortKey::modified;
    const bool any = std::any_of(indexes_.begin(), indexes_.end(), [&](const auto& i) { return i->stores(key); });
    if (always || any) storedKeys_.push_back(key);
  }
  auto mergeOrders = [&] {
    JoinedOrdersStore::Orders merged;
    const Column<std::int32_t> names = order_.nameOrder();
    for (const SortKey key : storedKeys_) merged.push_back(order_.orderFrom(names, key));
    return merged;
  };
  if (!ordersStore) {
    orders_ = mergeOrders();
    return;
  }
  JoinedOrdersStore::Request request{joinKey_, storedKeys_, total(), {}};
  for (const auto& index : indexes_)
    request.parentCounts.push_back(static_cast<std::int64_t>(index->parentRanks().size()));
  bool derived = false;
  JoinedOrdersStore::Joined joined = ordersStore->obtain(request, [&] {
    derived = true;
    order_.rankParents();
    JoinedOrdersStore::Joined made{mergeOrders(), {}};
    // Shared, not copied: with one source these are the index's own ranks,
    // megabytes that nothing stores.
    for (std::size_t s = 0; s < indexes_.size(); ++s) made.parentRanks.push_back(order_.parentRankColumn(s));
    return made;
  });
  orders_ = std::move(joined.orders);
  // The store checks what it hands back; should the ranks still not fit,
  // nothing stored is trusted.
  if (!derived && !order_.adoptParentRanks(joined.parentRanks)) {
    order_.rankParents();
    orders_ = mergeOrders();
  }
}

const std::vector<std::string>& JoinedSearch::sorts() {
  static const std::vector<std::string> names(kSortNames.begin(), kSortNames.end());
  return names;
}

Column<std::int32_t> JoinedSearch::order(SortKey key) const {
  if (key == SortKey::device) {
    std::lock_guard<std::mutex> lock(deviceLock_);
    if (!deviceOrder_) deviceOrder_ = order_.orderFrom(orders_.front(), SortKey::device);
    return *deviceOrder_;
  }
  for (std::size_t k = 0; k < storedKeys_.size(); ++k)
    if (storedKeys_[k] == key) return orders_[k];
  return orders_.front();  // name, none, or a column no source has
}

int JoinedSearch::compare(std::int32_t a, std::int32_t b, SortSpec spec) const noexcept {
  const int r = order_.compare(a, b, spec.key == SortKey::none ? SortKey::name : spec.key);
  return spec.descending ? -r : r;
}

JoinedSearch::Result JoinedSearch::search(std::string_view query, std::string_view sort) const {
  return search(query, sort, std::numeric_limits<std::int64_t>::max());
}

JoinedSearch::Result JoinedSearch::search(std::string_view query, std::string_view sort, std::int64_t wanted) const {
  const SortSpec spec = SortSpec::validated(sort);
  try {
    return searchValidated(query, spec, std::max<std::int64_t>(wanted, 0));
  } catch (const std::bad_alloc&) {
    // The up-front check cannot see every allocation (the per-source
    // selections, other processes taking memory meanwhile).
    throw KernelError::invalid(std::string(SearchMemory::kMessage));
  }
}

JoinedSearch::Result JoinedSearch::searchValidated(std::string_view query, SortSpec spec, std::int64_t wanted) const {
  const Text units = utf16(query);
  Result result;
  std::vector<Bitset> selections;
  selections.reserve(engines_.size());
  // One reading of the clock for every source: date keywords and local
  // offsets must mean the same instant in all of them.
  const Query::Moment moment = Query::Moment::now();
  for (const ExecutionPlanner& engine : engines_) {
    ExecutionPlanner::Selection selection = engine.select(units, moment);
    result.total += selection.count;
    result.strategies.push_back(selection.strategy);
    result.counts.push_back(selection.count);
    selections.push_back(std::move(selection.rows));
  }
  if (wanted < result.total) {
    SearchMemory::checkResult(wanted, total(), false, tuning_.memoryBudget);
    result.ids = firstOrdered(selections, result.total, wanted, spec);
    return result;
  }
  SearchMemory::checkResult(result.total, total(), spec.descending, tuning_.memoryBudget);
  result.ids = ordered(selections, result.total, spec);
  return result;
}

Column<std::int32_t> JoinedSearch::firstOrdered(std::vector<Bitset>& selections, std::int64_t total,
                                                std::int64_t wanted, SortSpec spec) const {
  if (wanted <= 0) return Column<std::int32_t>::owned({});
  const std::int64_t rows = this->total();
  const auto& starts = order_.starts();
  // A small result: gather it and sort only the part that is asked for.
  if (total <= std::max(tuning_.sortAtMost, rows / std::max<std::int64_t>(tuning_.sortRatio, 1))) {
    std::vector<std::int32_t> out = gatherIds(selections, starts, total);
    const auto middle = out.begin() + static_cast<std::ptrdiff_t>(wanted);
    std::partial_sort(out.begin(), middle, out.end(),
                      [&](std::int32_t a, std::int32_t b) { return compare(a, b, spec) < 0; });
    out.resize(static_cast<std::size_t>(wanted));
    return Column<std::int32_t>::owned(std::move(out));
  }

  // A large one: its members are dense enough in the order that a walk from
  // the right end meets the first `wanted` of them early.
  const Column<std::int32_t> order = this->order(spec.key);
  const auto n = static_cast<std::int64_t>(order.size());
  const std::int32_t* ids = order.data();
  const Members members(selections, starts, total, rows);
  selections.clear();
  std::vector<std::int32_t> out;
  out.reserve(static_cast<std::size_t>(wanted));
  auto take = [&](std::int32_t id) {
    if (members.contains(id)) out.push_back(id);
  };
  if (!spec.descending) {
    for (std::int64_t i = 0; i < n && static_cast<std::int64_t>(out.size()) < wanted; ++i) take(ids[i]);
  } else {
    for (std::int64_t i = n; i-- > 0 && static_cast<std::int64_t>(out.size()) < wanted;) take(ids[i]);
  }
  return Column<std::int32_t>::owned(std::move(out));
}

Column<std::int32_t> JoinedSearch::ordered(std::vector<Bitset>& selections, std::int64_t total, SortSpec spec) const {
  const std::int64_t rows = this->total();
  if (total == 0) return Column<std::int32_t>::owned({});
  const auto& starts = order_.starts();

  // Every row: the order itself, shared.
  if (total == rows && !spec.descending) return order(spec.key);

  // A small result is cheaper to sort than to find in the whole order.
  if (total <= std::max(tuning_.sortAtMost, rows / std::max<std::int64_t>(tuning_.sortRatio, 1))) {
    std::vector<std::int32_t> ids = gatherIds(selections, starts, total);
    std::sort(ids.begin(), ids.end(), [&](std::int32_t a, std::int32_t b) { return compare(a, b, spec) < 0; });
    return Column<std::int32_t>::owned(std::move(ids));
  }

  const Column<std::int32_t> order = this->order(spec.key);
  const auto n = static_cast<std::int64_t>(order.size());

  const Members members(selections, starts, total, rows);
  selections.clear();
  auto isMember = [&](std::int32_t id) { return members.contains(id); };

  // Count per chunk, place the chunks by running sums, then copy in parallel.
  // Descending: each chunk is walked backwards and the chunks are placed in
  // reverse, so the output is exactly the ascending output reversed.
  const Parallel::Plan plan = Parallel::plan(n, 1, tuning_.walkMinimum);
  auto chunkOf = [&](std::int64_t begin) {
    return plan.serial ? std::size_t(0) : static_cast<std::size_t>(begin / plan.length);
  };
  std::vector<std::int64_t> counts(static_cast<std::size_t>(plan.chunks), 0);
  const std::int32_t* ids = order.data();
  Parallel::chunks(n, 1, tuning_.walkMinimum, [&](std::int64_t begin, std::int64_t end) {
    std::int64_t found = 0;
    for (auto i = begin; i < end; ++i) found += isMember(ids[i]) ? 1 : 0;
    counts[chunkOf(begin)] = found;
  });
  std::vector<std::int64_t> offsets(counts.size(), 0);
  std::int64_t running = 0;
  for (std::size_t c = 0; c < counts.size(); ++c) {
    offsets[c] = running;
    running += counts[c];
  }
  std::vector<std::int32_t> out(static_cast<std::size_t>(running));
  Parallel::chunks(n, 1, tuning_.walkMinimum, [&](std::int64_t begin, std::int64_t end) {
    const std::size_t c = chunkOf(begin);
    if (!spec.descending) {
      std::int32_t* to = out.data() + offsets[c];
      for (auto i = begin; i < end; ++i)
        if (isMember(ids[i])) *to++ = ids[i];
    } else {
      std::int32_t* to = out.data() + (running - offsets[c] - counts[c]);
      for (auto i = end; i-- > begin;)
        if (isMember(ids[i])) *to++ = ids[i];
    }
  });
  return Column<std::int32_t>::owned(std::move(out));
}

JoinedSearch::Row JoinedSearch::row(std::int64_t id) const {
  if (id < 0 || id >= total()) throw KernelError::invalid("Row id out of range: " + std::to_string(id));
  const std::size_t s = order_.sourceOf(static_cast<std::int32_t>(id));
  const auto r = static_cast<std::int32_t>(id - order_.starts()[s]);
  const Catalog& catalog = *sources_[s].catalog;
  Row row;
  row.id = id;
  row.sourceId = sources_[s].id;
  row.name = catalog.name(r);
  row.path = catalog.displayPath(r);
  row.kind = catalog.recordKind(r);
  row.size = catalog.sizeBytes(r);
  row.modifiedMs = catalog.modifiedUnixMs(r);
  row.createdMs = catalog.createdUnixMs(r);
  row.sizeOnDisk = catalog.sizeOnDisk(r);
  row.device = catalog.deviceName(r);
  return row;
}

}  // namespace tarv
