#pragma once
// Small file helpers shared by the kernel. Failures are KernelError::io values
// that name the file and the system's reason.

#include <filesystem>
#include <string>

namespace tarv::files {

// The whole file's bytes. Throws KernelError::io("Cannot read <path>: <reason>").
std::string readAll(const std::filesystem::path& path);

// Writes `bytes` to `path` through the side file "<path>.partial" and a rename,
// so that readers see the old file or the new one, never a half-written one.
// Throws KernelError::io on failure (the side file is removed).
void writeAtomically(const std::filesystem::path& path, std::string_view bytes, unsigned mode = 0600);

}  // namespace tarv::files
