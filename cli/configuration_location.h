#pragma once
// Where the kernel configuration file is: the "--config" value when given,
// else the app's configured path when a file exists there, else
// "config.json" in the support directory.

#include <filesystem>
#include <optional>
#include <string>

#include "core/platform/settings.h"

namespace tarv::cli {

// The chosen path, made absolute against the working directory (not
// otherwise normalised). Never throws for a missing file: the Searcher
// reports that when it needs the file.
std::filesystem::path configurationLocation(const std::optional<std::string>& given,
                                            const platform::Settings& settings);

}  // namespace tarv::cli
