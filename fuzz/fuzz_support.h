#pragma once
// Shared pieces of the fuzz targets: the shipped comparison table, loaded once,
// and a scratch folder for targets whose parser reads a file by name.
// Single-threaded, like libFuzzer's loop.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

#include "kernel/catalog/compatibility.h"

namespace tarv::fuzz {

// data/vantor-v1.json of the source tree (TARV_COMPATIBILITY overrides), loaded
// on first use. Aborts when it cannot be loaded: every target needs it.
const std::shared_ptr<const Compatibility>& table();

// A private folder for this process (under TMPDIR, else /tmp), removed at exit.
const std::filesystem::path& scratch();

// Writes `bytes` to scratch()/name, replacing it, and returns the path.
std::filesystem::path writeScratch(const std::string& name, std::string_view bytes);

// Breaks a fuzzer input into an option byte and the rest.
struct Split {
  std::uint8_t options = 0;
  std::string_view rest;
};
Split split(const std::uint8_t* data, std::size_t size);

// Aborts (a finding) when `condition` is false.
void check(bool condition, const char* what);

}  // namespace tarv::fuzz
