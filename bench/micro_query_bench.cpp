// micro_query_bench: the hot loops of a search, one at a time, over a
// synthetic catalog shaped like a Linux file tree (package folders, library
// names, version suffixes, documentation files).
//
//   micro_query_bench [--rows=N] [Google Benchmark flags]
//
// Loops measured: the name-bigram mask scan, literal search in names (mask
// test then compare, and the bulk one-unit scan), wildcard matching, the
// planner's selection of whole queries of each class, the ordered result
// (selection read off the global order), and the level-1 collation compare.
// Needs the shipped table (data/vantor-v1.json, or TARV_COMPATIBILITY).

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "kernel/catalog/catalog_builder.h"
#include "kernel/query/execution_planner.h"
#include "kernel/query/joined_search.h"
#include "kernel/query/name_collation.h"
#include "kernel/query/name_literal.h"
#include "kernel/query/query.h"
#include "kernel/query/search_index.h"

namespace {

using namespace tarv;

std::int64_t gRows = 1 << 20;

struct Fixture {
  std::shared_ptr<const Compatibility> table;
  SearchIndexPtr index;
  std::unique_ptr<JoinedSearch> search;
};

const Fixture& fixture() {
  static const Fixture f = [] {
    Fixture made;
    made.table = Compatibility::load();
    std::mt19937_64 random(42);
    const std::vector<std::string> stems = {"lib", "python", "gnome", "x86_64-linux-gnu", "share", "doc", "README",
                                            "Makefile", "copyright", "changelog", "zlib", "perl", "icons", "locale",
                                            "man", "include", "bin", "test", "data", "config"};
    const std::vector<std::string> ends = {".so", ".so.6", ".a", ".h", ".py", ".pyc", ".png", ".svg", ".gz",
                                           ".txt", ".mo", "", ".1.gz", ".pm", ".html", ".json"};
    auto pick = [&](const std::vector<std::string>& items) { return items[random() % items.size()]; };
    NativeCatalogBuilder builder("micro", PathFlavor::posix, false);
    std::vector<std::string> folders = {"/usr"};
    builder.add(utf16("/usr"), 1, 0, kUnixEpochTicks, kUnknown64, kUnknown64, std::nullopt);
    std::int64_t added = 1;
    while (added < gRows) {
      const bool folder = random() % 10 == 0;
      const std::string name = pick(stems) + (random() % 2 ? std::to_string(random() % 1000) : "") +
                               (folder ? "" : pick(ends));
      const std::string path = folders[random() % folders.size()] + "/" + name;
      if (builder.contains(utf16(path))) continue;
      builder.add(utf16(path), folder ? 1 : 0, random() % (1 << 24),
                  kUnixEpochTicks + (random() % (std::uint64_t(1) << 50)), kUnknown64, kUnknown64, std::nullopt);
      if (folder) folders.push_back(path);
      ++added;
    }
    auto catalog = std::make_shared<Catalog>(builder.finish());
    made.index = std::make_shared<const SearchIndex>(catalog, made.table);
    made.search = std::make_unique<JoinedSearch>(std::vector<JoinedSearch::Source>{{"micro", "Micro", catalog}},
                                                 std::vector<SearchIndexPtr>{made.index},
                                                 std::vector<std::string>{""}, made.table);
    return made;
  }();
  return f;
}

void rowsProcessed(benchmark::State& state) {
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations()) * fixture().index->catalog().count());
}

// The mask test alone: how many rows may hold a literal.
void MaskScan(benchmark::State& state) {
  const SearchIndex& index = *fixture().index;
  const std::uint64_t mask = SearchIndex::gramMask(index.compatibility(), u"zlib");
  const std::uint64_t* masks = index.nameGramMasks().data();
  const std::int64_t n = index.catalog().count();
  for (auto _ : state) {
    std::int64_t held = 0;
    for (std::int64_t r = 0; r < n; ++r) held += (masks[r] & mask) == mask;
    benchmark::DoNotOptimize(held);
  }
  rowsProcessed(state);
}
BENCHMARK(MaskScan);

