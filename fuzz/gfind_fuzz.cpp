// libFuzzer target: the GNU find record reader (both field layouts) and its
// time parser on arbitrary bytes. A load gives a catalog whose rows read back
// inside their columns, or fails with one KernelError.

#include <cstddef>
#include <cstdint>

#include "fuzz/catalog_walk.h"
#include "fuzz/fuzz_support.h"
#include "kernel/base/kernel_error.h"
#include "kernel/sources/gfind_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tarv;
  const fuzz::Split input = fuzz::split(data, size);
  const bool extended = input.options & 1;
  static const char* const roots[] = {"/", "/usr", "C:\\Data", "\\\\nas\\share"};
  const std::string root = roots[(input.options >> 1) % 4];
  const std::filesystem::path path = fuzz::writeScratch("source.gfind", input.rest);
  try {
    const Catalog catalog = GfindReader::load(path, "fuzz", root, extended);
    fuzz::walkCatalog(catalog);
  } catch (const KernelError&) {
  }
  // The time parser sees every field of a record; feed it the first line.
  const std::string_view field = input.rest.substr(0, input.rest.find('\0'));
  (void)GfindReader::parseTime(field.substr(0, 64));
  return 0;
}
