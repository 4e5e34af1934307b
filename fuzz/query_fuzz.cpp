// libFuzzer target: the query parser and the whole search path on arbitrary
// query bytes. Every query runs over three small sources (POSIX, Windows,
// EFU) with a sort picked by the first byte, and the planner's answer is
// checked against the row-by-row reference matcher: same total, every id in
// range, distinct and matching.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "fuzz/fuzz_support.h"
#include "fuzz/world.h"
#include "kernel/base/kernel_error.h"
#include "kernel/config/configuration.h"
#include "kernel/query/joined_search.h"
#include "kernel/query/query.h"
#include "kernel/query/query_parser.h"
#include "kernel/query/search_index.h"

namespace {

using namespace tarv;

struct World {
  std::vector<CatalogPtr> catalogs;
  std::unique_ptr<JoinedSearch> search;
};

const World& world() {
  static const World built = [] {
    World w;
    const Configuration config = Configuration::read(fuzz::worldFiles().config);
    std::vector<JoinedSearch::Source> sources;
    std::vector<SearchIndexPtr> indexes;
    for (const Configuration::Source& source : config.sources) {
      auto catalog = std::make_shared<Catalog>(source.load());
      catalog->applyDeviceLabels(source.deviceLabels);
      CatalogPtr shared = std::move(catalog);
      w.catalogs.push_back(shared);
      indexes.push_back(std::make_shared<const SearchIndex>(shared, fuzz::table()));
      sources.push_back({source.id, source.label, shared});
    }
    w.search = std::make_unique<JoinedSearch>(std::move(sources), std::move(indexes),
                                              std::vector<std::string>(config.sources.size()), fuzz::table());
    return w;
  }();
  return built;
}

// Global ids of the rows the reference matcher accepts, per source in order.
std::vector<bool> reference(const World& w, TextView query, const Query::Moment& moment) {
  std::vector<bool> hits(static_cast<std::size_t>(w.search->total()), false);
  for (std::size_t s = 0; s < w.catalogs.size(); ++s) {
    const Catalog& catalog = *w.catalogs[s];
    Query::TermPtr root = Query::parse(query, *fuzz::table(), catalog.pathFlavor(), moment);
    Query::markSizeSemantics(*root, catalog.directorySizes());
    for (std::int32_t r = 0; r < catalog.count(); ++r)
      if (Query::matches(*root, catalog, r, *fuzz::table())) hits[w.search->starts()[s] + r] = true;
  }
  return hits;
}

bool agrees(const std::vector<bool>& expected, const JoinedSearch::Result& result) {
  std::int64_t count = 0;
  for (bool hit : expected) count += hit ? 1 : 0;
  if (count != result.total || static_cast<std::int64_t>(result.ids.size()) != result.total) return false;
  std::vector<bool> seen(expected.size(), false);
  for (std::size_t i = 0; i < result.ids.size(); ++i) {
    const std::int32_t id = result.ids[i];
    if (id < 0 || static_cast<std::size_t>(id) >= expected.size() || seen[id] || !expected[id]) return false;
    seen[id] = true;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const World& w = world();
  const fuzz::Split input = fuzz::split(data, size);
  const std::vector<std::string>& sorts = JoinedSearch::sorts();
  // One value in sixteen is not a sort name: it must be refused, not searched.
  const std::string sort = input.options % 16 == 15 ? std::string("name-sideways") : sorts[input.options % sorts.size()];
  const std::string_view query = input.rest;

  // The parser on its own, for both flavors: every tree must describe itself.
  for (PathFlavor flavor : {PathFlavor::posix, PathFlavor::windows})
    (void)Query::describe(*Query::parse(utf16(query), *fuzz::table(), flavor));

  const Query::Moment before = Query::Moment::now();
  JoinedSearch::Result result;
  try {
    result = w.search->search(query, sort);
  } catch (const KernelError& e) {
    fuzz::check(sort == "name-sideways", "a valid sort name was refused");
    return 0;
  }
  fuzz::check(sort != "name-sideways", "an unknown sort name was searched");
  // Date keywords read the clock; a day or second boundary between the two
  // runs may change the answer, so the reference is tried at both ends.
  if (!agrees(reference(w, utf16(query), before), result))
    fuzz::check(agrees(reference(w, utf16(query), Query::Moment::now()), result),
                "search disagrees with the reference matcher");
  for (std::size_t i = 0; i < result.ids.size() && i < 3; ++i) (void)w.search->row(result.ids[i]);
  return 0;
}
