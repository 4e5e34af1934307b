#pragma once
// The command line's two ways of speaking: results on standard output and
// failures on standard error with the "tarv: " prefix. Both write straight to
// the file descriptor (no stdio buffer), so nothing is lost when the process
// ends right after.

#include <string_view>

namespace tarv::cli {

// Writes `text` and one line feed to standard output in one write call
// (repeated only if the system accepts part of it).
void output(std::string_view text);

// Writes "tarv: " + message + line feed to standard error and ends the
// process with `code`.
[[noreturn]] void fail(std::string_view message, int code);

}  // namespace tarv::cli
