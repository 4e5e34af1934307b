// load_bench: loads one source file with the reader of its format and reports
// the load rate, the process's peak resident memory and the size of the
// finished catalog's columns.
//
//   load_bench FORMAT FILE [--root R] [--virtual-directory V] [--repeat N] [--fingerprint]
//
// FORMAT is efu, gfind, gfind7 or snapshot-v1. The root defaults to "/" and the
// virtual directory (EFU) to C:\debian, as bench/datasets writes them.

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "kernel/base/kernel_error.h"
#include "kernel/config/configuration.h"

namespace {

using Clock = std::chrono::steady_clock;

template <class T>
std::size_t bytesOf(const tarv::Column<T>& column) {
  return column.size() * sizeof(T);
}

template <class T>
std::size_t bytesOf(const std::optional<tarv::Column<T>>& column) {
  return column ? bytesOf(*column) : 0;
}

// The catalog's column bytes: what an index file of it maps.
std::size_t catalogBytes(const tarv::Catalog& catalog) {
  const tarv::Catalog::Parts& p = catalog.parts();
  std::size_t total = bytesOf(p.names) + bytesOf(p.nameStarts) + bytesOf(p.parentTags) + bytesOf(p.sizes) +
                      bytesOf(p.modifiedTimes) + bytesOf(p.createdTimes) + bytesOf(p.allocations) +
                      bytesOf(p.deviceIds) + bytesOf(p.kinds) + bytesOf(p.parentChars) + bytesOf(p.parentStarts);
  total += p.devices.size() * sizeof(std::uint64_t);
  for (const auto& [row, extension] : p.irregularExtensions) total += sizeof(row) + extension.size() * 2;
  return total;
}

// User plus system time of this process so far, which the other processes of
// a busy machine do not inflate the way they inflate wall time.
double cpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// The same for the calling thread alone. Readers parse on worker threads and
// build the catalog on the calling one, so this is the load's critical path:
// with enough processors, the wall time approaches it.
double threadCpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_THREAD, &usage);
  auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double peakResidentMiB() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024.0;  // ru_maxrss is in KiB on Linux
}

int usage() {
  std::fprintf(stderr,
               "usage: load_bench FORMAT FILE [--root R] [--virtual-directory V] [--repeat N] [--fingerprint]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return usage();
  tarv::Configuration::Source source;
  source.id = "bench";
  source.label = "bench";
  source.format = argv[1];
  source.file = std::filesystem::absolute(argv[2]);
  source.root = "/";
  source.state = "complete";
  source.virtualDirectory = "C:\\debian";
  int repeat = 1;
  bool fingerprint = false;
  for (int i = 3; i < argc; ++i) {
    std::string option = argv[i];
    if (option == "--fingerprint") {
      fingerprint = true;
    } else if (i + 1 < argc && option == "--root") {
      source.root = argv[++i];
    } else if (i + 1 < argc && option == "--virtual-directory") {
      source.virtualDirectory = argv[++i];
    } else if (i + 1 < argc && option == "--repeat") {
      repeat = std::max(1, std::atoi(argv[++i]));
    } else {
      return usage();
    }
  }
  try {
    double baseline = peakResidentMiB();
    double best = 0;
    double bestCpu = 0;
    double bestThreadCpu = 0;
    std::int32_t records = 0;
    std::size_t bytes = 0;
    for (int round = 0; round < repeat; ++round) {
      auto start = Clock::now();
      double cpuStart = cpuSeconds();
      double threadCpuStart = threadCpuSeconds();
      tarv::Catalog catalog = source.load();
      double seconds = std::chrono::duration<double>(Clock::now() - start).count();
      double cpu = cpuSeconds() - cpuStart;
      double threadCpu = threadCpuSeconds() - threadCpuStart;
      if (round == 0 || threadCpu < bestThreadCpu) bestThreadCpu = threadCpu;
      if (round == 0 || seconds < best) best = seconds;
      if (round == 0 || cpu < bestCpu) bestCpu = cpu;
      records = catalog.count();
      bytes = catalogBytes(catalog);
    }
    std::printf(
        "format=%s records=%d seconds=%.3f records_per_s=%.0f cpu_seconds=%.3f records_per_cpu_s=%.0f "
        "main_thread_cpu_seconds=%.3f peak_rss_mib=%.1f baseline_rss_mib=%.1f catalog_mib=%.1f\n",
        source.format.c_str(), records, best, records / best, bestCpu, records / bestCpu, bestThreadCpu,
        peakResidentMiB(), baseline,
        static_cast<double>(bytes) / (1 << 20));
    if (fingerprint) {
      auto start = Clock::now();
      std::string digest = tarv::Configuration::sha256(source.file);
      double seconds = std::chrono::duration<double>(Clock::now() - start).count();
      std::printf("sha256=%s seconds=%.3f\n", digest.c_str(), seconds);
    }
  } catch (const tarv::KernelError& e) {
    std::fprintf(stderr, "load_bench: %s\n", e.message().c_str());
    return 2;
  }
  return 0;
}
