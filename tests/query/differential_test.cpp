// The engine against the plain evaluation: random catalogs of both path
// flavors joined in several sources, random queries over the whole grammar,
// and for every one of the fourteen sorts the engine's ordered ids must equal
// Query::matches on every row of every source followed by a std::sort with
// the cross-source comparison written out plainly below.
//
// TARV_DIFF_SEED and TARV_DIFF_CASES (queries) set up long runs.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "kernel/base/text.h"
#include "kernel/catalog/catalog_builder.h"
#include "kernel/query/joined_search.h"
#include "kernel/query/query.h"
#include "kernel/query/search_index.h"
#include "kernel/query/sort_spec.h"
#include "tests/support/process.h"
#include "tests/query/query_test_support.h"

namespace tarv {
namespace {

std::uint64_t environmentNumber(const char* name, std::uint64_t fallback) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0' ? std::strtoull(value, nullptr, 10) : fallback;
}

class Random {
 public:
  explicit Random(std::uint64_t seed) : engine_(seed) {}
  std::uint64_t below(std::uint64_t n) { return std::uniform_int_distribution<std::uint64_t>(0, n - 1)(engine_); }
  std::int64_t between(std::int64_t low, std::int64_t high) {
    return std::uniform_int_distribution<std::int64_t>(low, high)(engine_);
  }
  bool chance(double p) { return std::bernoulli_distribution(p)(engine_); }
  template <class T>
  const T& pick(const std::vector<T>& items) {
    return items[below(items.size())];
  }

