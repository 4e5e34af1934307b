#include "kernel/base/kernel_error.h"

#include <cstring>

namespace tarv {

KernelError systemError(const std::string& what, const std::string& path, int error) {
  return KernelError::io(what + " " + path + ": " + std::strerror(error));
}

}  // namespace tarv
