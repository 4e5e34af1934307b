#pragma once
// Where the product keeps its files on this machine: the support directory
// (TARV_SUPPORT_DIRECTORY when absolute, else ${XDG_DATA_HOME:-~/.local/share}/Tarv),
// the default configuration file in it and its index-cache folder.

#include <filesystem>

namespace tarv::platform {

std::filesystem::path supportDirectory();
// supportDirectory() / "config.json"
std::filesystem::path configurationFile();
// supportDirectory() / "IndexCache"
std::filesystem::path indexCacheDirectory();
// The user's home directory ($HOME, else the password database, else "/").
std::filesystem::path homeDirectory();

}  // namespace tarv::platform