 private:
  std::mt19937_64 engine_;
};

// ---------------------------------------------------------------------------
// Random catalogs.

const std::vector<std::string> kNames = {
    "readme", "README", "ReadMe.txt", "readme.md", "report.pdf", "Report.PDF", "report 2024.docx", "café",
    "CAFÉ", "Café.doc", "cafe.txt", "naïve.txt", "Straße", "strasse.md", "日本語.txt", "データ.csv",
    "😀smile.png", "😀", "a", "B", "b.c", ".bashrc", "archive.tar.gz", "Makefile", "x y z.txt", "dot.",
    "ÅNGSTRÖM.log", "ñandú.mp3", "photo.JPG", "photo.jpg", "movie.mkv", "song.flac", "setup.exe", "data.zip",
    "notes", "Notes", "NOTES.TXT", "node_modules", "src", "lib", "tmp", "TMP", "size:1", "foo!bar", "a|b",
    "x<y>", "q\"uote", "wild*card?", "Ｆｕｌｌ.txt", "İstanbul", "ﬁle.txt", "ΣΊΣΥΦΟΣ.txt", "σίσυφος", "Ωmega",
    "e\xcc\x81.txt", "über", "UBER", "back\\slash", "C:", "2024-05-03.log", "-dash", "end.", "aa", "AA", "aA"};

const std::vector<std::string> kUnits = {"a", "b", "A", "B", "é", "É", "ß", "ẞ", "日", "😀", "-", "_", " ",
                                         ".", "x", "Y", "0", "9", "\\", "ı", "İ", "ǅ", "ǆ"};

// Lists read leniently (the EFU reader) may hold NUL units where bytes were
// not UTF-8; such names end the displayed path early.
std::string randomName(Random& random, PathFlavor flavor, bool nulUnits) {
  for (;;) {
    std::string name;
    if (random.chance(0.7)) {
      name = random.pick(kNames);
    } else if (random.chance(0.03)) {
      // Long names, around the lengths that fast paths treat differently.
      const auto length = random.between(240, 300);
      for (std::int64_t i = 0; i < length; ++i) name += random.chance(0.9) ? "a" : random.pick(kUnits);
    } else {
      const auto length = random.between(1, 6);
      for (std::int64_t i = 0; i < length; ++i) name += random.pick(kUnits);
    }
    if (flavor == PathFlavor::windows && name.find('\\') != std::string::npos) continue;
    if (nulUnits && random.chance(0.1)) name.insert(random.below(name.size() + 1), 1, '\0');
    return name;
  }
}

std::uint64_t randomSize(Random& random) {
  static const std::vector<std::uint64_t> edges = {0,    1,    1023, 1024, 1025,     2048,    9216,
                                                   9217, 10240, 10241, 1048576, 1047553, 10485760, 5000};
  switch (random.below(4)) {
    case 0: return kUnknown64;
    case 1: return random.pick(edges);
    case 2: return static_cast<std::uint64_t>(random.between(0, 4096));
    default: return static_cast<std::uint64_t>(random.between(0, std::int64_t(1) << 40));
  }
}

std::uint64_t randomTime(Random& random) {
  if (random.chance(0.15)) return kUnknown64;
  // From about 1900 to 2060; times before 1970 included on purpose.
  const std::int64_t seconds = random.between(-2208988800, 2840140800);
  const std::int64_t fraction = random.chance(0.5) ? 0 : random.between(0, 9999999);
  return static_cast<std::uint64_t>(static_cast<std::int64_t>(kUnixEpochTicks) + seconds * 10000000 + fraction);
}

struct World {
  std::vector<JoinedSearch::Source> sources;
  std::vector<SearchIndexPtr> indexes;
  std::vector<std::int64_t> starts;
  // Material for queries.
  std::vector<std::string> names;
  std::vector<std::string> paths;
  std::vector<std::string> parents;
  std::vector<std::string> labels;
  std::string description;
};

const std::vector<std::string> kLabels = {"Disk A", "disk a", "Ünïcode", "Backup", "BACKUP", "Ωmega"};

CatalogPtr randomCatalog(Random& random, const std::string& id, World& world, std::ostringstream& description) {
  const PathFlavor flavor = random.chance(0.5) ? PathFlavor::windows : PathFlavor::posix;
  // Windows catalogs come either from a list with inferred ancestors (no
  // kinds) or from native records; posix ones from native records.
  const bool inferred = flavor == PathFlavor::windows && random.chance(0.5);
  const bool directorySizes = !inferred && random.chance(0.3);
  const bool hasCreated = random.chance(0.5);
  const bool hasAllocated = random.chance(0.5);
  const bool hasDevices = random.chance(0.6);
  const std::vector<std::uint64_t> devices = {7, 8, 9, 42};

  const std::vector<std::string> posixRoots = {"/", "/data", "/Volumes/Disk", "/home/u"};
  const std::vector<std::string> windowsRoots = {"C:", "C:\\Users", "D:\\Data", "\\\\server\\share", "c:\\users"};
  const std::string root = random.pick(flavor == PathFlavor::posix ? posixRoots : windowsRoots);

  CatalogBuilder listBuilder(id, flavor, /*inferAncestors=*/true, /*directorySizes=*/false);
  NativeCatalogBuilder nativeBuilder(id, flavor, directorySizes);

  std::vector<std::string> folders = {root};
  auto join = [&](const std::string& parent, const std::string& name) {
    const bool endsWithSeparator = !parent.empty() && (parent.back() == '/' || parent.back() == '\\');
    if (endsWithSeparator) return parent + name;
    const char separator = flavor == PathFlavor::posix ? '/' : random.chance(0.85) ? '\\' : '/';
    return parent + separator + name;
  };
  auto add = [&](const std::string& path, bool folder) {
    const Text units = utf16(path);
    const std::uint64_t size = randomSize(random);
    const std::uint64_t modified = randomTime(random);
    const std::uint64_t created = hasCreated ? randomTime(random) : kUnknown64;
    const std::uint64_t allocated = hasAllocated ? randomSize(random) : kUnknown64;
    std::optional<std::uint64_t> device;
    if (hasDevices && random.chance(0.8)) device = random.pick(devices);
    if (inferred) {
      if (!listBuilder.add(units, folder, size, modified, created, std::nullopt, folder ? 1 : 0, allocated, device))
        return false;
    } else {
      if (nativeBuilder.contains(units)) return false;
      const std::uint8_t kind = folder ? 1 : random.chance(0.85) ? 0 : static_cast<std::uint8_t>(random.between(2, 6));
      nativeBuilder.add(units, kind, size, modified, created, allocated, device);
    }
    world.paths.push_back(path);
    return true;
  };

  const bool empty = random.chance(0.04);
  if (!empty) {
    if (random.chance(0.5)) add(root, /*folder=*/true);
    const auto folderCount = random.between(0, 30);
    for (std::int64_t i = 0; i < folderCount; ++i) {
      const std::string path = join(random.pick(folders), randomName(random, flavor, inferred));
      if (add(path, /*folder=*/true)) folders.push_back(path);
    }
    const auto fileCount = random.between(1, 160);
    for (std::int64_t i = 0; i < fileCount; ++i) {
      const std::string name = randomName(random, flavor, inferred);
      if (add(join(random.pick(folders), name), /*folder=*/false)) world.names.push_back(name);
    }
  }
  auto catalog = std::make_shared<Catalog>(inferred ? listBuilder.finish() : nativeBuilder.finish());

  std::map<std::string, std::string> labels;
  for (const std::uint64_t device : devices)
    if (random.chance(0.6)) labels[std::to_string(device)] = random.pick(kLabels);
  catalog->applyDeviceLabels(labels);
  for (const auto& [device, label] : labels) world.labels.push_back(label);
  for (std::int32_t p = 0; p < catalog->parentCount(); ++p)
    world.parents.push_back(utf8(catalog->parentUnits(static_cast<std::uint32_t>(p))));
  for (std::int32_t r = 0; r < catalog->count(); ++r) world.names.push_back(catalog->name(r));

  description << " [" << id << (flavor == PathFlavor::posix ? " posix" : " windows") << (inferred ? " inferred" : "")
              << (directorySizes ? " dirsizes" : "") << (hasCreated ? " created" : "")
              << (hasAllocated ? " allocated" : "") << (hasDevices ? " devices" : "") << " rows=" << catalog->count()
              << "]";
  return catalog;
}

World randomWorld(Random& random) {
  World world;
  std::ostringstream description;
  const auto count = random.between(1, 4);
  world.starts.push_back(0);
  for (std::int64_t s = 0; s < count; ++s) {
    const std::string id = "s" + std::to_string(s);
    CatalogPtr catalog = randomCatalog(random, id, world, description);
    world.indexes.push_back(std::make_shared<const SearchIndex>(catalog, testing::shippedTable()));
    world.sources.push_back({id, "Source " + id, catalog});
    world.starts.push_back(world.starts.back() + catalog->count());
  }
  world.description = description.str();
  if (world.names.empty()) world.names.push_back("x");
  if (world.paths.empty()) world.paths.push_back("/x");
  if (world.parents.empty()) world.parents.push_back("/");
  if (world.labels.empty()) world.labels.push_back("none");
  return world;
}

// ---------------------------------------------------------------------------
// Random queries over the whole grammar.

class QueryMaker {
 public:
  QueryMaker(Random& random, const World& world) : random_(random), world_(world) {}

