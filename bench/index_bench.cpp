// index_bench: builds the search index of one source, writes the catalog and
// index to an index file, and maps them back, reporting the time of each step.
//
//   index_bench FORMAT FILE [--table vantor-v1.json] [--out FILE] [--repeat N] [--phases] [--verify]
//   index_bench --open INDEXFILE [--table vantor-v1.json] [--repeat N]
//
// FORMAT is efu, gfind, gfind7 or snapshot-v1 (root "/", EFU virtual
// directory C:\debian, as bench/datasets writes them). Without --table the
// shipped table is found the usual way. --phases also times the index's
// parts one by one (parent ranks, tie-break sort, each stored order, the
// reverse and folded name orders). --verify checks that every adjacent pair of every
// order (stored, volume-label and reversed-name) is in order, and that the
// mapped index gives the same orders. Times are wall seconds with the process's CPU seconds
// beside them, since other processes on a busy machine inflate wall time.
// The file's size is reported per record. --open times only the opening of an
// index file already written (a cache file, say), so that large sets can be
// measured without building them again.

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "kernel/base/kernel_error.h"
#include "kernel/catalog/catalog_file.h"
#include "kernel/config/configuration.h"
#include "kernel/query/name_candidates.h"
#include "kernel/query/parallel.h"
#include "kernel/query/path_order.h"
#include "kernel/query/row_order.h"
#include "kernel/query/search_index.h"

