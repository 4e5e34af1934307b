#pragma once
// Small catalogs and comparison tables made directly from records, for tests
// of the sort orders, the search index and index files. Records give their
// parent text and name separately, so tests can also make names that no
// reader would produce (a NUL or a separator inside a name).

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "kernel/catalog/catalog.h"
#include "kernel/catalog/compatibility.h"

namespace tarv::testing {

struct SyntheticRecord {
  Text parent;
  Text name;
  bool folder = false;
  std::uint64_t size = kUnknown64;
  std::uint64_t modified = kUnknown64;
  std::uint64_t created = kUnknown64;
  std::uint64_t allocated = kUnknown64;
  std::optional<std::uint64_t> device;
  std::optional<Text> irregularExtension;
  std::uint8_t kind = 0;
};

struct SyntheticOptions {
  PathFlavor flavor = PathFlavor::posix;
  bool createdColumn = false;    // make the column even when every value is unknown
  bool allocationColumn = false;
  bool kinds = true;
  std::map<std::uint64_t, Text> labels;  // device number to label
};

inline std::shared_ptr<const Catalog> makeCatalog(const std::vector<SyntheticRecord>& records,
                                                  const SyntheticOptions& options = {}) {
  Catalog::Parts p;
  p.count = static_cast<std::int32_t>(records.size());
  p.pathFlavor = options.flavor;
  p.sourceId = "test";
  std::vector<char16_t> names, parentChars;
  std::vector<std::int32_t> nameStarts, parentStarts;
  std::vector<std::uint32_t> tags;
  std::vector<std::uint64_t> sizes, modified, created, allocated;
  std::vector<std::uint16_t> deviceIds;
  std::vector<std::uint8_t> kinds;
  std::map<Text, std::uint32_t> parents;
  std::map<std::uint64_t, std::uint16_t> devices;
  bool anyCreated = options.createdColumn, anyAllocated = options.allocationColumn, anyDevice = false;
  for (std::size_t row = 0; row < records.size(); ++row) {
    const auto& r = records[row];
    auto [it, added] = parents.try_emplace(r.parent, static_cast<std::uint32_t>(parentStarts.size()));
    if (added) {
      parentStarts.push_back(static_cast<std::int32_t>(parentChars.size()));
      parentChars.insert(parentChars.end(), r.parent.begin(), r.parent.end());
      parentChars.push_back(0);
    }
    tags.push_back(it->second | (r.folder ? kFolderBit : 0));
    nameStarts.push_back(static_cast<std::int32_t>(names.size()));
    names.insert(names.end(), r.name.begin(), r.name.end());
    names.push_back(0);
    sizes.push_back(r.size);
    modified.push_back(r.modified);
    created.push_back(r.created);
    allocated.push_back(r.allocated);
    anyCreated |= r.created != kUnknown64;
    anyAllocated |= r.allocated != kUnknown64;
    kinds.push_back(r.kind);
    std::uint16_t id = kNoDevice;
    if (r.device) {
      anyDevice = true;
      auto [d, fresh] = devices.try_emplace(*r.device, static_cast<std::uint16_t>(p.devices.size()));
      if (fresh) p.devices.push_back(*r.device);
      id = d->second;
    }
    deviceIds.push_back(id);
    if (r.irregularExtension) p.irregularExtensions[static_cast<std::int32_t>(row)] = *r.irregularExtension;
    p.folderCount += r.folder ? 1 : 0;
  }
  if (parentStarts.empty()) {  // an empty catalog still has the empty parent text
    parentStarts.push_back(0);
    parentChars.push_back(0);
  }
  nameStarts.push_back(static_cast<std::int32_t>(names.size()));
  parentStarts.push_back(static_cast<std::int32_t>(parentChars.size()));
  p.names = Column<char16_t>::owned(std::move(names));
  p.nameStarts = Column<std::int32_t>::owned(std::move(nameStarts));
  p.parentTags = Column<std::uint32_t>::owned(std::move(tags));
  p.sizes = Column<std::uint64_t>::owned(std::move(sizes));
  p.modifiedTimes = Column<std::uint64_t>::owned(std::move(modified));
  if (anyCreated) p.createdTimes = Column<std::uint64_t>::owned(std::move(created));
  if (anyAllocated) p.allocations = Column<std::uint64_t>::owned(std::move(allocated));
  if (anyDevice) p.deviceIds = Column<std::uint16_t>::owned(std::move(deviceIds));
  if (options.kinds) p.kinds = Column<std::uint8_t>::owned(std::move(kinds));
  p.deviceLabels.resize(p.devices.size());
  for (std::size_t d = 0; d < p.devices.size(); ++d) {
    auto label = options.labels.find(p.devices[d]);
    if (label != options.labels.end()) p.deviceLabels[d] = label->second;
  }
  p.parentChars = Column<char16_t>::owned(std::move(parentChars));
  p.parentStarts = Column<std::int32_t>::owned(std::move(parentStarts));
  return std::make_shared<const Catalog>(std::move(p));
}

// search folds A..Z to a..z and "é" to "e"; order equals search (so "É",
// "é", "E" and "e" share a weight); letterCase is the identity.
inline std::shared_ptr<const Compatibility> syntheticTable() {
  static const std::shared_ptr<const Compatibility> table = [] {
    auto search = std::make_unique<Compatibility::Table>();
    auto letterCase = std::make_unique<Compatibility::Table>();
    for (std::uint32_t u = 0; u < 65536; ++u) {
      (*search)[u] = static_cast<std::uint16_t>(u >= 'A' && u <= 'Z' ? u + 32 : u);
      (*letterCase)[u] = static_cast<std::uint16_t>(u);
    }
    (*search)[0xE9] = 'e';
    (*search)[0xC9] = 'e';
    return Compatibility::fromTables(*search, *search, *letterCase);
  }();
  return table;
}

// A random catalog over a small alphabet that exercises every collation rule:
// letter case, equal weights, surrogates, dots, NULs in names, shared names
// in different folders, unknown values, devices with and without labels.
inline std::shared_ptr<const Catalog> randomCatalog(std::uint32_t seed, PathFlavor flavor, int rows,
                                                    bool created = true, bool allocated = true, bool devices = true) {
  std::mt19937 random(seed);
  auto pick = [&](int n) { return static_cast<int>(random() % static_cast<unsigned>(n)); };
  const std::vector<Unit> alphabet = {u'a', u'b', u'A', u'B', u'e', u'E', 0xE9, 0xC9, u'.', u'.', u'1',
                                      u' ', u'-', 0xD83D, 0xDE00, 0xD800, u'z', 0x4E2D};
  auto word = [&](int maxLength) {
    Text t;
    const int length = pick(maxLength + 1);
    for (int i = 0; i < length; ++i) t.push_back(alphabet[static_cast<std::size_t>(pick(static_cast<int>(alphabet.size())))]);
    return t;
  };
  const Unit sep = flavor == PathFlavor::windows ? u'\\' : u'/';
  std::vector<Text> parents = {Text()};
  if (flavor == PathFlavor::windows) {
    parents.push_back(u"C:\\");
    parents.push_back(u"c:\\");
    parents.push_back(u"\\");
    parents.push_back(u"C:/");
  } else {
    parents.push_back(u"/");
  }
  for (int i = 0; i < 12; ++i) {
    Text base = parents[static_cast<std::size_t>(pick(static_cast<int>(parents.size())))];
    Text part = word(3);
    if (part.empty()) part = u"d";
    parents.push_back(base + part + sep);
  }
  std::sort(parents.begin(), parents.end());
  parents.erase(std::unique(parents.begin(), parents.end()), parents.end());
  std::vector<SyntheticRecord> records;
  std::map<std::pair<Text, Text>, bool> seen;
  const std::uint64_t sizes[] = {0, 1, 2, 1000, 1u << 20, kUnknown64, 5};
  while (static_cast<int>(records.size()) < rows) {
    SyntheticRecord r;
    r.parent = parents[static_cast<std::size_t>(pick(static_cast<int>(parents.size())))];
    r.name = word(6);
    if (pick(40) == 0) r.name += Unit(0);
    if (pick(50) == 0) r.name = u"C:";
    if (!seen.try_emplace({r.parent, r.name}, true).second) continue;
    r.folder = pick(4) == 0;
    r.size = sizes[pick(7)];
    r.modified = pick(6) == 0 ? kUnknown64 : 130000000000000000ull + static_cast<std::uint64_t>(pick(1000)) * 10000000ull;
    if (created) r.created = pick(3) == 0 ? kUnknown64 : static_cast<std::uint64_t>(pick(50));
    if (allocated && !r.folder) r.allocated = pick(3) == 0 ? kUnknown64 : static_cast<std::uint64_t>(pick(5)) * 4096;
    if (devices && pick(5) != 0) r.device = static_cast<std::uint64_t>(pick(4)) + 100;
    if (pick(30) == 0) r.irregularExtension = word(2);
    r.kind = r.folder ? 1 : static_cast<std::uint8_t>(pick(2) * 2);
    records.push_back(std::move(r));
  }
  SyntheticOptions options;
  options.flavor = flavor;
  options.labels = {{100, u"Disk"}, {101, u"disk"}, {102, u"Alpha"}};  // 103 stays unlabelled
  return makeCatalog(records, options);
}

}  // namespace tarv::testing
