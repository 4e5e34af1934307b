#pragma once
// GfindReader: reads the NUL-terminated records that GNU find writes with
//   gfind:  -printf '%y %s %T@ %p\0'
//   gfind7: -printf '%y %s %T@ %B@ %b %D %p\0'
// (plain or gzip) into a catalog without ancestor inference or folder sizes.
// Type letters f d l b c p s become kinds 0..6 (1 is a folder); times are
// seconds since 1970 with an optional fraction, turned into FILETIME ticks
// exactly; %b counts 512-byte blocks; %D is the device number. Relative paths
// are joined to the source's root. Stateless; safe to call from any thread.

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "kernel/base/path_flavor.h"
#include "kernel/catalog/catalog.h"
#include "kernel/sources/chunk_pipeline.h"

namespace tarv::GfindReader {

// windows when `root` starts with a drive letter and a colon or with two
// backslashes, else posix.
PathFlavor flavorOf(std::string_view root);

// Loads the file. A malformed record (missing field, unknown type letter, bad
// size, blocks or device number, empty path, or bytes after the last NUL)
// throws io("Gfind record N: <reason>") with N counted from 1; the builder's
// own invalid errors (such as "Duplicate native path: ...") pass unchanged,
// and so do ByteSource errors.
//
// A relative path is joined to `root` after dropping leading "./" components,
// so the output of `cd ROOT && find . ...` names ROOT itself for "." and
// ROOT/x for "./x".
//
// Records are parsed on `options.workers` threads (automatic: by the
// processors available) while the calling thread builds the catalog; the
// catalog and the first error reported are the same for every setting.
Catalog load(const std::filesystem::path& url, const std::string& sourceId, const std::string& root, bool extended,
             const sources::ReadOptions& options = {});

// A %T@-style time ("1795326869.1611563600") as FILETIME ticks: whole seconds,
// optionally negative, and a fraction of any length that is always added (GNU
// find prints 1.5 s before 1970 as "-2.5000000000"); digits below one tick are
// dropped. kUnknown64 for text that is not such a number or lies outside the
// range of ticks.
std::uint64_t parseTime(std::string_view text);

}  // namespace tarv::GfindReader
