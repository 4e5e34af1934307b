// libFuzzer target: the EFU list reader on arbitrary file bytes. Only the
// header may fail; every record, however broken, must load into a catalog
// whose rows read back inside their columns.

#include <cstddef>
#include <cstdint>

#include "fuzz/catalog_walk.h"
#include "fuzz/fuzz_support.h"
#include "kernel/base/kernel_error.h"
#include "kernel/sources/efu_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tarv;
  const fuzz::Split input = fuzz::split(data, size);
  static const char* const folders[] = {"C:\\Share", "\\\\nas\\share", "D:", "C:\\"};
  const std::string virtualDirectory = folders[input.options % 4];
  const std::filesystem::path path = fuzz::writeScratch("source.efu", input.rest);
  bool headerAccepted = false;
  try {
    EfuReader::checkHeader(path);
    headerAccepted = true;
  } catch (const KernelError&) {
  }
  try {
    const Catalog catalog = EfuReader::load(path, "fuzz", virtualDirectory);
    fuzz::walkCatalog(catalog);
  } catch (const KernelError&) {
    // Records never fail a load: only a header that checkHeader refuses may.
    fuzz::check(!headerAccepted, "a load failed after its header was accepted");
  }
  Text decoded;
  (void)EfuReader::appendLegacyUtf8(input.rest, decoded);
  fuzz::check(decoded.size() <= input.rest.size(), "lenient decoding made more units than bytes");
  return 0;
}
