// Progress reports of a fresh load: which phases a watcher sees, that byte
// counts climb to the file's size and record counts to the catalog's, and that
// nothing is reported without a watcher or on another thread.

#include "kernel/sources/load_progress.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "kernel/config/configuration.h"
#include "tests/config/source_fixture.h"
#include "tests/sources/gzip_fixture.h"
#include "tests/support/temp_dir.h"

namespace tarv {
namespace {

using Phase = LoadProgress::Phase;
using testing::source;
using testing::TempDir;

struct Seen {
  std::string sourceId;
  Phase phase;
  std::uint64_t bytesDone;
  std::uint64_t bytesTotal;
  std::uint64_t records;
  bool finished;
};

class Watcher final : public LoadProgress::Observer {
 public:
  Watcher() { LoadProgress::setObserver(this); }
  ~Watcher() override { LoadProgress::setObserver(nullptr); }
  void report(const LoadProgress::Report& r) noexcept override {
    seen.push_back({std::string(r.sourceId), r.phase, r.bytesDone, r.bytesTotal, r.records, r.finished});
  }
  std::vector<Seen> seen;
};

// About 2.6 MiB of gfind7 records: three input blocks.
std::string gfindList(int records) {
  std::string list;
  for (int i = 0; i < records; ++i)
    list += "f " + std::to_string(i) + " 1795326869.5 1795326869.5 8 2049 /data/some/folder/file" + std::to_string(i) +
            ".txt" + std::string(1, '\0');
  return list;
}

std::string efuList(int records) {
  std::string list = "Filename,Size,Date Modified,Date Created,Attributes\n";
  for (int i = 0; i < records; ++i)
    list += "some\\folder\\file" + std::to_string(i) + ".txt," + std::to_string(i) + ",133000000000000000,,32\n";
  return list;
}

// The reports of one load between the phase start and the scope's end.
void expectClimb(const std::vector<Seen>& seen, Phase phase, std::uint64_t total, std::size_t minimumReports,
                 const char* label) {
  std::vector<Seen> of;
  for (const Seen& s : seen)
    if (s.phase == phase && !s.finished) of.push_back(s);
  ASSERT_GE(of.size(), minimumReports) << label;
  EXPECT_EQ(of.front().bytesDone, 0u) << label << ": a phase starts at zero";
  for (std::size_t i = 1; i < of.size(); ++i) {
    EXPECT_GE(of[i].bytesDone, of[i - 1].bytesDone) << label << " report " << i;
    EXPECT_GE(of[i].records, of[i - 1].records) << label << " report " << i;
    EXPECT_EQ(of[i].bytesTotal, total) << label << " report " << i;
    EXPECT_LE(of[i].bytesDone, total) << label << " report " << i;
  }
}

TEST(LoadProgress, SilentWithoutAWatcher) {
  TempDir dir;
  auto s = source("gfind7", dir.write("l.gfind7", gfindList(100)), "/data");
  LoadProgress::Scope scope(s.id);
  EXPECT_FALSE(LoadProgress::active());
  EXPECT_EQ(s.load().count(), 100);
  // A watcher installed after the scope opened does not see this scope.
  Watcher late;
  LoadProgress::advance(1, 2, 3);
  EXPECT_TRUE(late.seen.empty());
}

TEST(LoadProgress, ReadersReportPerBlock) {
  constexpr int kRecords = 40000;
  TempDir dir;
  const std::string gfind = gfindList(kRecords);
  const std::string efu = efuList(kRecords);
  struct Case {
    const char* label;
    Configuration::Source source;
    std::uint64_t fileSize;
  };
  std::vector<Case> cases;
  cases.push_back({"gfind7", source("gfind7", dir.write("l.gfind7", gfind), "/data"), gfind.size()});
  std::string compressed = testing::gzip(gfind);
  cases.push_back({"gfind7 gzip", source("gfind7", dir.write("l.gfind7.gz", compressed), "/data"), compressed.size()});
  cases.push_back({"efu", source("efu", dir.write("l.efu", efu), "/"), efu.size()});
  cases.back().source.virtualDirectory = "E:\\Share";
  ASSERT_GT(gfind.size(), 2u << 20);

  for (Case& c : cases) {
    Watcher watcher;
    std::int32_t count = 0;
    {
      LoadProgress::Scope scope(c.source.id);
      EXPECT_TRUE(LoadProgress::active()) << c.label;
      count = c.source.load().count();
    }
    EXPECT_GE(count, kRecords) << c.label;
    const auto& seen = watcher.seen;
    ASSERT_GE(seen.size(), 3u) << c.label;
    EXPECT_EQ(seen.front().phase, Phase::reading) << c.label;
    EXPECT_TRUE(seen.back().finished) << c.label;
    for (const Seen& s : seen) EXPECT_EQ(s.sourceId, "src") << c.label;
    // Plain input is read in 1 MiB blocks; compressed input is much smaller
    // on disk, so it may fit in one read.
    expectClimb(seen, Phase::reading, c.fileSize, c.fileSize > (2u << 20) ? 3 : 2, c.label);
    // The load ends with the whole file and the catalog's own count ...
    ASSERT_GE(seen.size(), 4u) << c.label;
    const Seen& last = seen[seen.size() - 2];
    EXPECT_EQ(last.bytesDone, c.fileSize) << c.label;
    EXPECT_EQ(last.records, static_cast<std::uint64_t>(count)) << c.label;
    // ... while the reader, which reports before parsing each block, had
    // read some records but not all by its last block.
    const Seen& lastBlock = seen[seen.size() - 3];
    EXPECT_GT(lastBlock.records, 0u) << c.label;
    EXPECT_LT(lastBlock.records, static_cast<std::uint64_t>(count)) << c.label;
    EXPECT_FALSE(LoadProgress::active()) << c.label << ": the scope is over";
  }
}

TEST(LoadProgress, FingerprintReportsBytes) {
  TempDir dir;
  std::string bytes(3 * (1 << 20) + 17, 'x');
  struct Case {
    const char* label;
    std::filesystem::path file;
    std::uint64_t total;
  };
  std::string compressed = testing::gzip(bytes);
  const Case cases[] = {
      {"plain", dir.write("f.efu", bytes), bytes.size()},
      {"gzip", dir.write("f.efu.gz", compressed), compressed.size()},
  };
  for (const Case& c : cases) {
    Watcher watcher;
    {
      LoadProgress::Scope scope("big");
      Configuration::sha256(c.file);
    }
    expectClimb(watcher.seen, Phase::fingerprint, c.total, 2, c.label);
    ASSERT_GE(watcher.seen.size(), 2u);
    EXPECT_EQ(watcher.seen[watcher.seen.size() - 2].bytesDone, c.total) << c.label;
  }
}

TEST(LoadProgress, ScopesNestAndStayOnTheirThread) {
  Watcher watcher;
  {
    LoadProgress::Scope outer("outer");
    LoadProgress::phase(Phase::reading);
    LoadProgress::advance(10, 100, 1);
    {
      LoadProgress::Scope inner("inner");
      LoadProgress::advance(5, 50, 2);
      bool elsewhere = true;
      std::thread([&] {
        elsewhere = LoadProgress::active();
        LoadProgress::advance(1, 1, 1);
      }).join();
      EXPECT_FALSE(elsewhere);
    }
    LoadProgress::phase(Phase::indexing);  // records carry over into indexing
  }
  std::vector<std::string> order;
  for (const Seen& s : watcher.seen) order.push_back(s.sourceId + (s.finished ? " end" : ""));
  EXPECT_EQ(order, (std::vector<std::string>{"outer", "outer", "inner", "inner end", "outer", "outer end"}));
  ASSERT_EQ(watcher.seen.size(), 6u);
  EXPECT_EQ(watcher.seen[4].phase, Phase::indexing);
  EXPECT_EQ(watcher.seen[4].records, 1u);
  EXPECT_EQ(watcher.seen[4].bytesDone, 0u);
}

}  // namespace
}  // namespace tarv
