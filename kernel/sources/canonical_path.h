#pragma once
// The kernel's rule for absolute POSIX paths (scan roots and snapshot
// records): absolute, no NUL, and canonical: no empty, "." or ".." component,
// so no doubled or trailing slash except the root "/" itself.
//
// Throws KernelError::invalid("Expected absolute POSIX path") for an empty
// path, one not starting with "/" or one holding a NUL, and
// KernelError::invalid("Noncanonical path") for a bad component.

#include <string_view>

#include "kernel/base/text.h"

namespace tarv::canonical {

// The rule's message for `path`, or nullptr when the path is valid (for
// callers that collect problems instead of throwing).
const char* posixPathProblem(std::string_view path) noexcept;

// On UTF-8 bytes. The rule only looks at "/", "." and NUL, which UTF-8 never
// uses inside a multi-byte sequence, so it agrees with the UTF-16 form.
void checkAbsolutePosixPath(std::string_view path);
// On UTF-16 units.
void checkAbsolutePosixPath(TextView path);

}  // namespace tarv::canonical