  std::string query() {
    if (random_.chance(0.05)) return "";
    if (random_.chance(0.05)) return malformed();
    return expression(0);
  }

 private:
  std::string expression(int depth) {
    std::string out = orTerm(depth);
    const auto more = random_.chance(0.6) ? 0 : random_.between(1, 2);
    for (std::int64_t i = 0; i < more; ++i) out += std::string(random_.chance(0.8) ? " " : "  ") + orTerm(depth);
    return out;
  }

  std::string orTerm(int depth) {
    std::string out = unary(depth);
    if (random_.chance(0.25)) {
      const auto more = random_.between(1, 2);
      for (std::int64_t i = 0; i < more; ++i) out += (random_.chance(0.8) ? "|" : " | ") + unary(depth);
    }
    return out;
  }

  std::string unary(int depth) {
    if (random_.chance(0.12)) return (random_.chance(0.8) ? "!" : "! ") + unary(depth);
    if (depth < 3 && random_.chance(0.12)) return "<" + expression(depth + 1) + (random_.chance(0.9) ? ">" : "");
    return term(depth);
  }

  std::string modifiers() {
    static const std::vector<std::string> names = {"case:", "nocase:", "path:", "nopath:", "wfn:", "wholefilename:",
                                                   "CASE:", "NoPath:"};
    std::string out;
    const auto count = random_.chance(0.7) ? 0 : random_.between(1, 2);
    for (std::int64_t i = 0; i < count; ++i) out += random_.pick(names);
    return out;
  }

