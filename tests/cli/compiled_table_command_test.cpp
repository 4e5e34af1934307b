// The built `tarv` and the compiled comparison table in its index cache: the
// first run compiles it, later runs read it and answer exactly alike, and a
// changed table file is seen at once (its new fingerprint gives the sources
// new cache keys). Damaged copies are the table loader's own tests.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace tarv {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using testing::ProcessOptions;
using testing::ProcessResult;
using testing::TempDir;

const std::string kConfig = R"({"schema": 1, "sources": [
  {"id": "work", "label": "Work", "format": "gfind", "file": "work.gfind", "root": "/work",
   "state": "complete", "scannedAt": null, "virtualDirectory": null}]})";

std::vector<fs::path> filesEndingIn(const fs::path& directory, const std::string& extension) {
  std::vector<fs::path> found;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(directory, error))
    if (entry.path().extension() == extension) found.push_back(entry.path());
  return found;
}

class CompiledTableCommand : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_.write("work.gfind", "d 0 1700000000 /work/Docs\0f 10 1700000000 /work/Docs/Résumé.TXT\0"
                             "f 20 1700000001 /work/Docs/resume-2.txt\0f 30 1700000002 /work/Docs/other.md\0"s);
    config_ = dir_.write("config.json", kConfig).string();
    fs::copy_file(testing::binaryDir() + "/vantor-v1.json", table_);
  }

  ProcessResult tarv(const std::vector<std::string>& arguments) const {
    ProcessOptions options = testing::isolatedOptions(dir_.path());
    options.env["TARV_INDEX_CACHE"] = cache_.string();
    options.env["TARV_COMPATIBILITY"] = table_.string();
    std::vector<std::string> all = arguments;
    all.insert(all.end(), {"--config", config_});
    ProcessResult result = testing::run(testing::tarvBinary(), all, options);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    return result;
  }

  TempDir dir_;
  std::string config_;
  fs::path table_ = dir_ / "vantor-v1.json";
  fs::path cache_ = dir_ / "cache";
};

TEST_F(CompiledTableCommand, CompiledOnceReadLaterRenewedWhenTheTableChanges) {
  const std::vector<std::string> search = {"search", "resume", "--sort", "size-asc"};
  const ProcessResult first = tarv(search);
  // Folding from the table: "resume" finds the accented, upper-case name too.
  EXPECT_NE(first.out.find("Résumé.TXT"), std::string::npos) << first.out;
  EXPECT_NE(first.out.find("resume-2.txt"), std::string::npos) << first.out;

  const auto compiled = filesEndingIn(cache_, ".tarvtab");
  ASSERT_EQ(compiled.size(), 1u);
  const std::string good = testing::readFile(compiled.front());
  ASSERT_EQ(filesEndingIn(cache_, ".tarvidx").size(), 1u);

  EXPECT_EQ(tarv(search).out, first.out);
  EXPECT_EQ(testing::readFile(compiled.front()), good);

  // Same tables, other bytes: a new fingerprint, so new cache keys.
  std::ofstream(table_, std::ios::app) << "\n";
  EXPECT_EQ(tarv(search).out, first.out);
  EXPECT_EQ(filesEndingIn(cache_, ".tarvidx").size(), 2u);
  EXPECT_EQ(filesEndingIn(cache_, ".tarvtab").size(), 1u);
  EXPECT_NE(testing::readFile(compiled.front()), good);
}

}  // namespace
}  // namespace tarv
