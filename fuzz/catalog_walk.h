#pragma once
// Reads every row of a catalog through its accessors, so a reader that hands
// out inconsistent columns is caught by the sanitizers at once rather than at
// some later search. A catalog a reader built must also be consistent (folder
// count, parent indexes); one mapped from a damaged index file need only read
// inside its columns, since its accessors guard every stored number.

#include "fuzz/fuzz_support.h"
#include "kernel/catalog/catalog.h"

namespace tarv::fuzz {

inline void walkCatalog(const Catalog& catalog, bool built = true) {
  check(catalog.count() >= 0 && catalog.folderCount() >= 0 && catalog.folderCount() <= catalog.count(),
        "row or folder count out of range");
  std::int32_t folders = 0;
  for (std::int32_t row = 0; row < catalog.count(); ++row) {
    folders += catalog.isDirectory(row) ? 1 : 0;
    if (built)
      check(catalog.parentIndex(row) < static_cast<std::uint32_t>(catalog.parentCount()), "parent index out of range");
    (void)catalog.parentUnits(catalog.parentIndex(row));
    (void)catalog.nameUnits(row);
    (void)catalog.extensionUnits(row);
    (void)catalog.recordKind(row);
    (void)catalog.sizeBytes(row);
    (void)catalog.modifiedUnixMs(row);
    (void)catalog.createdUnixMs(row);
    (void)catalog.sizeOnDisk(row);
    (void)catalog.deviceName(row);
    (void)catalog.displayPath(row);
  }
  if (built) check(folders == catalog.folderCount(), "folder count disagrees with the folder bits");
}

}  // namespace tarv::fuzz