  static std::string flipCase(std::string text) {
    for (char& c : text) {
      if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 32);
      else if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
    }
    return text;
  }

  std::string substring(const std::string& text) {
    const Text units = utf16(text);
    if (units.empty()) return text;
    const auto start = random_.below(units.size());
    const auto length = random_.between(1, static_cast<std::int64_t>(units.size() - start));
    return utf8(TextView(units).substr(start, static_cast<std::size_t>(length)));
  }

  std::string withWildcards(std::string text) {
    const auto count = random_.between(1, 2);
    for (std::int64_t i = 0; i < count; ++i) {
      const auto at = random_.below(text.size() + 1);
      // Only between UTF-8 sequences.
      if (at < text.size() && (static_cast<unsigned char>(text[at]) & 0xC0) == 0x80) continue;
      text.insert(at, random_.chance(0.6) ? "*" : "?");
    }
    return text;
  }

  std::string quoted(const std::string& text) {
    const bool needs = text.find_first_of(" |<>!\"") != std::string::npos;
    if (needs ? random_.chance(0.8) : random_.chance(0.1)) {
      std::string out = "\"";
      for (char c : text)
        if (c != '"') out += c;
      return out + "\"";
    }
    return text;
  }

  std::string word() {
    std::string text;
    switch (random_.below(9)) {
      case 0: text = random_.pick(world_.names); break;
      case 1: text = substring(random_.pick(world_.names)); break;
      case 2: text = flipCase(substring(random_.pick(world_.names))); break;
      case 3: text = random_.pick(std::vector<std::string>{"re", "ME", "a", "txt", ".", "é", "É", "ss", "ß", "日本", "😀", "x"}); break;
      case 4: text = substring(random_.pick(world_.paths)); break;
      case 5: text = withWildcards(substring(random_.pick(world_.names))); break;
      case 6:
      case 7: {
        // One unit: letters and digits in either case, punctuation, and
        // units that fold to letters or to nothing common.
        static const std::string kAscii = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_ +~@=!";
        text = random_.chance(0.5) ? std::string(1, kAscii[static_cast<std::size_t>(random_.below(kAscii.size()))])
                                   : random_.pick(kUnits);
        break;
      }
      default: text = withWildcards(random_.pick(world_.names)); break;
    }
    return quoted(text);
  }

  std::string sizeValue() {
    static const std::vector<std::string> values = {
        "unknown", "", "0", "1", "1kb", "1.5kb", "0.5kb", "10kb", "0kb", ">1mb", "<4kb", "<=1024", ">=9217",
        "1..5000", "1kb..1mb", "1kb-5kb", "-5", "abc", "1e3", "<0", ">0", "5000", "1024", ">1gb", "2KB", "UNKNOWN"};
    if (random_.chance(0.2)) return std::to_string(random_.between(0, 20000));
    return random_.pick(values);
  }

  std::string dateValue() {
    static const std::vector<std::string> values = {
        "2020", "2020-05", "2020-05-03", "2020-05-03T10", "2020-05-03t10:30", ">2000", "<1970", "<=1969-12-31",
        "1990..2010", "today", "Yesterday", "unknown", "2026-13", "1600", "2026-10x", "1969", "1601",
        "2099-12-31T23:59:59", ">=1950-01", "1980-02-29", "1981-02-29", ""};
    if (random_.chance(0.2)) return std::to_string(random_.between(1890, 2070));
    return random_.pick(values);
  }

