#pragma once
// The running executable: its resolved path and the defaults-suite identifier.

#include <filesystem>
#include <string>

namespace tarv::platform {

// The executable's absolute path with symbolic links resolved (/proc/self/exe,
// else `argv0` made absolute and canonical). Empty when neither works.
std::filesystem::path executablePath(const std::string& argv0);

// The fixed identifier of the application's defaults suite on Linux.
inline constexpr const char* kBundleIdentifier = "app.tarv.Tarv";

}  // namespace tarv::platform
