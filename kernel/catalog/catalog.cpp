#include "kernel/catalog/catalog.h"

namespace tarv {
namespace {

// Milliseconds since 1970 of a FILETIME tick count. The ticks are unsigned, so
// the truncating division is a floor.
constexpr std::int64_t kUnixEpochMs = 11644473600000;

std::optional<std::int64_t> unixMs(std::uint64_t ticks) noexcept {
  if (ticks == kUnknown64) return std::nullopt;
  return static_cast<std::int64_t>(ticks / 10000) - kUnixEpochMs;
}

}  // namespace

std::uint8_t Catalog::recordKind(std::int32_t row) const noexcept {
  if (p_.kinds) {
    const std::uint8_t kind = (*p_.kinds)[row];
    return kind < 7 ? kind : 0;
  }
  return isDirectory(row) ? 1 : 0;
}

std::optional<std::uint64_t> Catalog::sizeBytes(std::int32_t row) const noexcept {
  std::uint64_t size = p_.sizes[row];
  if (size == kUnknown64) return std::nullopt;
  return size;
}

std::optional<std::int64_t> Catalog::modifiedUnixMs(std::int32_t row) const noexcept {
  return unixMs(p_.modifiedTimes[row]);
}

std::optional<std::int64_t> Catalog::createdUnixMs(std::int32_t row) const noexcept {
  if (!p_.createdTimes) return std::nullopt;
  return unixMs((*p_.createdTimes)[row]);
}

std::optional<std::uint64_t> Catalog::sizeOnDisk(std::int32_t row) const noexcept {
  if (!p_.allocations) return std::nullopt;
  std::uint64_t allocated = (*p_.allocations)[row];
  if (allocated == kUnknown64) return std::nullopt;
  return allocated;
}

const Text* Catalog::deviceLabel(std::int32_t row) const noexcept {
  if (!p_.deviceIds) return nullptr;
  std::uint16_t id = (*p_.deviceIds)[row];
  // A catalog rebuilt from an index file may carry fewer labels than devices
  // until applyDeviceLabels runs; a missing entry is an absent label.
  if (id == kNoDevice || id >= p_.deviceLabels.size()) return nullptr;
  const auto& label = p_.deviceLabels[id];
  return label ? &*label : nullptr;
}

std::optional<std::string> Catalog::deviceName(std::int32_t row) const {
  const Text* label = deviceLabel(row);
  if (!label) return std::nullopt;
  return utf8(*label);
}

TextView Catalog::extensionUnits(std::int32_t row) const noexcept {
  if (!p_.irregularExtensions.empty()) {
    auto found = p_.irregularExtensions.find(row);
    if (found != p_.irregularExtensions.end()) return found->second;
  }
  TextView name = nameUnits(row);
  auto dot = name.rfind(u'.');
  if (dot == TextView::npos) return {};
  return name.substr(dot + 1);
}

Text Catalog::pathUnits(std::int32_t row) const {
  TextView parent = parentUnits(parentIndex(row));
  // A NUL inside the parent text ends the path there: such a parent never
  // gets a name appended.
  auto nul = parent.find(u'\0');
  if (nul != TextView::npos) return Text(parent.substr(0, nul));
  TextView name = nameUnits(row);
  name = name.substr(0, name.find(u'\0'));
  Text path;
  path.reserve(parent.size() + name.size());
  path.append(parent);
  path.append(name);
  return path;
}

void Catalog::applyDeviceLabels(const std::map<std::string, std::string>& labels) {
  p_.deviceLabels.resize(p_.devices.size());
  for (std::size_t i = 0; i < p_.devices.size(); ++i) {
    auto found = labels.find(std::to_string(p_.devices[i]));
    if (found != labels.end()) p_.deviceLabels[i] = utf16(found->second);
  }
}

}  // namespace tarv