// Literal search in every name, folded, without the mask.
void LiteralSearch(benchmark::State& state) {
  const SearchIndex& index = *fixture().index;
  const Catalog& catalog = index.catalog();
  const std::uint16_t* fold = index.compatibility().searchTable().data();
  const Text text = state.range(0) == 0 ? u"zlib" : u"x86_64";
  for (auto _ : state) {
    std::int64_t found = 0;
    for (std::int32_t r = 0; r < catalog.count(); ++r)
      found += name_literal::contains(catalog.nameUnits(r), text, false, fold);
    benchmark::DoNotOptimize(found);
  }
  rowsProcessed(state);
}
BENCHMARK(LiteralSearch)->Arg(0)->Arg(1);

// The bulk scan for one folded unit over all name units.
void UnitScan(benchmark::State& state) {
  const SearchIndex& index = *fixture().index;
  const Catalog& catalog = index.catalog();
  const auto set = name_literal::unitsMatching(static_cast<Unit>(state.range(0)), false, index.compatibility());
  std::vector<std::uint64_t> words(Bitset::wordCount(catalog.count()));
  for (auto _ : state) {
    std::fill(words.begin(), words.end(), 0);
    benchmark::DoNotOptimize(name_literal::scanUnits(catalog, *set, 0, catalog.count(), nullptr, words.data()));
  }
  rowsProcessed(state);
}
BENCHMARK(UnitScan)->Arg('q')->Arg('e');

// The wildcard matcher on every name.
void Wildcard(benchmark::State& state) {
  const SearchIndex& index = *fixture().index;
  const Catalog& catalog = index.catalog();
  const char* patterns[] = {"*.so", "lib*.a", "*.py?"};
  auto term = Query::parse(utf16(patterns[state.range(0)]), index.compatibility(), PathFlavor::posix);
  for (auto _ : state) {
    std::int64_t found = 0;
    for (std::int32_t r = 0; r < catalog.count(); ++r)
      found += Query::wildcard(*term, catalog.nameUnits(r), index.compatibility());
    benchmark::DoNotOptimize(found);
  }
  state.SetLabel(patterns[state.range(0)]);
  rowsProcessed(state);
}
BENCHMARK(Wildcard)->DenseRange(0, 2);

// The planner's whole selection, one query per class.
const char* kSelections[] = {"zlib",         "e",          "README|LICENSE", "*.so",        "lib*.a",
                             "wfn:Makefile", "ext:h",      "parent:/usr",    "/usr/share/", "size:1kb..4kb",
                             "file: !lib",   "folder: doc"};

void Selection(benchmark::State& state) {
  const ExecutionPlanner planner(fixture().index);
  const Text query = utf16(kSelections[state.range(0)]);
  std::int64_t count = 0;
  for (auto _ : state) count = planner.select(query).count;
  state.SetLabel(std::string(kSelections[state.range(0)]) + " " +
                 std::string(ExecutionPlanner::name(planner.plan(query).strategy)) + " " + std::to_string(count));
  rowsProcessed(state);
}
BENCHMARK(Selection)->DenseRange(0, std::size(kSelections) - 1)->Unit(benchmark::kMillisecond);

// The ordered result: the selection read off the global order.
void OrderedResult(benchmark::State& state) {
  const char* queries[] = {"zlib", "ext:h", "size:>1mb"};
  const JoinedSearch& search = *fixture().search;
  std::int64_t total = 0;
  for (auto _ : state) total = search.search(queries[state.range(0)], "name-asc").total;
  state.SetLabel(std::string(queries[state.range(0)]) + " " + std::to_string(total));
}
BENCHMARK(OrderedResult)->DenseRange(0, 2)->Unit(benchmark::kMillisecond);

// Level 1 of the name collation over neighbouring names.
void CollationCompare(benchmark::State& state) {
  const SearchIndex& index = *fixture().index;
  const Catalog& catalog = index.catalog();
  const auto& order = index.compatibility().orderTable();
  for (auto _ : state) {
    int sum = 0;
    for (std::int32_t r = 1; r < catalog.count(); ++r)
      sum += name_collation::level1(order, catalog.nameUnits(r - 1), catalog.nameUnits(r));
    benchmark::DoNotOptimize(sum);
  }
  rowsProcessed(state);
}
BENCHMARK(CollationCompare);

}  // namespace

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i)
    if (std::strncmp(argv[i], "--rows=", 7) == 0) gRows = std::max<std::int64_t>(1, std::atoll(argv[i] + 7));
  tarv::Compatibility::setProgramPath(argv[0]);
  benchmark::Initialize(&argc, argv);
  fixture();
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
