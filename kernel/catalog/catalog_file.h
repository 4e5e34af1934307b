#pragma once
// Writing a Catalog into an index file and rebuilding it from one. Every
// column becomes one section named prefix + field name ("names",
// "nameStarts", "parentTags", "sizes", "modifiedTimes", "createdTimes",
// "allocations", "deviceIds", "devices", "kinds", "parentChars",
// "parentStarts", plus "irregularRows"/"irregularStarts"/"irregularChars" and
// "deviceLabelPresent"/"deviceLabelStarts"/"deviceLabelChars"); the scalars go
// to meta as prefix + "count", "folderCount", "pathFlavor", "directorySizes".
// Optional columns are written only when present.
//
// readCatalog maps the columns without copying (they keep the file mapping
// alive); only the small device and irregular-extension tables are copied.
// Its checks take constant time whatever the record count: the counts within
// 31 bits, every column's length against the record, parent or device count,
// and the first and last offset of each text column against that text's
// length. Values inside the columns are not read here; the catalog's
// accessors read them defensively (see catalog.h), so no byte pattern can
// make them read outside the mapping. A failure is KernelError::io
// ("Invalid catalog in index file: " + what), or the reader's
// "Missing index section ..." / "Missing index value ...".

#include <string>
#include <string_view>

#include "kernel/catalog/catalog.h"
#include "kernel/index/index_file.h"

namespace tarv {

// Adds the catalog's sections and meta values under `prefix`. Passes on the
// writer's KernelError::io.
void writeCatalog(IndexFile::Writer& writer, const Catalog& catalog, std::string_view prefix = {});

// The catalog stored under `prefix`, with the given source id.
Catalog readCatalog(const IndexFile::Reader& reader, std::string_view prefix, std::string sourceId);

}  // namespace tarv
