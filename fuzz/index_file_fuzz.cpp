// libFuzzer target: the index file reader on arbitrary file bytes, as the
// index cache maps a cached file: the container and trailer, the catalog
// sections, the search-index sections, then a few searches and rows over what
// was accepted. Everything either fails with one KernelError or reads inside
// the mapping. Seeds are real index files (scripts/fuzz makes them).

#include <cstddef>
#include <cstdint>
#include <memory>

#include "fuzz/catalog_walk.h"
#include "fuzz/fuzz_support.h"
#include "kernel/base/kernel_error.h"
#include "kernel/catalog/catalog_file.h"
#include "kernel/index/index_file.h"
#include "kernel/query/joined_search.h"
#include "kernel/query/search_index.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace tarv;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const std::filesystem::path path = fuzz::writeScratch("cached.tarvidx", bytes);
  try {
    const IndexFile::Reader reader(path);
    for (const auto& [name, section] : reader.sections())
      fuzz::check(section.offset >= IndexFile::kHeaderBytes && section.offset + section.bytes <= reader.size(),
                  "section outside the file");
    CatalogPtr catalog = std::make_shared<const Catalog>(readCatalog(reader, {}, "fuzz"));
    fuzz::walkCatalog(*catalog, /*built=*/false);
    auto index = std::make_shared<const SearchIndex>(reader, catalog, fuzz::table());
    JoinedSearch search({{"fuzz", "Fuzz", catalog}}, {index}, {""}, fuzz::table());
    static const char* const queries[] = {"", "a", "ext:txt", "*.pdf|folder:", "size:>1kb dm:2026", "/usr/ b"};
    static const char* const sorts[] = {"name-asc", "path-desc", "size-asc", "date-modified-desc",
                                        "date-created-asc", "size-on-disk-desc", "volume-label-asc"};
    for (std::size_t q = 0; q < std::size(queries); ++q) {
      const JoinedSearch::Result result = search.search(queries[q], sorts[q % std::size(sorts)]);
      fuzz::check(result.total <= catalog->count(), "more matches than rows");
      for (std::size_t i = 0; i < result.ids.size() && i < 4; ++i) (void)search.row(result.ids[i]);
    }
  } catch (const KernelError&) {
  }
  return 0;
}
