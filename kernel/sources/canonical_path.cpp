#include "kernel/sources/canonical_path.h"

#include "kernel/base/kernel_error.h"

namespace tarv::canonical {
namespace {

template <class View>
const char* problem(View path) noexcept {
  using Char = typename View::value_type;
  if (path.empty() || path[0] != Char('/') || path.find(Char(0)) != View::npos) return "Expected absolute POSIX path";
  if (path.size() == 1) return nullptr;
  std::size_t start = 1;
  for (;;) {
    std::size_t end = path.find(Char('/'), start);
    View component = path.substr(start, end == View::npos ? View::npos : end - start);
    bool dot = component.size() == 1 && component[0] == Char('.');
    bool dotDot = component.size() == 2 && component[0] == Char('.') && component[1] == Char('.');
    if (component.empty() || dot || dotDot) return "Noncanonical path";
    if (end == View::npos) return nullptr;
    start = end + 1;
  }
}

}  // namespace

const char* posixPathProblem(std::string_view path) noexcept { return problem(path); }

void checkAbsolutePosixPath(std::string_view path) {
  if (const char* message = problem(path)) throw KernelError::invalid(message);
}

void checkAbsolutePosixPath(TextView path) {
  if (const char* message = problem(path)) throw KernelError::invalid(message);
}

}  // namespace tarv::canonical
