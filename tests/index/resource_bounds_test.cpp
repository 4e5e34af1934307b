// The 31-bit limits of a stored catalog, checked by arithmetic: an index file
// that claims a record count at or near 2^31 is refused from its sections'
// lengths, before anything of that size is allocated or read.

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>

#include "kernel/base/kernel_error.h"
#include "kernel/catalog/catalog_file.h"
#include "kernel/index/index_file.h"
#include "tests/support/synthetic_catalog.h"
#include "tests/support/temp_dir.h"

namespace tarv {
namespace {

TEST(IndexResourceBounds, RecordCountsNearTheLimitAreRefusedFromTheSectionLengths) {
  const auto catalog = testing::randomCatalog(11, PathFlavor::posix, 40);
  const std::string bad = "Invalid catalog in index file: ";
  constexpr std::int64_t kMax = std::numeric_limits<std::int32_t>::max();
  struct Case {
    const char* label;
    std::int64_t count;
    std::string expected;  // message prefix
  };
  const Case cases[] = {
      {"2^31 - 1 rows leave no room for the end offset", kMax, bad + "record count 2147483647"},
      {"2^31 rows", kMax + 1, bad + "record count 2147483648"},
      {"2^63 - 1 rows", std::numeric_limits<std::int64_t>::max(), bad + "record count 9223372036854775807"},
      {"2^31 - 2 rows over columns of 40", kMax - 1, bad + "nameStarts has 41 entries"},
      {"one row more than stored", 41, bad + "nameStarts has 41 entries"},
  };
  testing::TempDir dir;
  for (const Case& c : cases) {
    const auto path = dir / "bounds.tarvidx";
    {
      IndexFile::Writer writer(path);
      writeCatalog(writer, *catalog);
      writer.meta()["count"] = c.count;
      writer.finish();
    }
    const IndexFile::Reader reader(path);
    try {
      (void)readCatalog(reader, {}, "s");
      ADD_FAILURE() << c.label << ": accepted";
    } catch (const KernelError& error) {
      EXPECT_EQ(error.kind(), KernelError::Kind::io) << c.label;
      EXPECT_EQ(error.message().substr(0, c.expected.size()), c.expected) << c.label << ": " << error.message();
    }
  }
}

}  // namespace
}  // namespace tarv
