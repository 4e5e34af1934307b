#pragma once
// EfuReader: reads an EFU file list (comma-separated Windows paths with size,
// dates in FILETIME ticks and attribute bits, one record per line, plain or
// gzip) into a catalog with Windows paths, ancestor inference and no folder
// sizes. Only the header check fails loudly: records are never rejected
// (numbers read as far as they are digits, text decodes leniently, duplicates
// are dropped). Stateless; safe to call from any thread.

#include <filesystem>
#include <string>
#include <string_view>

#include "kernel/base/text.h"
#include "kernel/catalog/catalog.h"
#include "kernel/sources/chunk_pipeline.h"

namespace tarv::EfuReader {

inline constexpr std::size_t kHeaderLimit = 256;

// Reads the first line only and checks it is one of the two accepted headers
// (after dropping a trailing CR and a leading byte-order mark). Throws
// io("EFU header exceeds 256 bytes"), io("Unsupported EFU header (required:
// Filename,Size,Date Modified,Date Created,Attributes)") and ByteSource errors.
void checkHeader(const std::filesystem::path& url);

// Streams the records into a catalog. Names that are not absolute (drive or
// UNC) hang under `virtualDirectory`. Throws only ByteSource errors (io).
//
// Names that are not valid UTF-8 keep the raw bytes after their last "." as
// their extension, one UTF-16 unit per byte (Latin-1 style), because the
// lenient decoding of the name may have changed them.
//
// Lines are parsed on `options.workers` threads (automatic: by the processors
// available) while the calling thread builds the catalog; the catalog is the
// same for every setting.
Catalog load(const std::filesystem::path& url, const std::string& sourceId, const std::string& virtualDirectory,
             const sources::ReadOptions& options = {});

// The lenient decoder of EFU names, appending to `out`: ASCII as is; a lead
// byte 110xxxxx, 1110xxxx or 11110xxx takes the next 1, 2 or 3 bytes as
// continuation bytes by their low six bits whatever their top bits; code
// points above U+FFFF become surrogate pairs. A stray continuation byte, a byte
// 0xF8..0xFF, a sequence cut off by the end and a value above U+10FFFF each
// yield one U+0000 unit, so the record survives with a marked character.
// Returns whether every byte was below 0x80.
bool appendLegacyUtf8(std::string_view bytes, Text& out);

}  // namespace tarv::EfuReader
