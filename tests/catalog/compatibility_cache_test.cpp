#include "kernel/catalog/compatibility_cache.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <random>
#include <thread>

#include "kernel/base/kernel_error.h"
#include "kernel/base/sha256.h"
#include "tests/support/environment_guard.h"
#include "tests/support/temp_dir.h"

namespace tarv {
namespace {

namespace fs = std::filesystem;
using Table = Compatibility::Table;

// A valid table file whose entries depend on `seed`, so two seeds give
// tables (and fingerprints) that differ everywhere but in their length.
std::string tableFile(unsigned seed) {
  std::string out;
  out.reserve(3 * 65536 * 7);
  const char* keys[] = {"search", "sort", "case"};
  out += "{";
  for (int k = 0; k < 3; ++k) {
    out += std::string(k ? ",\n" : "") + "\"" + keys[k] + "\": [";
    for (std::uint32_t i = 0; i < 65536; ++i) {
      if (i) out += ", ";
      // Five digits each, so every seed gives a file of the same size.
      const std::uint32_t value = 10000 + (i * (2 * seed + 1) + 7u * static_cast<unsigned>(k)) % 50000;
      out += std::to_string(value);
    }
    out += "]";
  }
  out += "}\n";
  return out;
}

void expectSameTables(const Compatibility& a, const Compatibility& b) {
  EXPECT_EQ(a.searchTable(), b.searchTable());
  EXPECT_EQ(a.orderTable(), b.orderTable());
  EXPECT_EQ(a.letterCaseTable(), b.letterCaseTable());
  EXPECT_EQ(a.fingerprint(), b.fingerprint());
}

std::string fileBytes(const fs::path& path) { return testing::readFile(path); }

void writeBytes(const fs::path& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
}

// A table file, a cache folder and the compiled copy made by one load.
struct Compiled : ::testing::Test {
  testing::TempDir dir;
  fs::path table = dir.write("tables/vantor-v1.json", tableFile(1));
  fs::path folder = dir / "cache";
  CompatibilityCache cache{folder};