namespace {

using Clock = std::chrono::steady_clock;

double cpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double peakResidentMiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

// Runs `step` and prints its wall and CPU seconds under `label`.
template <class Step>
auto timed(const char* label, Step&& step) {
  const auto start = Clock::now();
  const double cpuStart = cpuSeconds();
  auto report = [&] {
    std::printf("%-22s seconds=%.4f cpu_seconds=%.4f\n", label,
                std::chrono::duration<double>(Clock::now() - start).count(), cpuSeconds() - cpuStart);
    std::fflush(stdout);
  };
  if constexpr (std::is_void_v<decltype(step())>) {
    step();
    report();
  } else {
    auto result = step();
    report();
    return result;
  }
}

int usage() {
  std::fprintf(stderr,
               "usage: index_bench FORMAT FILE [--table T] [--out FILE] [--repeat N] [--phases] [--verify]\n"
               "       index_bench --open INDEXFILE [--table T] [--repeat N]\n");
  return 2;
}

// Opens the file `repeat` times: the catalog and the search index, as the
// index cache does. Returns the record count.
std::int32_t openRepeatedly(const std::filesystem::path& file, const std::shared_ptr<const tarv::Compatibility>& table,
                            int repeat) {
  std::int32_t records = 0;
  for (int round = 0; round < repeat; ++round) {
    records = timed("index.open", [&] {
      tarv::IndexFile::Reader reader(file);
      auto mapped = std::make_shared<const tarv::Catalog>(tarv::readCatalog(reader, "", "bench"));
      tarv::SearchIndex opened(reader, mapped, table);
      return opened.catalog().count();
    });
  }
  const auto bytes = static_cast<double>(std::filesystem::file_size(file));
  std::printf("records=%d file_mib=%.1f bytes_per_record=%.1f\n", records, bytes / (1 << 20),
              records > 0 ? bytes / records : 0.0);
  return records;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return usage();
  if (std::string(argv[1]) == "--open") {
    std::optional<std::filesystem::path> table;
    int repeat = 1;
    for (int i = 3; i < argc; ++i) {
      const std::string option = argv[i];
      if (i + 1 < argc && option == "--table") table = argv[++i];
      else if (i + 1 < argc && option == "--repeat") repeat = std::max(1, std::atoi(argv[++i]));
      else return usage();
    }
    try {
      tarv::Compatibility::setProgramPath(argv[0]);
      openRepeatedly(argv[2], tarv::Compatibility::load(table), repeat);
    } catch (const tarv::KernelError& e) {
      std::fprintf(stderr, "index_bench: %s\n", e.message().c_str());
      return 2;
    }
    return 0;
  }
  tarv::Configuration::Source source;
  source.id = "bench";
  source.label = "bench";
  source.format = argv[1];
  source.file = std::filesystem::absolute(argv[2]);
  source.root = "/";
  source.state = "complete";
  source.virtualDirectory = "C:\\debian";
  std::optional<std::filesystem::path> table;
  std::filesystem::path out = std::filesystem::temp_directory_path() / "index_bench.tarvidx";
  int repeat = 1;
  bool phases = false;
  bool verify = false;
  for (int i = 3; i < argc; ++i) {
    const std::string option = argv[i];
    if (option == "--phases") phases = true;
    else if (option == "--verify") verify = true;
    else if (i + 1 < argc && option == "--table") table = argv[++i];
    else if (i + 1 < argc && option == "--out") out = argv[++i];
    else if (i + 1 < argc && option == "--repeat") repeat = std::max(1, std::atoi(argv[++i]));
    else return usage();
  }
  try {
    tarv::Compatibility::setProgramPath(argv[0]);
    const auto compatibility = tarv::Compatibility::load(table);
    auto catalog = timed("load", [&] { return std::make_shared<const tarv::Catalog>(source.load()); });
    std::printf("records=%d parents=%d workers=%lld\n", catalog->count(), catalog->parentCount(),
                static_cast<long long>(tarv::Parallel::workers()));

    if (phases) {
      const auto ranks = timed("phase.parentRanks", [&] { return tarv::PathOrder::ranks(*catalog, *compatibility); });
      const auto tieBreak =
          timed("phase.tieBreakSort", [&] { return tarv::RowOrder::tieBreak(*catalog, *compatibility, ranks); });
      for (tarv::SortKey key : {tarv::SortKey::name, tarv::SortKey::path, tarv::SortKey::size, tarv::SortKey::modified}) {
        const std::string label = "phase.order." + std::string(tarv::sortKeyName(key));
        timed(label.c_str(), [&] { return tarv::RowOrder::orderFrom(*catalog, tieBreak, key, ranks); });
      }
      timed("phase.reverseOrder", [&] { return tarv::NameCandidates::buildReverseOrder(*catalog, *compatibility); });
      timed("phase.foldedOrder", [&] { return tarv::NameCandidates::buildFoldedOrder(*catalog, *compatibility); });
    }

    std::shared_ptr<const tarv::SearchIndex> index;
    for (int round = 0; round < repeat; ++round)
      index = timed("index.build", [&] { return std::make_shared<const tarv::SearchIndex>(catalog, compatibility); });

    timed("index.write", [&] {
      tarv::IndexFile::Writer writer(out);
      tarv::writeCatalog(writer, *catalog);
      index->write(writer);
      writer.meta()["fingerprint"] = "bench";
      writer.finish();
    });
    openRepeatedly(out, compatibility, repeat);
    if (verify) {
      long long bad = 0;
      timed("verify", [&] {
        for (tarv::SortKey key : tarv::kSortKeys) {
          const auto order = index->order(key);
          const tarv::SortSpec spec{key, false};
          for (std::size_t k = 1; k < order.size(); ++k) bad += index->compare(order[k - 1], order[k], spec) >= 0;
        }
        const auto& reverse = index->names()->reverseOrder();
        for (std::size_t k = 1; k < reverse.size(); ++k) {
          const int r = tarv::NameCandidates::compareReversed(*compatibility, catalog->nameUnits(reverse[k - 1]),
                                                              catalog->nameUnits(reverse[k]));
          bad += r > 0 || (r == 0 && reverse[k - 1] > reverse[k]);
        }
        tarv::IndexFile::Reader reader(out);
        auto mapped = std::make_shared<const tarv::Catalog>(tarv::readCatalog(reader, "", "bench"));
        tarv::SearchIndex opened(reader, mapped, compatibility);
        for (tarv::SortKey key : tarv::kSortKeys) {
          const auto a = index->order(key), b = opened.order(key);
          bad += !std::equal(a.begin(), a.end(), b.begin(), b.end());
        }
      });
      std::printf("verify_failures=%lld\n", bad);
    }
    std::printf("peak_rss_mib=%.1f\n", peakResidentMiB());
    std::filesystem::remove(out);
  } catch (const tarv::KernelError& e) {
    std::fprintf(stderr, "index_bench: %s\n", e.message().c_str());
    return 2;
  }
  return 0;
}
