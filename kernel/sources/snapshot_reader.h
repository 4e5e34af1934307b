#pragma once
// SnapshotReader: reads a "snapshot-v1" source: UTF-8 text with one JSON
// record per line, each a file or folder of a scanned POSIX subtree, or a
// synthetic ancestor folder that links the scanned root to "/". Every record
// is checked strictly and the first bad one ends the load (nothing partial is
// returned). Folder sizes are derived from the files below them, never read.
// Text is compared under canonical equivalence (NFC), so two spellings of one
// path are the same path. Stateless; safe to call from any thread.

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>

#include "kernel/catalog/catalog.h"
#include "kernel/sources/chunk_pipeline.h"

namespace tarv::SnapshotReader {

inline constexpr std::string_view kSchema = "tarv-snapshot-views-v1";
// A longer record is refused before it reaches the JSON parser.
inline constexpr std::size_t kRecordLimit = 1 << 20;

// Loads the snapshot file `url` for the source `sourceId` whose scanned
// subtree is `root`.
//
// Throws, unprefixed: the path rule's KernelError::invalid for a bad `root`
// (see canonical_path.h); the file read error (io); io("Input length = 1")
// for ill-formed UTF-8; io("Empty snapshot") when nothing but one final line
// separator is there. The first bad record throws io("Snapshot record N: "
// + reason), N counting lines from 1 with blank lines included.
//
// The file is streamed (never held whole) and its lines are parsed on
// `options.workers` threads while the calling thread builds the catalog; the
// catalog and the error reported are the same for every setting.
Catalog load(const std::filesystem::path& url, const std::string& sourceId, const std::string& root,
             const sources::ReadOptions& options = {});

}  // namespace tarv::SnapshotReader
