#include "kernel/sources/canonical_path.h"

#include "kernel/base/kernel_error.h"

namespace tarv::canonical {
namespace {

template <class View>
void check(View path) {
  using Char = typename View::value_type;
  if (path.empty() || path[0] != Char('/') || path.find(Char(0)) != View::npos)
    throw KernelError::invalid("Expected absolute POSIX path");
  if (path.size() == 1) return;
  std::size_t start = 1;
  for (;;) {
    std::size_t end = path.find(Char('/'), start);
    View component = path.substr(start, end == View::npos ? View::npos : end - start);
    bool dot = component.size() == 1 && component[0] == Char('.');
    bool dotDot = component.size() == 2 && component[0] == Char('.') && component[1] == Char('.');
    if (component.empty() || dot || dotDot) throw KernelError::invalid("Noncanonical path");
    if (end == View::npos) return;
    start = end + 1;
  }
}

}  // namespace

void checkAbsolutePosixPath(std::string_view path) { check(path); }
void checkAbsolutePosixPath(TextView path) { check(path); }

}  // namespace tarv::canonical
