// `tarv search` and `tarv status` end to end: the built executable over a
// configuration of four small sources, one per format (EFU, gfind, gfind7,
// snapshot), two path flavors, devices with labels, known and unknown sizes
// and times, a time before 1970. Output is compared exactly.

#include <gtest/gtest.h>

#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "kernel/base/json.h"
#include "tests/support/process.h"
#include "tests/support/temp_dir.h"

namespace tarv {
namespace {

using testing::ProcessResult;
using testing::TempDir;
using Words = std::vector<std::string>;

using namespace std::string_literals;

const std::string kEfu =
    "Filename,Size,Date Modified,Date Created,Attributes\r\n"
    "Docs,,,,16\r\n"
    "Docs\\Report.pdf,2048,133000000000000000,132000000000000000,32\r\n"
    "Docs\\notes.txt,,,,32\r\n";

const std::string kGfind =
    "d 4096 1700000000 /srv/code\0"
    "f 12 1700000000.5 /srv/code/readme.md\0"
    "f 7 -86400 /srv/code/old report.txt\0"s;

const std::string kGfind7 =
    "d 0 1600000000 -1.-000000010 0 2049 /mnt/cam\0"
    "f 100 1600000000 1500000000 8 2049 /mnt/cam/photo.jpg\0"s;

std::string snapshotRecord(const std::string& path, const std::string& projected, bool folder,
                           const std::string& size, const std::string& allocated, const std::string& modified,
                           const std::string& created, bool synthetic) {
  return R"({"schema":"tarv-snapshot-views-v1","path":")" + path + R"(","projected":")" + projected +
         R"(","kind":")" + (folder ? "directory" : "file") + R"(","logicalSize":)" + size +
         R"(,"allocatedBytes":)" + allocated + R"(,"modifiedNs":)" + modified + R"(,"createdNs":)" + created +
         R"(,"synthetic":)" + (synthetic ? "true" : "false") + "}\n";
}

const std::string kSnapshot =
    snapshotRecord("/", "R:\\\\", true, "null", "null", "null", "null", true) +
    snapshotRecord("/data", "R:\\\\data", true, "null", "null", "1000000000", "null", false) +
    snapshotRecord("/data/reports.docx", "R:\\\\data\\\\reports.docx", false, "5000", "8192", "-1000000000", "0",
                   false);

const std::string kConfig = R"({
  "schema": 1,
  "sources": [
    {"id": "share", "label": "Share", "format": "efu", "file": "list.efu", "root": "C:\\Share",
     "state": "complete", "scannedAt": "2026-01-02T03:04:05Z", "virtualDirectory": "C:\\Share"},
    {"id": "code", "label": "Code", "format": "gfind", "file": "lists/code.gfind", "root": "/srv",
     "state": "partial", "scannedAt": null, "virtualDirectory": null},
    {"id": "cam", "label": "Camera card", "format": "gfind7", "file": "cam.gfind7", "root": "/mnt/cam",
     "state": "unknown", "scannedAt": "2026-10-01T12:00:00.250Z", "virtualDirectory": null,
     "devices": [{"id": "2049", "label": "Camera"}]},
    {"id": "snap", "label": "Snapshot", "format": "snapshot-v1", "file": "snapshot.jsonl", "root": "/data",
     "state": "complete", "scannedAt": "2026-10-01T12:00:00Z", "virtualDirectory": null}
  ]
})";

// The JSON the commands print is the pretty form of one value: checks that
// and returns the value compact, with the search time (the one figure that
// differs from run to run) as T. Together the two pin every byte.
std::string compactOfPretty(const std::string& text) {
  const json::Value value = json::Value::parse(text);
  EXPECT_EQ(json::encode(value, json::Style::pretty) + "\n", text) << "not the pretty form";
  return testing::withoutSearchTime(json::encode(value));
}

class SearchCommand : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_.write("list.efu", kEfu);
    dir_.write("lists/code.gfind", kGfind);
    dir_.write("cam.gfind7", kGfind7);
    dir_.write("snapshot.jsonl", kSnapshot);
    config_ = dir_.write("config.json", kConfig);
  }

  ProcessResult tarv(Words words) const {
    words.insert(words.end(), {"--config", config_.string()});
    return testing::run(testing::tarvBinary(), words, testing::isolatedOptions(dir_.path()));
  }

  TempDir dir_;
  std::filesystem::path config_;
};

