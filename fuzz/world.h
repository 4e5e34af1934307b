#pragma once
// A small fixed set of source files for the targets that search: a POSIX
// gfind7 list (devices, creation times, sizes on disk), a Windows gfind list
// and an EFU list, each a few hundred records with names chosen to reach the
// parser's and planner's special cases (extensions, case and accent folding,
// surrogate pairs, spaces, dots, wildcard characters).

#include <filesystem>
#include <string>

namespace tarv::fuzz {

struct WorldFiles {
  std::filesystem::path posix;    // gfind7, root "/"
  std::filesystem::path windows;  // gfind, root "C:\\Data"
  std::filesystem::path efu;      // EFU, virtual directory "D:\\Share"
  std::filesystem::path config;   // a configuration naming all three
};

// Writes the files into scratch() on first call; later calls return the same paths.
const WorldFiles& worldFiles();

}  // namespace tarv::fuzz
