// libFuzzer target: the snapshot-v1 reader on arbitrary file bytes, under a
// root picked by the first byte. A load either gives a catalog whose every row
// reads back inside its columns, or fails with one KernelError.

#include <cstddef>
#include <cstdint>

#include "fuzz/fuzz_support.h"
#include "fuzz/catalog_walk.h"
#include "kernel/base/kernel_error.h"
#include "kernel/sources/snapshot_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tarv;
  const fuzz::Split input = fuzz::split(data, size);
  static const char* const roots[] = {"/", "/home/user", "/a", "relative", "/a/"};
  const std::string root = roots[input.options % 5];
  const std::filesystem::path path = fuzz::writeScratch("source.jsonl", input.rest);
  try {
    const Catalog catalog = SnapshotReader::load(path, "fuzz", root);
    fuzz::walkCatalog(catalog);
  } catch (const KernelError&) {
  }
  return 0;
}