  std::shared_ptr<const Compatibility> reference() const { return Compatibility::parse(fileBytes(table)); }
  std::shared_ptr<const Compatibility> readBack() const {
    return cache.read(table, *CompatibilityCache::identityOf(table));
  }
};

TEST_F(Compiled, FirstLoadCompilesAndTheCopyHoldsTheSameTablesAndFingerprint) {
  const auto loaded = cache.load(table);
  expectSameTables(*loaded, *reference());
  EXPECT_EQ(loaded->fingerprint(), Sha256::hex(fileBytes(table)));
  ASSERT_TRUE(fs::exists(cache.fileOf(table)));
  EXPECT_EQ(fs::status(cache.fileOf(table)).permissions() & fs::perms::all, fs::perms::owner_read | fs::perms::owner_write);

  const auto compiled = readBack();
  ASSERT_TRUE(compiled);
  expectSameTables(*compiled, *reference());
  // No side files are left beside the compiled copy.
  EXPECT_EQ(std::distance(fs::directory_iterator(folder), fs::directory_iterator()), 1);
}

TEST_F(Compiled, AChangedTableFileIsReadAgainAndRecompiled) {
  cache.load(table);
  struct Case {
    const char* label;
    std::function<void()> change;
  };
  const Case cases[] = {
      {"new content, same size", [&] { writeBytes(table, tableFile(2)); }},
      {"same size, old modification time put back",
       [&] {
         struct stat before {};
         ::stat(table.c_str(), &before);
         writeBytes(table, tableFile(3));
         const timespec times[2] = {before.st_atim, before.st_mtim};
         ::utimensat(AT_FDCWD, table.c_str(), times, 0);
       }},
      {"replaced by rename (new inode)",
       [&] {
         const fs::path side = dir / "tables/side.json";
         writeBytes(side, tableFile(4));
         fs::rename(side, table);
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    const std::string before = cache.load(table)->fingerprint();
    // File times advance in clock ticks of a few milliseconds; a change
    // within the tick of the previous write would keep size and times (the
    // known limit of telling files apart by their status).
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    c.change();
    const auto loaded = cache.load(table);
    EXPECT_NE(loaded->fingerprint(), before);
    expectSameTables(*loaded, *reference());
    const auto compiled = readBack();
    ASSERT_TRUE(compiled) << "the new table was not compiled";
    expectSameTables(*compiled, *reference());
  }
}

TEST_F(Compiled, DamagedCopiesAreRefusedAndRebuiltSilently) {
  cache.load(table);
  const fs::path file = cache.fileOf(table);
  const std::string good = fileBytes(file);
  const std::size_t tables = good.size() - 8 - 3 * 131072;  // where the first table starts
  struct Case {
    const char* label;
    std::function<std::string(std::string)> damage;
  };
  auto flip = [](std::size_t at) {
    return [at](std::string bytes) {
      bytes[at] = static_cast<char>(bytes[at] ^ 0x10);
      return bytes;
    };
  };
  const Case cases[] = {
      {"empty", [](std::string) { return std::string(); }},
      {"one byte short", [](std::string b) { return b.substr(0, b.size() - 1); }},
      {"one byte more", [](std::string b) { return b + '\0'; }},
      {"magic", flip(0)},
      {"version byte", flip(7)},
      {"recorded size", flip(8)},
      {"recorded inode", flip(48)},
      {"fingerprint digit", flip(100)},
      {"path", flip(136)},
      {"last unit of the case table", flip(tables + 2 * 131072 + 131071)},
      {"checksum", flip(good.size() - 1)},
      {"fingerprint not hex", [](std::string b) { return b.replace(72, 1, "G"); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    writeBytes(file, c.damage(good));
    EXPECT_FALSE(readBack());
    // The load still gives the right table, and leaves a good copy behind.
    expectSameTables(*cache.load(table), *reference());
    EXPECT_EQ(fileBytes(file), good);
  }
  // A folder in the copy's place is not a copy either, and cannot be replaced.
  fs::remove(file);
  fs::create_directory(file);
  EXPECT_FALSE(readBack());
  expectSameTables(*cache.load(table), *reference());
}

TEST_F(Compiled, EverySingleByteChangeIsRefused) {
  cache.load(table);
  const fs::path file = cache.fileOf(table);
  const std::string good = fileBytes(file);
  std::mt19937 random(20261122);
  std::uniform_int_distribution<std::size_t> at(0, good.size() - 1);
  std::uniform_int_distribution<int> mask(1, 255);
  for (int round = 0; round < 300; ++round) {
    std::string bad = good;
    const std::size_t offset = at(random);
    bad[offset] = static_cast<char>(bad[offset] ^ mask(random));
    writeBytes(file, bad);
    ASSERT_FALSE(readBack()) << "byte " << offset << " changed unnoticed";
  }
}

TEST_F(Compiled, ACopyBelongsToItsPathOnly) {
  cache.load(table);
  // Same file under another name (same inode, size and times): its own copy,
  // and the first path's copy moved into its place is refused.
  const fs::path linked = dir / "tables/linked.json";
  fs::create_hard_link(table, linked);
  EXPECT_NE(cache.fileOf(linked), cache.fileOf(table));
  fs::copy_file(cache.fileOf(table), cache.fileOf(linked));
  EXPECT_FALSE(cache.read(linked, *CompatibilityCache::identityOf(linked)));
  expectSameTables(*cache.load(linked), *reference());
  EXPECT_TRUE(cache.read(linked, *CompatibilityCache::identityOf(linked)));
}

// The loader's own messages are checked with the loader; here only that they
// reach the caller and that nothing is compiled from a bad or missing file.
TEST_F(Compiled, TableFileErrorsPassThroughAndNothingIsCompiled) {
  const fs::path bad = dir.write("bad.json", "{\"search\": [65536]}");
  const fs::path absent = dir / "absent.json";
  try {
    cache.load(bad);
    ADD_FAILURE() << "loaded a bad table";
  } catch (const KernelError& e) {
    EXPECT_EQ(e.message(), "Invalid compatibility table: search");
  }
  EXPECT_FALSE(fs::exists(cache.fileOf(bad)));
  try {
    cache.load(absent);
    ADD_FAILURE() << "loaded a missing table";
  } catch (const KernelError& e) {
    EXPECT_EQ(e.message().rfind("Cannot read " + absent.string() + ": ", 0), 0u) << e.message();
  }
  EXPECT_FALSE(fs::exists(cache.fileOf(absent)));
}

TEST_F(Compiled, TablesWithoutAFingerprintAreNotWritten) {
  Table identity{};
  for (std::size_t i = 0; i < identity.size(); ++i) identity[i] = static_cast<std::uint16_t>(i);
  const auto made = Compatibility::fromTables(identity, identity, identity);
  EXPECT_FALSE(cache.write(table, *CompatibilityCache::identityOf(table), *made));
  EXPECT_FALSE(fs::exists(cache.fileOf(table)));
}

TEST_F(Compiled, LoadUsesTheIndexCacheFolderOnlyWhenItIsAbsolute) {
  testing::EnvironmentGuard env;
  const fs::path relativeRun = dir / "relative";
  fs::create_directory(relativeRun);
  const fs::path before = fs::current_path();
  fs::current_path(relativeRun);
  env.set("TARV_INDEX_CACHE", "cache");
  expectSameTables(*Compatibility::load(table), *reference());
  EXPECT_FALSE(fs::exists(relativeRun / "cache"));
  fs::current_path(before);

  env.set("TARV_INDEX_CACHE", folder.string());
  expectSameTables(*Compatibility::load(table), *reference());
  EXPECT_TRUE(readBack());
  // A copy that goes bad between runs changes nothing for the caller.
  writeBytes(cache.fileOf(table), "damaged");
  expectSameTables(*Compatibility::load(table), *reference());
  EXPECT_TRUE(readBack());
}

}  // namespace
}  // namespace tarv