  std::string term(int depth) {
    switch (random_.below(20)) {
      case 0: {
        static const std::vector<std::string> extensions = {"pdf", "txt", "TXT", "jpg", "gz", "", "md", "doc", "mkv", "c"};
        std::string list;
        const auto count = random_.between(0, 3);
        for (std::int64_t i = 0; i < count; ++i) list += (i > 0 ? ";" : "") + random_.pick(extensions);
        if (random_.chance(0.2)) list += ";";
        return modifiers() + "ext:" + list;
      }
      case 1:
        return modifiers() + random_.pick(std::vector<std::string>{"audio:", "video:", "image:", "pic:", "doc:", "exe:",
                                                                   "zip:", "audio:x", "Doc:", "zip:data"});
      case 2: {
        const std::string function = random_.pick(std::vector<std::string>{"file:", "folder:", "File:"});
        switch (random_.below(3)) {
          case 0: return function;
          case 1: return function + word();
          default: return function + "<" + word() + "|" + word() + (random_.chance(0.9) ? ">" : "");
        }
      }
      case 3:
        return random_.pick(std::vector<std::string>{"size:", "size-on-disk:", "Size:"}) + sizeValue();
      case 4:
        return random_.pick(std::vector<std::string>{"dm:", "dc:", "datemodified:", "date-created:", "DM:",
                                                     "date-modified:", "datecreated:"}) +
               dateValue();
      case 5: {
        std::string parent = random_.chance(0.1) ? "" : random_.pick(world_.parents);
        if (random_.chance(0.3) && !parent.empty() && (parent.back() == '/' || parent.back() == '\\'))
          parent.pop_back();
        if (random_.chance(0.3)) parent = flipCase(parent);
        return modifiers() + "parent:" + quoted(parent);
      }
      case 6: {
        std::string label = random_.chance(0.1) ? "nothing" : random_.pick(world_.labels);
        if (random_.chance(0.3)) label = flipCase(label);
        return modifiers() + "volume-label:" + quoted(label);
      }
      case 7: return malformed();
      case 8:
        if (depth < 3) return modifiers() + "<" + expression(depth + 1) + ">";
        return word();
      default: return modifiers() + word();
    }
  }

  std::string malformed() {
    static const std::vector<std::string> values = {
        "<", ">", "\"", "foo:bar", "|", "!", "!!x", "<<a", "a>", "\"\"", "unknownfn:x", "case:", "case: readme",
        "wfn:!tmp", "case:!<A|b>", "a > b", "\"unbalanced", "ext:;;", "||", "<|>", "nocase:<README|Notes>",
        "size:>", "dm:<", "parent:", "volume-label:", "path:\\", "path:/", "C:", "*", "?", "**", "*.*", "!*"};
    return random_.pick(values);
  }

  Random& random_;
  const World& world_;
};

// ---------------------------------------------------------------------------
// The plain evaluation and the plain cross-source order.

struct PlainRow {
  const Catalog* catalog;
  std::size_t source;
  std::int32_t row;
  std::int32_t id;
};

bool isSurrogate(Unit u) { return u >= 0xD800 && u <= 0xDFFF; }

std::uint32_t weightAt(const Compatibility& table, Unit u, int level) {
  if (level == 1) return isSurrogate(u) ? std::uint32_t(u) + 65536 : table.order(u);
  if (level == 2) return table.letterCase(u);
  return u;
}

// One level of the name collation: position by position, an ended name
// reading as unit 0; at a NUL (or an end) with equal weights the raw units
// decide and nothing after counts.
int compareNamesPlainly(const Compatibility& table, TextView a, TextView b, int level) {
  for (std::size_t i = 0; i < std::max(a.size(), b.size()); ++i) {
    const Unit ua = i < a.size() ? a[i] : 0;
    const Unit ub = i < b.size() ? b[i] : 0;
    if (ua == ub) {
      if (ua == 0) return 0;
      continue;
    }
    const std::uint32_t wa = weightAt(table, ua, level), wb = weightAt(table, ub, level);
    if (wa != wb) return wa < wb ? -1 : 1;
    if (ua == 0 || ub == 0) return ua < ub ? -1 : 1;
  }
  return 0;
}

