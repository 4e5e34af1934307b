#include "kernel/catalog/catalog_file.h"

#include <algorithm>
#include <limits>
#include <vector>

namespace tarv {
namespace {

std::string key(std::string_view prefix, std::string_view name) {
  std::string out(prefix);
  out += name;
  return out;
}

[[noreturn]] void invalid(const std::string& what) { throw KernelError::io("Invalid catalog in index file: " + what); }

// Offsets of `entries` texts into a text column: entries + 1 values, the
// first 0 and the last the text length. Only the ends are checked (constant
// time); the catalog's accessors read every (start, end) pair defensively.
void checkOffsetEnds(const Column<std::int32_t>& offsets, std::size_t entries, std::size_t textLength,
                     const std::string& name) {
  if (offsets.size() != entries + 1) invalid(name + " has " + std::to_string(offsets.size()) + " entries");
  if (offsets[0] != 0 || offsets[entries] < 0 || static_cast<std::size_t>(offsets[entries]) != textLength)
    invalid(name + " does not span its text");
}

template <class T>
void checkLength(const Column<T>& column, std::size_t expected, const std::string& name) {
  if (column.size() != expected) invalid(name + " has " + std::to_string(column.size()) + " entries");
}

// Texts stored as one unit column with offsets; returns them as owned texts.
// Used for the small per-device and per-irregular-row tables only, so every
// offset pair is checked as it is copied.
std::vector<Text> readTexts(const IndexFile::Reader& reader, std::string_view prefix, std::string_view starts,
                            std::string_view chars, std::size_t entries) {
  const auto offsets = reader.column<std::int32_t>(key(prefix, starts));
  const auto units = reader.column<char16_t>(key(prefix, chars));
  checkOffsetEnds(offsets, entries, units.size(), key(prefix, starts));
  std::vector<Text> texts;
  texts.reserve(entries);
  for (std::size_t i = 0; i < entries; ++i) {
    if (offsets[i] < 0 || offsets[i] > offsets[i + 1] || static_cast<std::size_t>(offsets[i + 1]) > units.size())
      invalid(key(prefix, starts) + " is not increasing");
    texts.emplace_back(units.data() + offsets[i], units.data() + offsets[i + 1]);
  }
  return texts;
}

void writeTexts(IndexFile::Writer& writer, std::string_view prefix, std::string_view starts, std::string_view chars,
                const std::vector<const Text*>& texts) {
  std::vector<std::int32_t> offsets{0};
  std::vector<char16_t> units;
  for (const Text* t : texts) {
    if (t) units.insert(units.end(), t->begin(), t->end());
    offsets.push_back(static_cast<std::int32_t>(units.size()));
  }
  writer.add(key(prefix, starts), offsets);
  writer.add(key(prefix, chars), units);
}

}  // namespace

void writeCatalog(IndexFile::Writer& writer, const Catalog& catalog, std::string_view prefix) {
  const Catalog::Parts& p = catalog.parts();
  writer.add(key(prefix, "names"), p.names);
  writer.add(key(prefix, "nameStarts"), p.nameStarts);
  writer.add(key(prefix, "parentTags"), p.parentTags);
  writer.add(key(prefix, "sizes"), p.sizes);
  writer.add(key(prefix, "modifiedTimes"), p.modifiedTimes);
  if (p.createdTimes) writer.add(key(prefix, "createdTimes"), *p.createdTimes);
  if (p.allocations) writer.add(key(prefix, "allocations"), *p.allocations);
  if (p.deviceIds) writer.add(key(prefix, "deviceIds"), *p.deviceIds);
  writer.add(key(prefix, "devices"), p.devices);
  if (p.kinds) writer.add(key(prefix, "kinds"), *p.kinds);
  writer.add(key(prefix, "parentChars"), p.parentChars);
  writer.add(key(prefix, "parentStarts"), p.parentStarts);

  // Irregular extensions in row order, so the file is the same for equal catalogs.
  std::vector<std::int32_t> rows;
  rows.reserve(p.irregularExtensions.size());
  for (const auto& entry : p.irregularExtensions) rows.push_back(entry.first);
  std::sort(rows.begin(), rows.end());
  std::vector<const Text*> extensions;
  for (auto row : rows) extensions.push_back(&p.irregularExtensions.at(row));
  writer.add(key(prefix, "irregularRows"), rows);
  writeTexts(writer, prefix, "irregularStarts", "irregularChars", extensions);

  std::vector<std::uint8_t> present;
  std::vector<const Text*> labels;
  for (const auto& label : p.deviceLabels) {
    present.push_back(label ? 1 : 0);
    labels.push_back(label ? &*label : nullptr);
  }
  writer.add(key(prefix, "deviceLabelPresent"), present);
  writeTexts(writer, prefix, "deviceLabelStarts", "deviceLabelChars", labels);

  writer.meta()[key(prefix, "count")] = p.count;
  writer.meta()[key(prefix, "folderCount")] = p.folderCount;
  writer.meta()[key(prefix, "pathFlavor")] = p.pathFlavor == PathFlavor::windows ? "windows" : "posix";
  writer.meta()[key(prefix, "directorySizes")] = p.directorySizes ? 1 : 0;
}

Catalog readCatalog(const IndexFile::Reader& reader, std::string_view prefix, std::string sourceId) {
  Catalog::Parts p;
  const std::int64_t count = reader.integer(key(prefix, "count"));
  const std::int64_t folders = reader.integer(key(prefix, "folderCount"));
  if (count < 0 || count >= std::numeric_limits<std::int32_t>::max()) invalid("record count " + std::to_string(count));
  if (folders < 0 || folders > count) invalid("folder count " + std::to_string(folders));
  p.count = static_cast<std::int32_t>(count);
  p.folderCount = static_cast<std::int32_t>(folders);
  const auto flavor = reader.meta().find(key(prefix, "pathFlavor"));
  if (flavor == reader.meta().end() || !flavor->is_string() || (*flavor != "windows" && *flavor != "posix"))
    invalid("path flavor");
  p.pathFlavor = *flavor == "windows" ? PathFlavor::windows : PathFlavor::posix;
  p.directorySizes = reader.integer(key(prefix, "directorySizes")) != 0;
  p.sourceId = std::move(sourceId);
  const auto rows = static_cast<std::size_t>(count);

  // Constant-time checks only: every column's length against the counts and
  // the last offset of each text column against its length. The values
  // inside (offsets, parent indexes, device ids, kinds) are read defensively
  // by the catalog's accessors, so the work here does not grow with the rows.
  p.names = reader.column<char16_t>(key(prefix, "names"));
  p.nameStarts = reader.column<std::int32_t>(key(prefix, "nameStarts"));
  checkOffsetEnds(p.nameStarts, rows, p.names.size(), key(prefix, "nameStarts"));

  p.parentChars = reader.column<char16_t>(key(prefix, "parentChars"));
  p.parentStarts = reader.column<std::int32_t>(key(prefix, "parentStarts"));
  if (p.parentStarts.empty()) invalid(key(prefix, "parentStarts") + " is empty");
  const std::size_t parents = p.parentStarts.size() - 1;
  if (parents > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max()))
    invalid(key(prefix, "parentStarts") + " has too many entries");
  checkOffsetEnds(p.parentStarts, parents, p.parentChars.size(), key(prefix, "parentStarts"));
  // Every row has a parent text (perhaps the empty one), so rows need at least one.
  if (rows > 0 && parents == 0) invalid(key(prefix, "parentStarts") + " names no parent");

