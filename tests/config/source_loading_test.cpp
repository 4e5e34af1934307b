#include <gtest/gtest.h>

#include <functional>

#include "kernel/base/kernel_error.h"
#include "kernel/base/sha256.h"
#include "kernel/config/configuration.h"
#include "tests/config/source_fixture.h"
#include "tests/sources/gzip_fixture.h"
#include "tests/support/temp_dir.h"

namespace tarv {
namespace {

using namespace std::string_literals;
using testing::source;
using testing::TempDir;

std::string digestOf(std::string_view bytes) {
  Sha256 digest;
  digest.update(bytes.data(), bytes.size());
  return digest.finishHex();
}

std::string messageOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const KernelError& e) {
    return e.message();
  }
  return "(no error)";
}

TEST(SourceFingerprint, PlainAndDecompressed) {
  TempDir dir;
  std::string big(3 * (1 << 20) + 5, '\0');
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 2654435761u >> 24);
  struct Case {
    const char* label;
    const char* name;
    std::string bytes;
    std::string expected;
  } cases[] = {
      {"abc", "a.efu", "abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {"empty", "e.efu", "", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
      {"gzip of abc", "a.efu.gz", testing::gzip("abc"),
       "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
      {"gzip bytes read raw", "a.gzip", testing::gzip("abc"), digestOf(testing::gzip("abc"))},
      {"several chunks", "big.efu", big, digestOf(big)},
      {"several gzip blocks", "big.efu.gz", testing::gzip(big), digestOf(big)},
  };
  for (auto& c : cases) EXPECT_EQ(Configuration::sha256(dir.write(c.name, c.bytes)), c.expected) << c.label;

  std::string damaged = testing::gzip("abc") + "x";
  EXPECT_EQ(messageOf([&] { Configuration::sha256(dir.write("d.gz", damaged)); }), "Corrupt GZIP trailer");
  EXPECT_EQ(messageOf([&] { Configuration::sha256(dir / "missing.efu"); }).rfind("Cannot read ", 0), 0u);
}

TEST(SourceLoad, DispatchesByFormat) {
  TempDir dir;
  auto efu = source("efu",
                    dir.write("l.efu.gz", testing::gzip("Filename,Size,Date Modified,Date Created,Attributes\n"
                                                        "docs\\a.txt,3,,,32\n")),
                    "/");
  efu.virtualDirectory = "E:\\Share";
  Catalog catalog = efu.load();
  EXPECT_EQ(catalog.displayPath(0), "E:\\Share\\docs\\a.txt");
  EXPECT_EQ(catalog.pathFlavor(), PathFlavor::windows);
  EXPECT_FALSE(catalog.parts().kinds.has_value());  // ancestor inference

  auto gfind7 = source("gfind7", dir.write("l.gfind", "f 5 1.5 -1.-000000010 8 2049 x\0"s), "D:\\n");
  catalog = gfind7.load();
  EXPECT_EQ(catalog.displayPath(0), "D:\\n\\x");
  EXPECT_EQ(catalog.rawAllocated(0), 4096u);
  EXPECT_EQ(catalog.parts().devices, std::vector<std::uint64_t>{2049});
  EXPECT_EQ(catalog.sourceId(), "src");

  auto gfind = source("gfind", gfind7.file, "/");
  EXPECT_EQ(gfind.load().displayPath(0), "/-1.-000000010 8 2049 x");  // four fields: the rest is the path

  auto snapshot = source("snapshot-v1",
                         dir.write("s.jsonl", R"({"schema":"tarv-snapshot-views-v1","path":"/","projected":"R:\\",)"
                                              R"("kind":"directory","logicalSize":null,"allocatedBytes":null,)"
                                              R"("modifiedNs":null,"createdNs":null,"synthetic":false})"
                                              "\n"),
                         "/");
  catalog = snapshot.load();
  EXPECT_EQ(catalog.count(), 1);
  EXPECT_TRUE(catalog.directorySizes());
}

TEST(SourceLoad, Failures) {
  TempDir dir;
  // The load itself would skip any first line: only the header check refuses this one.
  auto badHeader = source("efu", dir.write("b.efu", "Name,Size\nC:\\a,1,,,0\n"), "/");
  badHeader.virtualDirectory = "C:\\";
  EXPECT_EQ(messageOf([&] { badHeader.load(); }),
            "Unsupported EFU header (required: Filename,Size,Date Modified,Date Created,Attributes)");
  auto noDirectory = source("efu", dir.write("n.efu", "Filename,Size,Date Modified,Date Created,Attributes\n"), "/");
  EXPECT_EQ(messageOf([&] { noDirectory.load(); }), "EFU requires explicit Windows virtualDirectory");
  EXPECT_EQ(messageOf([&] { source("csv", dir / "x.csv", "/").load(); }), "Invalid source format/state");
  EXPECT_EQ(messageOf([&] { source("gfind", dir / "missing.gfind", "/").load(); }).rfind("Cannot read ", 0), 0u);
}

}  // namespace
}  // namespace tarv
