// query_bench: warm query times of the joined search over one configuration.
//
//   query_bench CONFIG [--repeat N] [--only CLASS] [--query TEXT] [--tsv]
//
// Loads the configuration once (through the index snapshot, so the index
// cache is used when TARV_INDEX_CACHE names one), then runs a fixed suite of
// queries in this one process: every query once to warm up, then N times as
// a page of 100 rows (search ordering only those rows, plus building them)
// and N times as a count (search, nothing ordered). Prints per query and per class the median, 95th percentile
// and maximum in milliseconds, and the median process CPU time of a count
// (all workers). With --tsv, one line per query for scripts: class, query,
// sort, total, median/p95/max of the page, of the count, the count's CPU.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "kernel/base/kernel_error.h"
#include "kernel/catalog/compatibility.h"
#include "kernel/index/index_snapshot.h"

namespace {

using Clock = std::chrono::steady_clock;

// Rows of a page, ordered and built as a front end shows them; a count
// orders none.
constexpr std::int64_t kPage = 100;

struct BenchQuery {
  const char* kind;
  const char* query;
  const char* sort;
};

// Names from a Debian file tree: common and rare words, both path flavors.
const std::vector<BenchQuery> kSuite = {
    {"literal", "python", "name-asc"},
    {"literal", "libc", "name-asc"},
    {"literal", "README", "name-asc"},
    {"literal", "zlib", "name-asc"},
    {"literal", "x86_64-linux-gnu", "name-asc"},
    {"literal", "copyright", "name-asc"},
    {"literal", "qwertyuiopasdf", "name-asc"},
    {"literal", "gnome shell", "name-asc"},
    {"literal", "e", "name-asc"},
    {"literal", "a", "name-asc"},
    {"literal", "7", "name-asc"},
    {"literal", "-", "name-asc"},
    {"wildcard", "*.so", "name-asc"},
    {"wildcard", "lib*.a", "name-asc"},
    {"wildcard", "*.py?", "name-asc"},
    {"wildcard", "README*", "name-asc"},
    {"wildcard", "?akefile", "name-asc"},
    {"whole", "wfn:Makefile", "name-asc"},
    {"whole", "wfn:__init__.py", "name-asc"},
    {"whole", "case:README", "name-asc"},
    {"extension", "ext:h", "name-asc"},
    {"extension", "ext:png;svg", "name-asc"},
    {"extension", "pic:", "name-asc"},
    {"extension", "audio:", "name-asc"},
    {"extension", "doc: license", "name-asc"},
    {"path", "/usr/share/doc/", "name-asc"},
    {"path", "path:python3 ext:py", "name-asc"},
    {"path", "parent:/usr/bin", "name-asc"},
    {"path", "parent:C:\\debian\\usr\\bin", "name-asc"},
    {"path", "\\share\\man\\", "name-asc"},
    {"size-date", "size:>10mb", "name-asc"},
    {"size-date", "size:1kb..4kb", "name-asc"},
    {"size-date", "dm:2020", "name-asc"},
    {"size-date", "dm:>2022-01-01 ext:h", "name-asc"},
    {"size-date", "size:unknown", "name-asc"},
    {"boolean", "README|LICENSE", "name-asc"},
    {"boolean", "!ext:gz", "name-asc"},
    {"boolean", "<python|perl> ext:pm;py", "name-asc"},
    {"boolean", "file: !lib", "name-asc"},
    {"boolean", "folder: doc", "name-asc"},
    {"sort", "python", "size-desc"},
    {"sort", "python", "path-asc"},
    {"sort", "python", "date-modified-desc"},
    {"sort", "python", "volume-label-asc"},
    {"sort", "ext:h", "name-desc"},
    {"all", "", "name-asc"},
    {"all", "", "path-desc"},
};

struct Stats {
  double median = 0, p95 = 0, max = 0;
};

Stats statsOf(std::vector<double> samples) {
  Stats s;
  if (samples.empty()) return s;
  std::sort(samples.begin(), samples.end());
  s.median = samples[samples.size() / 2];
  s.p95 = samples[std::min(samples.size() - 1, (samples.size() * 95 + 99) / 100 - 1)];
  s.max = samples.back();
  return s;
}

// CPU time of the whole process (every worker), in milliseconds: on a busy
// machine this says more about the work done than the wall clock does.
double processCpuMs() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return double(t.tv_sec) * 1e3 + double(t.tv_nsec) / 1e6;
}

double millisecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

int usage() {
  std::fprintf(stderr, "usage: query_bench CONFIG [--repeat N] [--only CLASS] [--query TEXT] [--tsv]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return usage();
  const std::string config = argv[1];
  int repeat = 15;
  std::string only;
  std::optional<std::string> onlyQuery;
  bool tsv = false;
  for (int i = 2; i < argc; ++i) {
    if (!std::strcmp(argv[i], "--repeat") && i + 1 < argc) repeat = std::max(1, std::atoi(argv[++i]));
    else if (!std::strcmp(argv[i], "--only") && i + 1 < argc) only = argv[++i];
    else if (!std::strcmp(argv[i], "--query") && i + 1 < argc) onlyQuery = argv[++i];
    else if (!std::strcmp(argv[i], "--tsv")) tsv = true;
    else return usage();
  }

  try {
    tarv::Compatibility::setProgramPath(argv[0]);
    const auto table = tarv::Compatibility::load();
    const auto loadStart = Clock::now();
    const tarv::IndexSnapshot snapshot(std::filesystem::path(config), table);
    const double loadMs = millisecondsSince(loadStart);
    const tarv::JoinedSearch& search = snapshot.search();
    std::fprintf(stderr, "query_bench: %s: %lld records in %zu sources, loaded in %.1f ms\n", config.c_str(),
                 static_cast<long long>(search.total()), snapshot.sources().size(), loadMs);

    std::map<std::string, std::pair<std::vector<double>, std::vector<double>>> byClass;
    if (!tsv)
      std::printf("%-10s %-28s %-18s %8s | %24s | %24s | %7s\n", "class", "query", "sort", "total",
                  "page of 100: med/p95/max", "count: med/p95/max", "cpu");
    for (const BenchQuery& q : kSuite) {
      if (!only.empty() && only != q.kind) continue;
      if (onlyQuery && *onlyQuery != q.query) continue;
      std::int64_t total = search.search(q.query, q.sort, kPage).total;  // warm-up
      std::vector<double> page, count, cpu;
      for (int r = 0; r < repeat; ++r) {
        auto start = Clock::now();
        const auto result = search.search(q.query, q.sort, kPage);
        const auto end = std::min<std::int64_t>(result.total, kPage);
        std::size_t bytes = 0;
        for (std::int64_t i = 0; i < end; ++i) bytes += search.row(result.ids[static_cast<std::size_t>(i)]).path.size();
        page.push_back(millisecondsSince(start));
        if (bytes == 0 && end > 0) std::fprintf(stderr, "query_bench: empty paths?\n");

        start = Clock::now();
        const double cpuStart = processCpuMs();
        total = search.search(q.query, q.sort, 0).total;
        count.push_back(millisecondsSince(start));
        cpu.push_back(processCpuMs() - cpuStart);
      }
      auto& [classPage, classCount] = byClass[q.kind];
      classPage.insert(classPage.end(), page.begin(), page.end());
      classCount.insert(classCount.end(), count.begin(), count.end());
      const Stats p = statsOf(page), c = statsOf(count), u = statsOf(cpu);
      if (tsv) {
        std::printf("%s\t%s\t%s\t%lld\t%.3f\t%.3f\t%.3f\t%.3f\t%.3f\t%.3f\t%.3f\n", q.kind, q.query, q.sort,
                    static_cast<long long>(total), p.median, p.p95, p.max, c.median, c.p95, c.max, u.median);
      } else {
        std::printf("%-10s %-28s %-18s %8lld | %7.2f %7.2f %8.2f | %7.2f %7.2f %8.2f | %7.2f\n", q.kind,
                    (std::string("'") + q.query + "'").c_str(), q.sort, static_cast<long long>(total), p.median,
                    p.p95, p.max, c.median, c.p95, c.max, u.median);
      }
      std::fflush(stdout);
    }
    if (!tsv) {
      std::printf("\nper class (all samples)\n");
      for (const auto& [kind, samples] : byClass) {
        const Stats p = statsOf(samples.first), c = statsOf(samples.second);
        std::printf("%-10s page %8.2f %8.2f %9.2f | count %8.2f %8.2f %9.2f\n", kind.c_str(), p.median, p.p95,
                    p.max, c.median, c.p95, c.max);
      }
    }
  } catch (const tarv::KernelError& error) {
    std::fprintf(stderr, "query_bench: %s\n", error.message().c_str());
    return 1;
  }
  return 0;
}
