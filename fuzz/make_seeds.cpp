// tarv-fuzz-seeds OUTPUT_FOLDER: writes the seeds that are generated rather
// than committed: real index files made the way the index cache writes them
// (a five-record list and the fuzz world's three sources) into
// OUTPUT_FOLDER/index_file/, and the smallest well-formed comparison table
// into OUTPUT_FOLDER/compatibility/.

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

#include "fuzz/fuzz_support.h"
#include "fuzz/world.h"
#include "kernel/base/files.h"
#include "kernel/base/kernel_error.h"
#include "kernel/catalog/catalog_file.h"
#include "kernel/config/configuration.h"
#include "kernel/index/index_file.h"
#include "kernel/query/search_index.h"

namespace {

using namespace tarv;

void writeIndex(const Catalog& loaded, const std::filesystem::path& file) {
  CatalogPtr catalog = std::make_shared<const Catalog>(loaded.parts());
  const SearchIndex index(catalog, fuzz::table());
  IndexFile::Writer writer(file);
  writer.meta()["fingerprint"] = std::string(64, '0');
  writeCatalog(writer, *catalog);
  index.write(writer);
  writer.finish();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: tarv-fuzz-seeds OUTPUT_FOLDER\n");
    return 2;
  }
  try {
    const std::filesystem::path out = argv[1];
    std::filesystem::create_directories(out / "index_file");
    std::filesystem::create_directories(out / "compatibility");

    using namespace std::string_literals;
    const std::filesystem::path tiny = fuzz::writeScratch(
        "tiny.gfind7", "d 4096 1700000000.5 1700000000 8 2049 /\0"
                       "d 4096 1700000001 -1.-000000010 8 2049 /usr\0"
                       "f 12 1700000002.25 1700000002 8 2049 /usr/a.txt\0"
                       "f 3000 1700000003 1700000003 8 2050 /usr/B.PDF\0"
                       "l 9 1700000004 1700000004 0 2050 /usr/link\0"s);
    Configuration::Source source;
    source.id = "tiny";
    source.format = "gfind7";
    source.file = tiny;
    source.root = "/";
    writeIndex(source.load(), out / "index_file" / "tiny.tarvidx");

    const Configuration config = Configuration::read(fuzz::worldFiles().config);
    for (const Configuration::Source& s : config.sources) writeIndex(s.load(), out / "index_file" / (s.id + ".tarvidx"));

    // Every entry a single digit: the smallest file the loader accepts.
    std::string table;
    for (const char* key : {"search", "sort", "case"}) {
      table += "\""s + key + "\":[";
      for (int i = 0; i < 65536; ++i) table += i % 10 == 0 ? "1," : "0,";
      table += "],";
    }
    files::writeAtomically(out / "compatibility" / "smallest-table.json", "{" + table + "\"version\":1}\n");
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "tarv-fuzz-seeds: %s\n", e.what());
    return 1;
  }
}