TEST_F(SearchCommand, PathsOnePerLineOrTheCount) {
  struct Case {
    const char* label;
    Words words;
    std::string out;
  };
  const std::vector<Case> cases = {
      {"name order over all formats", {"search", "report"},
       "/srv/code/old report.txt\nC:\\Share\\Docs\\Report.pdf\n/data/reports.docx\n"},
      {"path order across flavors", {"search", "--sort", "path-asc"},
       "C:\n/\n/data\n/mnt/cam\n/srv/code\nC:\\Share\nC:\\Share\\Docs\n/data/reports.docx\n/mnt/cam/photo.jpg\n"
       "/srv/code/old report.txt\n/srv/code/readme.md\nC:\\Share\\Docs\\notes.txt\nC:\\Share\\Docs\\Report.pdf\n"},
      {"size descending, unknown last, folders last", {"search", "file:", "--sort", "size-desc"},
       "/data/reports.docx\nC:\\Share\\Docs\\Report.pdf\n/mnt/cam/photo.jpg\n/srv/code/readme.md\n"
       "/srv/code/old report.txt\nC:\\Share\\Docs\\notes.txt\n"},
      {"derived folder sizes of the snapshot", {"search", "folder:", "size:5000"}, "/\n/data\n"},
      {"modified before 1970", {"search", "dm:<1970"}, "/srv/code/old report.txt\n/data/reports.docx\n"},
      {"volume label", {"search", "volume-label:camera"}, "/mnt/cam\n/mnt/cam/photo.jpg\n"},
      {"page", {"search", "--limit", "2", "--offset", "1", "--sort", "name-desc", "ext:pdf;docx;txt;md"},
       "C:\\Share\\Docs\\Report.pdf\n/srv/code/readme.md\n"},
      {"query words joined", {"search", "old", "report"}, "/srv/code/old report.txt\n"},
      {"no match prints nothing", {"search", "nothing-like-this"}, ""},
      {"offset at the total prints nothing", {"search", "report", "--offset", "3"}, ""},
      {"count is the total", {"search", "--count"}, "13\n"},
      {"count wins over json", {"search", "--json", "--count", "--limit", "1"}, "13\n"},
      {"count ignores the offset", {"search", "report", "--count", "--offset", "50"}, "3\n"},
  };
  for (const Case& c : cases) {
    const ProcessResult result = tarv(c.words);
    EXPECT_EQ(result.status, 0) << c.label << ": " << result.err;
    EXPECT_EQ(result.out, c.out) << c.label;
    EXPECT_EQ(result.err, "") << c.label;
  }
}

TEST_F(SearchCommand, JsonResultExactly) {
  const ProcessResult result = tarv({"search", "report|photo", "--sort", "size-desc", "--limit", "3", "--json"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(compactOfPretty(result.out),
            R"({"offset":0,"query":"report|photo","results":[)"
            R"({"created":"1970-01-01T00:00:00Z","modified":"1969-12-31T23:59:59Z","name":"reports.docx",)"
            R"("path":"/data/reports.docx","size":5000,"source":"snap","type":"file"},)"
            R"({"created":"2019-04-17T18:40:00Z","modified":"2022-06-18T04:26:40Z","name":"Report.pdf",)"
            R"("path":"C:\\Share\\Docs\\Report.pdf","size":2048,"source":"share","type":"file"},)"
            R"({"created":"2017-07-14T02:40:00Z","modified":"2020-09-13T12:26:40Z","name":"photo.jpg",)"
            R"("path":"/mnt/cam/photo.jpg","size":100,"source":"cam","type":"file","volume":"Camera"}],)"
            R"("returned":3,"searchMs":T,"sort":"size-desc","total":4})");
  // Two decimals at most.
  const std::regex time(R"("searchMs": ([0-9]+)(\.([0-9]+))?)");
  std::smatch match;
  ASSERT_TRUE(std::regex_search(result.out, match, time));
  EXPECT_LE(match[3].length(), 2);
}

TEST_F(SearchCommand, SearchErrorsExitWithStatusTwo) {
  ProcessResult result = tarv({"search", "x", "--sort", "name-ascending"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, "tarv: Unsupported sort: name-ascending\n");

  dir_.write("cam.gfind7", "f 100 1600000000 1500000000 8 /mnt/cam/photo.jpg\0"s);
  result = tarv({"search", "x"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err.rfind("tarv: Gfind record 1: ", 0), 0u) << result.err;
}

TEST_F(SearchCommand, StatusTextAndJson) {
  ProcessResult result = tarv({"status"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, "Configuration: " + config_.string() +
                            "\n"
                            "Records: 13\n"
                            "  Share  C:\\Share  5 records  scanned 2026-01-02T03:04:05Z\n"
                            "  Code  /srv  3 records  scanned -\n"
                            "  Camera card  /mnt/cam  2 records  scanned 2026-10-01T12:00:00.250Z\n"
                            "  Snapshot  /data  3 records  scanned 2026-10-01T12:00:00Z\n");
  EXPECT_EQ(result.err, "");

  result = tarv({"status", "--json"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(compactOfPretty(result.out),
            R"({"configuration":")" + config_.string() + R"(","records":13,"sources":[)"
            R"({"id":"share","label":"Share","records":5,"root":"C:\\Share","scannedAt":"2026-01-02T03:04:05Z",)"
            R"("state":"complete"},{"id":"code","label":"Code","records":3,"root":"/srv","state":"partial"},)"
            R"({"id":"cam","label":"Camera card","records":2,"root":"/mnt/cam","scannedAt":"2026-10-01T12:00:00.250Z",)"
            R"("state":"unknown"},{"id":"snap","label":"Snapshot","records":3,"root":"/data",)"
            R"("scannedAt":"2026-10-01T12:00:00Z","state":"complete"}]})");
}

}  // namespace
}  // namespace tarv
