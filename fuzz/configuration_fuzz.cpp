// libFuzzer target: the kernel configuration reader on arbitrary file bytes.
// A file either reads into 1 to 16 well-formed sources or fails with one
// KernelError; nothing else may escape.

#include <cstddef>
#include <cstdint>
#include <regex>

#include "fuzz/fuzz_support.h"
#include "kernel/base/kernel_error.h"
#include "kernel/config/configuration.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tarv;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const std::filesystem::path path = fuzz::writeScratch("config.json", bytes);
  try {
    const Configuration config = Configuration::read(path);
    fuzz::check(!config.sources.empty() && config.sources.size() <= 16, "source count out of 1..16");
    static const std::regex idPattern("^[A-Za-z0-9_-]{1,64}$");
    for (const Configuration::Source& source : config.sources) {
      fuzz::check(std::regex_match(source.id, idPattern), "accepted a malformed source id");
      fuzz::check(source.file.is_absolute(), "source file not absolute");
      (void)source.pathFlavor();
    }
  } catch (const KernelError&) {
  }
  return 0;
}