// Parent texts: one trailing separator dropped per flavor; the separators of
// each text's own flavor weigh 1 and every other unit its weight + 2; a NUL
// ends the comparison as in names; a shorter text first; then raw units.
int comparePathLevel(const Compatibility& table, PathFlavor fa, TextView a, PathFlavor fb, TextView b, int level) {
  auto trim = [](PathFlavor flavor, TextView text) {
    if (flavor == PathFlavor::windows && !text.empty() && text.back() == u'\\') text.remove_suffix(1);
    if (flavor == PathFlavor::posix && text.size() >= 2 && text.back() == u'/') text.remove_suffix(1);
    return text;
  };
  a = trim(fa, a);
  b = trim(fb, b);
  for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i) {
    const bool sa = a[i] == u'/' || (fa == PathFlavor::windows && a[i] == u'\\');
    const bool sb = b[i] == u'/' || (fb == PathFlavor::windows && b[i] == u'\\');
    if (a[i] == b[i] && sa == sb) {
      if (a[i] == 0) return 0;
      continue;
    }
    const std::uint32_t wa = sa ? 1 : weightAt(table, a[i], level) + 2;
    const std::uint32_t wb = sb ? 1 : weightAt(table, b[i], level) + 2;
    if (wa != wb) return wa < wb ? -1 : 1;
    if (sa || sb) continue;
    if (a[i] == 0 || b[i] == 0) return a[i] < b[i] ? -1 : 1;
  }
  return a.size() == b.size() ? 0 : a.size() < b.size() ? -1 : 1;
}

int comparePathsPlainly(const Compatibility& table, const PlainRow& a, const PlainRow& b) {
  const TextView pa = a.catalog->parentUnits(a.catalog->parentIndex(a.row));
  const TextView pb = b.catalog->parentUnits(b.catalog->parentIndex(b.row));
  for (int level = 1; level <= 3; ++level)
    if (int r = comparePathLevel(table, a.catalog->pathFlavor(), pa, b.catalog->pathFlavor(), pb, level)) return r;
  return pa < pb ? -1 : pb < pa ? 1 : 0;
}

std::uint64_t plainValue(const PlainRow& r, SortKey key) {
  const auto& parts = r.catalog->parts();
  const auto row = static_cast<std::size_t>(r.row);
  switch (key) {
    case SortKey::size: return parts.sizes[row];
    case SortKey::modified: return parts.modifiedTimes[row];
    case SortKey::created: return parts.createdTimes ? (*parts.createdTimes)[row] : kUnknown64;
    case SortKey::allocated: return parts.allocations ? (*parts.allocations)[row] : kUnknown64;
    default: return 0;
  }
}

const Text* plainLabel(const PlainRow& r) {
  const auto& parts = r.catalog->parts();
  if (!parts.deviceIds) return nullptr;
  const std::uint16_t device = (*parts.deviceIds)[static_cast<std::size_t>(r.row)];
  if (device == 65535 || device >= parts.deviceLabels.size() || !parts.deviceLabels[device]) return nullptr;
  return &*parts.deviceLabels[device];
}

int comparePlainly(const Compatibility& table, const PlainRow& a, const PlainRow& b, SortKey key) {
  const bool fa = a.catalog->isDirectory(a.row);
  const bool fb = b.catalog->isDirectory(b.row);
  if (fa != fb) return fa ? -1 : 1;
  if (key == SortKey::path) {
    if (int r = comparePathsPlainly(table, a, b)) return r;
  } else if (key == SortKey::size || key == SortKey::modified || key == SortKey::created ||
             key == SortKey::allocated) {
    const std::uint64_t va = plainValue(a, key);
    const std::uint64_t vb = plainValue(b, key);
    if (va != vb) {
      if (va == kUnknown64) return -1;
      if (vb == kUnknown64) return 1;
      return va < vb ? -1 : 1;
    }
  } else if (key == SortKey::device) {
    const Text* la = plainLabel(a);
    const Text* lb = plainLabel(b);
    if (la == nullptr || lb == nullptr) {
      if (la != lb) return la == nullptr ? -1 : 1;
    } else {
      for (int level = 1; level <= 3; ++level)
        if (int r = compareNamesPlainly(table, *la, *lb, level)) return r;
    }
  }
  const TextView na = a.catalog->nameUnits(a.row);
  const TextView nb = b.catalog->nameUnits(b.row);
  if (int r = compareNamesPlainly(table, na, nb, 1)) return r;
  if (int r = comparePathsPlainly(table, a, b)) return r;
  if (int r = compareNamesPlainly(table, na, nb, 2)) return r;
  if (int r = compareNamesPlainly(table, na, nb, 3)) return r;
  if (a.source != b.source) return a.source < b.source ? -1 : 1;
  return a.row < b.row ? -1 : a.row > b.row ? 1 : 0;
}