  p.parentTags = reader.column<std::uint32_t>(key(prefix, "parentTags"));
  checkLength(p.parentTags, rows, key(prefix, "parentTags"));
  p.sizes = reader.column<std::uint64_t>(key(prefix, "sizes"));
  checkLength(p.sizes, rows, key(prefix, "sizes"));
  p.modifiedTimes = reader.column<std::uint64_t>(key(prefix, "modifiedTimes"));
  checkLength(p.modifiedTimes, rows, key(prefix, "modifiedTimes"));
  if (reader.has(key(prefix, "createdTimes"))) {
    p.createdTimes = reader.column<std::uint64_t>(key(prefix, "createdTimes"));
    checkLength(*p.createdTimes, rows, key(prefix, "createdTimes"));
  }
  if (reader.has(key(prefix, "allocations"))) {
    p.allocations = reader.column<std::uint64_t>(key(prefix, "allocations"));
    checkLength(*p.allocations, rows, key(prefix, "allocations"));
  }

  const auto devices = reader.column<std::uint64_t>(key(prefix, "devices"));
  if (devices.size() > kNoDevice) invalid(key(prefix, "devices") + " has too many entries");
  p.devices.assign(devices.begin(), devices.end());
  if (reader.has(key(prefix, "deviceIds"))) {
    // An id past the devices reads as "no label" (Catalog::deviceLabel).
    p.deviceIds = reader.column<std::uint16_t>(key(prefix, "deviceIds"));
    checkLength(*p.deviceIds, rows, key(prefix, "deviceIds"));
  }
  if (reader.has(key(prefix, "kinds"))) {
    p.kinds = reader.column<std::uint8_t>(key(prefix, "kinds"));
    checkLength(*p.kinds, rows, key(prefix, "kinds"));
  }

  const auto present = reader.column<std::uint8_t>(key(prefix, "deviceLabelPresent"));
  checkLength(present, p.devices.size(), key(prefix, "deviceLabelPresent"));
  auto labels = readTexts(reader, prefix, "deviceLabelStarts", "deviceLabelChars", p.devices.size());
  p.deviceLabels.resize(p.devices.size());
  for (std::size_t i = 0; i < labels.size(); ++i)
    if (present[i]) p.deviceLabels[i] = std::move(labels[i]);

  const auto irregularRows = reader.column<std::int32_t>(key(prefix, "irregularRows"));
  auto extensions = readTexts(reader, prefix, "irregularStarts", "irregularChars", irregularRows.size());
  for (std::size_t i = 0; i < irregularRows.size(); ++i) {
    if (irregularRows[i] < 0 || irregularRows[i] >= p.count) invalid(key(prefix, "irregularRows") + " names a missing row");
    p.irregularExtensions[irregularRows[i]] = std::move(extensions[i]);
  }
  return Catalog(std::move(p));
}

}  // namespace tarv
