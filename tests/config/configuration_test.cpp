#include "kernel/config/configuration.h"

#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <string>
#include <vector>

#include "kernel/base/kernel_error.h"
#include "tests/support/temp_dir.h"

namespace tarv {
namespace {

using Document = nlohmann::ordered_json;
using testing::TempDir;

Document validSource(const std::string& id = "disk") {
  Document source = Document::object();
  source["id"] = id;
  source["label"] = "Disk";
  source["format"] = "gfind";
  source["file"] = "lists/disk.txt";
  source["root"] = "/";
  source["state"] = "complete";
  source["scannedAt"] = nullptr;
  source["virtualDirectory"] = nullptr;
  return source;
}

Document withSources(std::vector<Document> sources) {
  Document document = Document::object();
  document["schema"] = 1;
  document["sources"] = Document::array();
  for (auto& source : sources) document["sources"].push_back(std::move(source));
  return document;
}

// One valid source changed by `edit`.
std::string configWith(const std::function<void(Document&)>& edit) {
  Document source = validSource();
  edit(source);
  return withSources({source}).dump();
}

std::string efuWith(const Document& virtualDirectory) {
  return configWith([&](Document& s) {
    s["format"] = "efu";
    s["virtualDirectory"] = virtualDirectory;
  });
}

std::string withDevices(const Document& devices) {
  return configWith([&](Document& s) { s["devices"] = devices; });
}

Document device(const Document& id, const Document& label = "Disk") {
  Document d = Document::object();
  d["id"] = id;
  d["label"] = label;
  return d;
}

struct Fixture {
  TempDir dir;
  std::filesystem::path write(const std::string& text) const { return dir.write("conf/config.json", text); }
  Configuration read(const std::string& text) const { return Configuration::read(write(text)); }
};

std::string messageOf(const Fixture& fixture, const std::string& text, KernelError::Kind* kind = nullptr) {
  try {
    fixture.read(text);
  } catch (const KernelError& error) {
    if (kind) *kind = error.kind();
    return error.message();
  }
  return "<accepted>";
}

struct RejectCase {
  const char* label;
  std::string text;
  std::string message;
};

std::vector<Document> manySources(int n) {
  std::vector<Document> sources;
  for (int i = 0; i < n; ++i) sources.push_back(validSource("s" + std::to_string(i)));
  return sources;
}

TEST(ConfigurationRead, RejectsEachRuleWithItsExactMessage) {
  const std::string tooLongId(65, 'a');
  const std::vector<RejectCase> cases = {
      // Top level.
      {"array at top", "[]", "Expected JSON object"},
      {"string at top", "\"x\"", "Expected JSON object"},
      {"null at top", "null", "Expected JSON object"},
      {"unknown key in file order", R"({"schema":1,"zeta":1,"alpha":2,"sources":[]})",
       "Unknown configuration field: zeta"},
      {"unknown key before schema", R"({"schema":2,"extra":true})", "Unknown configuration field: extra"},
      {"schema missing", R"({"sources":[]})", "Configuration schema must be 1"},
      {"schema string", R"({"schema":"1","sources":[]})", "Configuration schema must be 1"},
      {"schema 2", R"({"schema":2,"sources":[]})", "Configuration schema must be 1"},
      {"schema 1.5", R"({"schema":1.5,"sources":[]})", "Configuration schema must be 1"},
      {"sources missing", R"({"schema":1})", "sources must contain 1..16 entries"},
      {"sources object", R"({"schema":1,"sources":{}})", "sources must contain 1..16 entries"},
      {"sources empty", R"({"schema":1,"sources":[]})", "sources must contain 1..16 entries"},
      {"sources seventeen", withSources(manySources(17)).dump(), "sources must contain 1..16 entries"},
      // Source shape and keys.
      {"source number", R"({"schema":1,"sources":[1]})", "Source must be an object"},
      {"source null", R"({"schema":1,"sources":[null]})", "Source must be an object"},
      {"second source array", withSources({validSource(), Document::array()}).dump(), "Source must be an object"},
      {"unknown source key", configWith([](Document& s) { s["size"] = 1; }), "Unknown configuration field: size"},
      {"unknown key before missing strings", R"({"schema":1,"sources":[{"zz":1,"yy":2}]})",
       "Unknown configuration field: zz"},
      // Required strings, in order id, label, format, root, state.
      {"id missing", configWith([](Document& s) { s.erase("id"); }), "Missing string: id"},
      {"id number", configWith([](Document& s) { s["id"] = 7; }), "Missing string: id"},
      {"id empty", configWith([](Document& s) { s["id"] = ""; }), "Missing string: id"},
      {"label before id check", configWith([](Document& s) {
         s["id"] = "a b";
         s.erase("label");
       }),
       "Missing string: label"},
      {"format before state", configWith([](Document& s) {
         s.erase("state");
         s.erase("format");
       }),
       "Missing string: format"},
      {"root null", configWith([](Document& s) { s["root"] = nullptr; }), "Missing string: root"},
      {"state empty", configWith([](Document& s) { s["state"] = ""; }), "Missing string: state"},
      // Ids.
      {"id of 65 characters", configWith([&](Document& s) { s["id"] = tooLongId; }), "Invalid or repeated source id"},
      {"id with dot", configWith([](Document& s) { s["id"] = "a.b"; }), "Invalid or repeated source id"},
      {"id with space", configWith([](Document& s) { s["id"] = "a b"; }), "Invalid or repeated source id"},
      {"id non-ASCII letter", configWith([](Document& s) { s["id"] = "caf\u00e9"; }), "Invalid or repeated source id"},
      {"id with line feed", configWith([](Document& s) { s["id"] = "abc\n"; }), "Invalid or repeated source id"},
      {"repeated id", withSources({validSource("x"), validSource("x")}).dump(), "Invalid or repeated source id"},
      {"id wins over format", configWith([](Document& s) {
         s["id"] = "a/b";
         s["format"] = "zip";
       }),
       "Invalid or repeated source id"},
      // Format and state.
      {"format in upper case", configWith([](Document& s) { s["format"] = "EFU"; }), "Invalid source format/state"},
      {"format unknown", configWith([](Document& s) { s["format"] = "gfind8"; }), "Invalid source format/state"},
      {"state unknown", configWith([](Document& s) { s["state"] = "done"; }), "Invalid source format/state"},
      {"format before scannedAt", configWith([](Document& s) {
         s["state"] = "Complete";
         s.erase("scannedAt");
       }),
       "Invalid source format/state"},
      // scannedAt.
      {"scannedAt absent", configWith([](Document& s) { s.erase("scannedAt"); }), "Missing field: scannedAt"},
      {"scannedAt empty", configWith([](Document& s) { s["scannedAt"] = ""; }), "Missing string: scannedAt"},
      {"scannedAt number", configWith([](Document& s) { s["scannedAt"] = 5; }), "Missing string: scannedAt"},
      {"scannedAt bare date", configWith([](Document& s) { s["scannedAt"] = "2026-10-01"; }),
       "Text '2026-10-01' could not be parsed"},
      {"scannedAt no zone", configWith([](Document& s) { s["scannedAt"] = "2026-10-01T12:00:00"; }),
       "Text '2026-10-01T12:00:00' could not be parsed"},
      {"scannedAt before virtualDirectory", configWith([](Document& s) {
         s["scannedAt"] = "yesterday";
         s.erase("virtualDirectory");
       }),
       "Text 'yesterday' could not be parsed"},
      // virtualDirectory.
      {"virtualDirectory absent", configWith([](Document& s) { s.erase("virtualDirectory"); }),
       "Missing field: virtualDirectory"},
      {"virtualDirectory empty", configWith([](Document& s) { s["virtualDirectory"] = ""; }),
       "Missing string: virtualDirectory"},
      {"virtualDirectory array", configWith([](Document& s) { s["virtualDirectory"] = Document::array(); }),
       "Missing string: virtualDirectory"},
      {"efu without virtualDirectory", efuWith(nullptr), "EFU requires explicit Windows virtualDirectory"},
      {"efu with POSIX folder", efuWith("/mnt/share"), "EFU requires explicit Windows virtualDirectory"},
      {"efu with bare drive", efuWith("C:"), "EFU requires explicit Windows virtualDirectory"},
      {"efu with digit drive", efuWith("1:\\x"), "EFU requires explicit Windows virtualDirectory"},
      {"efu with one backslash", efuWith("\\share"), "EFU requires explicit Windows virtualDirectory"},
      {"efu with line break", efuWith("C:\\a\nb"), "EFU requires explicit Windows virtualDirectory"},
      {"efu check before file", configWith([](Document& s) {
         s["format"] = "efu";
         s.erase("file");
       }),
       "EFU requires explicit Windows virtualDirectory"},
      // file.
      {"file missing", configWith([](Document& s) { s.erase("file"); }), "Missing string: file"},
      {"file empty", configWith([](Document& s) { s["file"] = ""; }), "Missing string: file"},
      {"file before devices", configWith([](Document& s) {
         s.erase("file");
         s["devices"] = 3;
       }),
       "Missing string: file"},
      // devices.
      {"devices object", withDevices(Document::object()), "devices must be an array"},
      {"devices null", withDevices(nullptr), "devices must be an array"},
      {"device string", withDevices(Document::array({"1"})), "Device must be an object"},
      {"device unknown key", withDevices(Document::array({{{"id", "1"}, {"serial", "x"}, {"label", "D"}}})),
       "Unknown configuration field: serial"},
      {"device without id", withDevices(Document::array({{{"label", "D"}}})), "Missing string: id"},
      {"device id leading zero", withDevices(Document::array({device("007")})), "Invalid or repeated device"},
      {"device id negative", withDevices(Document::array({device("-1")})), "Invalid or repeated device"},
      {"device id number", withDevices(Document::array({device(7)})), "Missing string: id"},
      {"device id twenty digits", withDevices(Document::array({device("12345678901234567890")})),
       "Invalid or repeated device"},
      {"device id with space", withDevices(Document::array({device("1 ")})), "Invalid or repeated device"},
      {"device repeated", withDevices(Document::array({device("5"), device("5", "Other")})),
       "Invalid or repeated device"},
      {"device without label", withDevices(Document::array({{{"id", "1"}}})), "Invalid or repeated device"},
      {"device label number", withDevices(Document::array({device("1", 3)})), "Invalid or repeated device"},
      {"later source fails", withSources({validSource("a"), [] {
                                            Document s = validSource("b");
                                            s["state"] = "gone";
                                            return s;
                                          }()})
                                 .dump(),
       "Invalid source format/state"},
  };
  Fixture fixture;
  for (const RejectCase& c : cases) {
    KernelError::Kind kind = KernelError::Kind::io;
    EXPECT_EQ(messageOf(fixture, c.text, &kind), c.message) << c.label;
    EXPECT_EQ(kind, KernelError::Kind::invalid) << c.label;
  }
}

TEST(ConfigurationRead, AcceptsEdgeValues) {
  struct AcceptCase {
    const char* label;
    std::string text;
  };
  const std::vector<AcceptCase> cases = {
      {"schema 1.0", R"({"schema":1.0,"sources":[)" + validSource().dump() + "]}"},
      {"schema 1e0", R"({"schema":1e0,"sources":[)" + validSource().dump() + "]}"},
      {"mappings of any shape", R"({"mappings":[1,{"a":null}],"schema":1,"sources":[)" + validSource().dump() + "]}"},
      {"sixteen sources", withSources(manySources(16)).dump()},
      {"ids differing in case", withSources({validSource("A"), validSource("a")}).dump()},
      {"id of 64 characters", configWith([](Document& s) { s["id"] = std::string(64, 'Z'); })},
      {"id of every allowed class", configWith([](Document& s) { s["id"] = "aZ09_-"; })},
      {"scannedAt whole seconds", configWith([](Document& s) { s["scannedAt"] = "2026-10-01T12:00:00Z"; })},
      {"scannedAt fraction", configWith([](Document& s) { s["scannedAt"] = "2026-10-01T12:00:00.250Z"; })},
      {"scannedAt offset", configWith([](Document& s) { s["scannedAt"] = "2026-10-01T12:00:00-07:30"; })},
      {"efu drive backslash", efuWith("C:\\Data")},
      {"efu drive slash", efuWith("d:/")},
      {"efu UNC", efuWith("\\\\nas\\share")},
      {"gfind keeps POSIX virtualDirectory", configWith([](Document& s) { s["virtualDirectory"] = "/mnt"; })},
      {"device zero", withDevices(Document::array({device("0")}))},
      {"device nineteen digits", withDevices(Document::array({device("9999999999999999999")}))},
      {"device with every known key", withDevices(Document::array(
                                          {{{"id", "3"}, {"label", ""}, {"uuid", "u"}, {"mountPoint", "/m"},
                                            {"fileSystem", "apfs"}}}))},
      {"devices empty", withDevices(Document::array())},
  };
  Fixture fixture;
  for (const AcceptCase& c : cases) EXPECT_EQ(messageOf(fixture, c.text), "<accepted>") << c.label;
}

TEST(ConfigurationRead, ResolvesFileAgainstTheConfigurationFolder) {
  struct FileCase {
    const char* label;
    std::string value;
    std::string expected;  // relative to the configuration folder unless absolute
  };
  Fixture fixture;
  const std::filesystem::path folder = fixture.dir / "conf";
  const std::vector<FileCase> cases = {
      {"relative", "lists/a.efu", (folder / "lists/a.efu").string()},
      {"dot components", "./x/../lists/./b.txt", (folder / "lists/b.txt").string()},
      {"parent folder", "../shared/c.txt", (fixture.dir / "shared/c.txt").string()},
      {"absolute", "/data/lists/d.txt", "/data/lists/d.txt"},
      {"absolute with dot-dot", "/data/../lists/e.txt", "/lists/e.txt"},
  };
  for (const FileCase& c : cases) {
    Configuration config = fixture.read(configWith([&](Document& s) { s["file"] = c.value; }));
    EXPECT_EQ(config.sources.at(0).file.string(), c.expected) << c.label;
    EXPECT_TRUE(config.sources.at(0).file.is_absolute()) << c.label;
  }
}

TEST(ConfigurationRead, ParseErrorsAreOneLineInvalidErrors) {
  Fixture fixture;
  for (const std::string text : {"", "{", "{\"schema\":1,}", "{\"a\":\"\n\"}", "\xff\xfe", "{\"schema\":1}x"}) {
    KernelError::Kind kind = KernelError::Kind::io;
    std::string message = messageOf(fixture, text, &kind);
    EXPECT_EQ(kind, KernelError::Kind::invalid) << text;
    EXPECT_EQ(message.rfind("Invalid configuration JSON: ", 0), 0u) << message;
    EXPECT_EQ(message.find('\n'), std::string::npos) << message;
    EXPECT_EQ(message.find("[json.exception"), std::string::npos) << message;
  }
}

TEST(ConfigurationRead, UnreadableFileIsAnIoError) {
  TempDir dir;
  try {
    Configuration::read(dir / "absent.json");
    FAIL() << "read a missing file";
  } catch (const KernelError& error) {
    EXPECT_EQ(error.kind(), KernelError::Kind::io);
    EXPECT_NE(error.message().find("absent.json"), std::string::npos) << error.message();
  }
  EXPECT_THROW(Configuration::read(dir.path()), KernelError) << "a folder is not a configuration";
}

TEST(ConfigurationSource, PathFlavorFollowsFormatAndRoot) {
  struct FlavorCase {
    const char* label;
    const char* format;
    const char* root;
    PathFlavor expected;
  };
  const std::vector<FlavorCase> cases = {
      {"efu is always windows", "efu", "/", PathFlavor::windows},
      {"gfind posix root", "gfind", "/home", PathFlavor::posix},
      {"gfind drive root", "gfind", "C:\\", PathFlavor::windows},
      {"gfind7 bare drive", "gfind7", "z:", PathFlavor::windows},
      {"gfind7 UNC root", "gfind7", "\\\\nas\\share", PathFlavor::windows},
      {"gfind relative root", "gfind", "data", PathFlavor::posix},
      {"gfind digit colon", "gfind", "1:\\", PathFlavor::posix},
      {"snapshot with drive root", "snapshot-v1", "C:\\", PathFlavor::posix},
  };
  for (const FlavorCase& c : cases) {
    Configuration::Source source;
    source.format = c.format;
    source.root = c.root;
    EXPECT_EQ(source.pathFlavor(), c.expected) << c.label;
  }
}

TEST(ConfigurationSource, StatusRecordHasEveryKey) {
  Configuration::Source source;
  source.id = "disk";
  source.label = "Disk";
  source.format = "gfind7";
  source.root = "/";
  source.state = "complete";
  json::Value absent = source.status(12, "ab");
  EXPECT_EQ(json::encode(absent),
            R"({"count":12,"format":"gfind7","id":"disk","label":"Disk","root":"/","scannedAt":null,)"
            R"("sha256":"ab","state":"complete"})");
  source.scannedAt = "2026-10-01T12:00:00Z";
  EXPECT_EQ(source.status(0, "").at("scannedAt"), "2026-10-01T12:00:00Z");
}

// Damaged configurations must fail with a KernelError, never crash or throw
// anything else.
TEST(ConfigurationRead, SurvivesDamagedInput) {
  Document rich = validSource("a");
  rich["devices"] = Document::array({device("1", "One")});
  Document efu = validSource("b");
  efu["format"] = "efu";
  efu["virtualDirectory"] = "\\\\nas\\x";
  efu["scannedAt"] = "2024-02-29T23:59:59.5+01:00";
  const std::string seed = withSources({rich, efu}).dump();

  Fixture fixture;
  ASSERT_EQ(messageOf(fixture, seed), "<accepted>");
  std::mt19937 random(20261001);
  std::uniform_int_distribution<int> byte(0, 255);
  for (int round = 0; round < 600; ++round) {
    std::string text = seed;
    switch (round % 3) {
      case 0:
        text.resize(random() % (text.size() + 1));
        break;
      case 1:
        for (int flips = 1 + random() % 4; flips > 0; --flips)
          text[random() % text.size()] = static_cast<char>(byte(random));
        break;
      default:
        text.assign(random() % 64, '\0');
        for (char& c : text) c = static_cast<char>(byte(random));
    }
    try {
      fixture.read(text);
    } catch (const KernelError&) {
    } catch (const std::exception& other) {
      FAIL() << "round " << round << " threw a non-kernel error: " << other.what();
    }
  }
}

}  // namespace
}  // namespace tarv
