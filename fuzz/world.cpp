#include "fuzz/world.h"

#include <cstdint>
#include <random>
#include <vector>

#include "fuzz/fuzz_support.h"

namespace tarv::fuzz {

namespace {

const std::vector<std::string>& stems() {
  static const std::vector<std::string> values = {
      "report",  "Report",    "REPORT",     "Café",       "cafe",   "ÉCOLE",  "notes",    "a.b.c", "x y",
      "日本語",  "\xF0\x9F\x98\x80smile", ".hidden", "README", "archive.tar", "photo", "IMG_0001", "backup",
      "node_modules", "ab",  "a*b",       "q?x",        "semi;colon", "%20",  "ßtraße", "Ωmega", "dir",
  };
  return values;
}

const std::vector<std::string>& extensions() {
  static const std::vector<std::string> values = {"", ".pdf", ".PDF", ".txt", ".md", ".gz", ".jpg", ".mp3",
                                                  ".exe", ".zip", ".docx", ".", ".tar.gz"};
  return values;
}

struct Entry {
  std::string path;
  bool folder;
};

// Folders three levels deep under `root`, files in each; the same seed gives
// the same list.
std::vector<Entry> tree(const std::string& root, char separator, std::mt19937_64& random) {
  std::vector<Entry> entries;
  std::vector<std::string> folders = {root};
  entries.push_back({root, true});
  const auto& names = stems();
  const auto& exts = extensions();
  for (std::size_t level = 0; level < 3; ++level) {
    std::vector<std::string> next;
    for (const std::string& folder : folders) {
      const std::string prefix = folder.back() == separator ? folder : folder + separator;
      for (int i = 0; i < 3; ++i) {
        const std::string sub = prefix + names[random() % names.size()] + std::to_string(level * 10 + i);
        entries.push_back({sub, true});
        next.push_back(sub);
      }
      for (int i = 0; i < 4; ++i)
        entries.push_back({prefix + names[random() % names.size()] + std::to_string(i) + exts[random() % exts.size()],
                           false});
    }
    folders = std::move(next);
  }
  return entries;
}

std::string gfindText(const std::vector<Entry>& entries, bool extended, std::mt19937_64& random) {
  std::string out;
  for (const Entry& e : entries) {
    const std::uint64_t size = e.folder ? 4096 : (random() % 4 == 0 ? random() % 100 : random() % 50'000'000);
    const std::uint64_t modified = 1'500'000'000 + random() % 300'000'000;
    out += e.folder ? "d " : "f ";
    out += std::to_string(size) + " " + std::to_string(modified) + "." + std::to_string(random() % 1'000'000'000);
    if (extended) {
      out += random() % 5 == 0 ? std::string(" -1.-000000010") : " " + std::to_string(modified - random() % 1000);
      out += " " + std::to_string((size + 511) / 512) + " " + (random() % 2 ? "2049" : "2050");
    }
    out += " " + e.path;
    out.push_back('\0');
  }
  return out;
}

std::string efuText(const std::vector<Entry>& entries, std::mt19937_64& random) {
  std::string out = "Filename,Size,Date Modified,Date Created,Attributes\r\n";
  for (const Entry& e : entries) {
    std::string quoted = "\"";
    for (char c : e.path) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    quoted += "\"";
    const std::uint64_t ticks = 130'000'000'000'000'000ULL + random() % 30'000'000'000'000'000ULL;
    out += quoted + "," + (e.folder ? std::string("") : std::to_string(random() % 10'000'000)) + "," +
           std::to_string(ticks) + "," + std::to_string(ticks - 1000) + "," + (e.folder ? "16" : "32") + "\r\n";
  }
  return out;
}

WorldFiles makeWorld() {
  std::mt19937_64 random(20261122);
  WorldFiles files;
  files.posix = writeScratch("world-posix.gfind7", gfindText(tree("/", '/', random), true, random));
  files.windows = writeScratch("world-windows.gfind", gfindText(tree("C:\\Data", '\\', random), false, random));
  files.efu = writeScratch("world.efu", efuText(tree("D:\\Share", '\\', random), random));
  const std::string config = R"({"schema": 1, "sources": [
    {"id": "posix", "label": "Posix disk", "format": "gfind7", "file": ")" + files.posix.string() +
                             R"(", "root": "/", "state": "complete", "scannedAt": "2026-10-01T12:00:00Z",
     "virtualDirectory": null, "devices": [{"id": "2049", "label": "System"}, {"id": "2050", "label": "Data"}]},
    {"id": "windows", "label": "Windows disk", "format": "gfind", "file": ")" + files.windows.string() +
                             R"(", "root": "C:\\Data", "state": "partial", "scannedAt": null, "virtualDirectory": null},
    {"id": "share", "label": "Share", "format": "efu", "file": ")" + files.efu.string() +
                             R"(", "root": "D:\\Share", "state": "unknown", "scannedAt": null, "virtualDirectory": "D:\\Share"}]})";
  files.config = writeScratch("world-config.json", config);
  return files;
}

}  // namespace

const WorldFiles& worldFiles() {
  static const WorldFiles files = makeWorld();
  return files;
}

}  // namespace tarv::fuzz