std::vector<PlainRow> plainMatches(const World& world, const std::string& query) {
  const Compatibility& table = *testing::shippedTable();
  std::vector<PlainRow> rows;
  for (std::size_t s = 0; s < world.sources.size(); ++s) {
    const Catalog& catalog = *world.sources[s].catalog;
    Query::TermPtr root = Query::parse(utf16(query), table, catalog.pathFlavor());
    Query::markSizeSemantics(*root, catalog.directorySizes());
    for (std::int32_t r = 0; r < catalog.count(); ++r)
      if (Query::matches(*root, catalog, r, table))
        rows.push_back({&catalog, s, r, static_cast<std::int32_t>(world.starts[s] + r)});
  }
  return rows;
}

std::string printable(const std::string& text) {
  std::string out;
  for (const char c : text) {
    if (c == '\\') out += "\\\\";
    else if (c == '"') out += "\\\"";
    else out += c;
  }
  return out;
}

JoinedSearch::Tuning randomTuning(Random& random) {
  JoinedSearch::Tuning tuning;
  switch (random.below(3)) {
    case 0: break;  // as shipped
    case 1:         // never sort: always read the global order
      tuning.sortAtMost = 0;
      tuning.sortRatio = std::int64_t(1) << 40;
      break;
    default: tuning.sortAtMost = std::int64_t(1) << 40; break;  // always sort
  }
  tuning.scanMinimum = random.pick(std::vector<std::int64_t>{1, 64, 100, 8192});
  tuning.walkMinimum = random.pick(std::vector<std::int64_t>{1, 7, 64, 65536});
  return tuning;
}

TEST(Differential, EngineEqualsPlainEvaluationForEverySort) {
  const std::uint64_t seed = environmentNumber("TARV_DIFF_SEED", 20260315);
  const std::uint64_t cases = environmentNumber("TARV_DIFF_CASES", 2500);
  constexpr std::uint64_t kQueriesPerWorld = 25;
  Random random(seed);
  const Compatibility& table = *testing::shippedTable();

  std::uint64_t done = 0, nonEmpty = 0, failures = 0;
  while (done < cases && failures < 5) {
    World world = randomWorld(random);
    const JoinedSearch::Tuning tuning = randomTuning(random);
    const JoinedSearch search(world.sources, world.indexes, std::vector<std::string>(world.sources.size()),
                              testing::shippedTable(), tuning);
    QueryMaker maker(random, world);
    for (std::uint64_t q = 0; q < kQueriesPerWorld && done < cases && failures < 5; ++q, ++done) {
      const std::string query = maker.query();
      const std::vector<PlainRow> matches = plainMatches(world, query);
      if (!matches.empty()) ++nonEmpty;
      for (const std::string_view sortName : kSortNames) {
        const SortSpec spec = SortSpec::parse(sortName);
        std::vector<PlainRow> expected = matches;
        std::sort(expected.begin(), expected.end(), [&](const PlainRow& a, const PlainRow& b) {
          const int r = comparePlainly(table, a, b, spec.key);
          return spec.descending ? r > 0 : r < 0;
        });
        const JoinedSearch::Result result = search.search(query, sortName);
        std::vector<std::int32_t> got(result.ids.begin(), result.ids.end());
        std::vector<std::int32_t> want;
        for (const PlainRow& row : expected) want.push_back(row.id);
        if (got != want || result.total != static_cast<std::int64_t>(want.size())) {
          ++failures;
          std::size_t at = 0;
          while (at < got.size() && at < want.size() && got[at] == want[at]) ++at;
          ADD_FAILURE() << "seed " << seed << " case " << done << " query \"" << printable(query) << "\" sort "
                        << sortName << ": engine " << got.size() << " ids, plain " << want.size()
                        << ", first difference at " << at << "; sources" << world.description;
          break;
        }
      }
    }
  }
  RecordProperty("cases", static_cast<int>(done));
  std::printf("differential: seed %llu, %llu queries x %zu sorts, %llu with matches\n",
              static_cast<unsigned long long>(seed), static_cast<unsigned long long>(done), kSortNames.size(),
              static_cast<unsigned long long>(nonEmpty));
  // A generator that rarely hits anything would prove little.
  EXPECT_GT(nonEmpty * 2, done);
}

}  // namespace
}  // namespace tarv
