// libFuzzer target: the comparison-table loader on arbitrary bytes. A table
// either loads with three full tables whose collation is a consistent
// three-way comparison, or fails with one KernelError.

#include <cstddef>
#include <cstdint>

#include "fuzz/fuzz_support.h"
#include "kernel/base/kernel_error.h"
#include "kernel/catalog/compatibility.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tarv;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  try {
    const auto table = Compatibility::parse(bytes);
    fuzz::check(table->fingerprint().size() == 64, "fingerprint is not 64 hex digits");
    // A few names from the input's own bytes: the comparison must stay
    // antisymmetric whatever the weights are.
    const Text a = utf16(bytes.substr(0, bytes.size() / 2));
    const Text b = utf16(bytes.substr(bytes.size() / 2));
    const int ab = table->compareNames(a, b);
    const int ba = table->compareNames(b, a);
    fuzz::check((ab < 0) == (ba > 0) && (ab == 0) == (ba == 0), "name comparison not antisymmetric");
    fuzz::check(table->fold(a).size() == a.size(), "folding changed the length");
  } catch (const KernelError&) {
  }
  return 0;
}
