#include "kernel/catalog/catalog_builder.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <numeric>
#include <system_error>
#include <thread>

#include "core/platform/memory_advice.h"
#include "kernel/base/kernel_error.h"
#include "kernel/catalog/grow_buffer.h"

namespace tarv {
namespace {

constexpr std::uint32_t kIndexMask = ~kFolderBit;
constexpr std::size_t kInitialSlots = 8192;
constexpr std::size_t kMaxOffset = static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max());
constexpr std::uint32_t kNone = std::numeric_limits<std::uint32_t>::max();

// Offsets and indexes past 31 bits would silently corrupt every column that
// stores them; that is a bug in the caller's sizing, not a user error.
[[noreturn]] void fatal(const char* what) {
  std::fprintf(stderr, "tarv: fatal: %s\n", what);
  std::abort();
}

bool isAnySeparator(Unit unit) { return unit == u'/' || unit == u'\\'; }

// Whether `text` holds a NUL unit, four units at a time: every native record
// is checked, so this runs once per row.
bool hasNul(TextView text) noexcept {
  constexpr std::uint64_t kLow = 0x0001000100010001ull;
  constexpr std::uint64_t kHigh = 0x8000800080008000ull;
  std::size_t i = 0;
  for (; i + 4 <= text.size(); i += 4) {
    std::uint64_t word;
    std::memcpy(&word, text.data() + i, sizeof word);
    if ((word - kLow) & ~word & kHigh) return true;
  }
  for (; i < text.size(); ++i)
    if (text[i] == 0) return true;
  return false;
}

bool sameText(TextView a, TextView b) {
  return a.size() == b.size() && (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(Unit)) == 0);
}

// Hash of a parent text, eight bytes at a time (parents are hashed whenever
// the parent changes between consecutive records, so this is warm code).
std::uint32_t textHash(TextView text) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  std::size_t left = text.size() * sizeof(Unit);
  std::uint64_t h = 0x9E3779B97F4A7C15ull ^ left;
  for (; left >= 8; left -= 8, bytes += 8) {
    std::uint64_t word;
    std::memcpy(&word, bytes, 8);
    h = (h ^ word) * 0xFF51AFD7ED558CCDull;
    h ^= h >> 32;
  }
  std::uint64_t tail = 0;
  if (left != 0) std::memcpy(&tail, bytes, left);
  h = (h ^ tail) * 0xC4CEB9FE1A85EC53ull;
  h ^= h >> 29;
  return static_cast<std::uint32_t>(h);
}

// The duplicate table's slot hash before masking: the start slot is this
// value masked by (slot count - 1). The arithmetic is fixed (wrapping 32-bit)
// so that a catalog's slot layout does not depend on the platform.
std::uint32_t nameHash(TextView name) {
  std::uint32_t h = 0;
  for (Unit u : name) h = h * 31u + u;
  return h;
}
std::uint32_t mixKey(std::uint32_t nameHash, std::uint32_t key) {
  std::uint32_t x = nameHash ^ (key * 0x9E3779B9u);
  std::uint32_t y = (x ^ (x >> 16)) * 0x7FEB352Du;
  return y ^ (y >> 15);
}
std::uint32_t slotHash(TextView name, std::uint32_t key) { return mixKey(nameHash(name), key); }

// A duplicate-table slot: 0 when empty, else (slot hash << 32) | (row + 1).
// Keeping the hash in the slot lets a probe skip rows whose hash differs
// without touching the row arrays, and lets growth move entries without
// rereading names.
constexpr std::uint64_t makeSlot(std::uint32_t hash, std::int32_t row) {
  return (std::uint64_t{hash} << 32) | (static_cast<std::uint32_t>(row) + 1);
}
constexpr std::int32_t slotRow(std::uint64_t slot) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(slot) - 1);
}
constexpr std::uint32_t slotHashOf(std::uint64_t slot) { return static_cast<std::uint32_t>(slot >> 32); }

std::uint64_t saturatingAdd(std::uint64_t a, std::uint64_t b) {
  std::uint64_t sum = a + b;
  if (sum < a || sum >= kUnknown64) return kUnknown64 - 1;
  return sum;
}

// The duplicate table's storage: zeroed slots in one block. Big tables ask
// for large pages: every add probes a random slot, and address translation
// is most of what such a probe costs.
class SlotTable {
 public:
  explicit SlotTable(std::size_t size) : size_(size) {
    constexpr std::size_t kLargePage = std::size_t{2} << 20;
    std::size_t bytes = size * sizeof(std::uint64_t);
    void* block = nullptr;
    if (bytes >= 2 * kLargePage) {
      block = std::aligned_alloc(kLargePage, bytes);  // a power of two, so a multiple of the alignment
      if (block) {
        platform::adviseLargePages(block, bytes);
        std::memset(block, 0, bytes);
      }
    } else {
      block = std::calloc(size, sizeof(std::uint64_t));
    }
    if (!block) throw std::bad_alloc();
    data_.reset(static_cast<std::uint64_t*>(block));
  }

  std::size_t size() const noexcept { return size_; }
  std::uint64_t& operator[](std::size_t i) noexcept { return data_[i]; }
  std::uint64_t operator[](std::size_t i) const noexcept { return data_[i]; }
  const std::uint64_t* address(std::size_t i) const noexcept { return data_.get() + i; }

 private:
  struct Free {
    void operator()(std::uint64_t* p) const noexcept { std::free(p); }
  };
  std::unique_ptr<std::uint64_t[], Free> data_;
  std::size_t size_;
};

}  // namespace

struct CatalogBuilder::State {
  PathFlavor pathFlavor = PathFlavor::posix;
  bool inferAncestors = false;
  std::string sourceId;
  bool directorySizes = false;
  std::int32_t folders = 0;

  GrowBuffer<Unit> names;
  GrowBuffer<std::int32_t> nameStarts;  // a name's length follows from the next start
  GrowBuffer<std::uint32_t> parentTags;
  GrowBuffer<std::uint64_t> sizes, modified;
  // Filled lazily: they stay empty until the first known value (or device)
  // arrives and are then back-filled with the unknown value, so a source
  // without them never pays for them.
  GrowBuffer<std::uint64_t> created, allocated;
  GrowBuffer<std::uint16_t> deviceIds;
  bool anyCreated = false, anyAllocated = false, anyDevice = false;
  GrowBuffer<std::uint8_t> kinds;  // not kept with ancestor inference
  std::vector<std::uint64_t> devices;
  std::unordered_map<std::uint64_t, std::uint16_t> deviceLookup;
  std::uint64_t lastDevice = 0;
  std::uint16_t lastDeviceId = kNoDevice;

  // Parent texts, packed as the catalog stores them: each followed by a NUL,
  // parentStarts holding every start and the running total.
  GrowBuffer<Unit> parentChars;
  GrowBuffer<std::int32_t> parentStarts;
  std::vector<std::uint32_t> parentHashes;
  std::vector<std::uint32_t> parentSlots = std::vector<std::uint32_t>(1024, 0);  // index + 1
  std::uint32_t lastParent = kNone;  // consecutive records usually share a parent
  mutable std::uint32_t lastPrefetchParent = kNone;  // the same for records looked at ahead

  std::unordered_map<std::int32_t, Text> irregular;

  // The duplicate table. With ancestor inference it also answers which folder
  // paths are declared: a folder row's key holds the folder bit.
  SlotTable slots{kInitialSlots};

  State() { parentStarts.push_back(0); }

  std::int32_t count() const noexcept { return static_cast<std::int32_t>(parentTags.size()); }
  TextView parentText(std::uint32_t i) const noexcept {
    auto start = static_cast<std::size_t>(parentStarts[i]);
    auto end = static_cast<std::size_t>(parentStarts[i + 1]);
    return TextView(parentChars.data() + start, end - start - 1);
  }
  TextView nameOf(std::int32_t row) const noexcept {
    auto start = static_cast<std::size_t>(nameStarts[row]);
    auto next = static_cast<std::size_t>(row) + 1;
    auto end = next < nameStarts.size() ? static_cast<std::size_t>(nameStarts[next]) : names.size();
    return TextView(names.data() + start, end - start - 1);
  }
  TextView parentOf(TextView path) const noexcept {
    return path.substr(0, static_cast<std::size_t>(path_flavor::lastSeparator(pathFlavor, path) + 1));
  }

  // ---- parent texts ----

  std::uint32_t findParent(TextView text, std::uint32_t hash) const noexcept {
    std::size_t mask = parentSlots.size() - 1;
    for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
      std::uint32_t slot = parentSlots[i];
      if (slot == 0) return kNone;
      std::uint32_t index = slot - 1;
      if (parentHashes[index] == hash && sameText(parentText(index), text)) return index;
    }
  }

  std::uint32_t lookupParent(TextView text) const noexcept {
    if (lastParent != kNone && sameText(parentText(lastParent), text)) return lastParent;
    return findParent(text, textHash(text));
  }

  void placeParent(std::uint32_t index) noexcept {
    std::size_t mask = parentSlots.size() - 1;
    std::size_t i = parentHashes[index] & mask;
    while (parentSlots[i] != 0) i = (i + 1) & mask;
    parentSlots[i] = index + 1;
  }

  std::uint32_t internParent(TextView text) {
    if (lastParent != kNone && sameText(parentText(lastParent), text)) return lastParent;
    return internParent(text, textHash(text));
  }

  // The same with the text's hash known, and without the look at the last parent.
  std::uint32_t internParent(TextView text, std::uint32_t hash) {
    std::uint32_t index = findParent(text, hash);
    if (index == kNone) {
      std::size_t parentCount = parentHashes.size();
      if (parentCount > kIndexMask) fatal("parent index exceeds 31 bits");
      if (parentChars.size() + text.size() + 1 > kMaxOffset) fatal("parent text offset exceeds 31 bits");
      index = static_cast<std::uint32_t>(parentCount);
      parentChars.append(text.data(), text.size());
      parentChars.push_back(0);
      parentStarts.push_back(static_cast<std::int32_t>(parentChars.size()));
      parentHashes.push_back(hash);
      if (parentSlots.size() <= 2 * (parentCount + 1)) {
        parentSlots.assign(parentSlots.size() * 2, 0);
        for (std::uint32_t i = 0; i < index; ++i) placeParent(i);
      }
      placeParent(index);
    }
    lastParent = index;
    return index;
  }

  // ---- duplicate slots ----

  std::uint32_t keyOf(std::uint32_t tag) const noexcept { return inferAncestors ? tag : (tag & kIndexMask); }

  // The slot holding a row with this key and name, or the empty slot where it belongs.
  std::size_t probe(TextView name, std::uint32_t key, std::uint32_t hash, bool& found) const noexcept {
    std::size_t mask = slots.size() - 1;
    for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
      std::uint64_t slot = slots[i];
      if (slot == 0) {
        found = false;
        return i;
      }
      if (slotHashOf(slot) != hash) continue;
      std::int32_t row = slotRow(slot);
      if (keyOf(parentTags[row]) == key && sameText(nameOf(row), name)) {
        found = true;
        return i;
      }
    }
  }

  // The row that `add` would refuse for this path and folder flag, or -1.
  std::int32_t findRow(TextView path, bool folder) const noexcept {
    TextView parent = parentOf(path);
    std::uint32_t index = lookupParent(parent);
    if (index == kNone) return -1;
    TextView name = path.substr(parent.size());
    std::uint32_t key = keyOf(index | (folder ? kFolderBit : 0));
    bool found = false;
    std::size_t i = probe(name, key, slotHash(name, key), found);
    return found ? slotRow(slots[i]) : -1;
  }

  // The folder row whose full path is `path`, or -1.
  std::int32_t findFolder(TextView path) const noexcept {
    std::int32_t row = findRow(path, /*folder=*/true);
    return row >= 0 && (parentTags[row] & kFolderBit) ? row : -1;
  }

  // Doubles the table. Entries are moved in table order, which keeps both the
  // reads and the writes close to sequential.
  void growSlots() {
    SlotTable old(slots.size() * 2);
    std::swap(old, slots);
    std::size_t mask = slots.size() - 1;
    for (std::size_t j = 0; j < old.size(); ++j) {
      std::uint64_t slot = old[j];
      if (slot == 0) continue;
      std::size_t i = slotHashOf(slot) & mask;
      while (slots[i] != 0) i = (i + 1) & mask;
      slots[i] = slot;
    }
  }

  // ---- finish ----

  std::vector<std::int32_t> folderOwners() const;
  void synthesiseAncestors(CatalogBuilder& owner);
  void deriveFolderSizes();
};

CatalogBuilder::CatalogBuilder(std::string sourceId, PathFlavor pathFlavor, bool inferAncestors, bool directorySizes)
    : state_(std::make_unique<State>()) {
  state_->pathFlavor = pathFlavor;
  state_->inferAncestors = inferAncestors;
  state_->sourceId = std::move(sourceId);
  state_->directorySizes = directorySizes;
}

CatalogBuilder::~CatalogBuilder() = default;
CatalogBuilder::CatalogBuilder(CatalogBuilder&&) noexcept = default;
CatalogBuilder& CatalogBuilder::operator=(CatalogBuilder&&) noexcept = default;

bool CatalogBuilder::contains(TextView path, bool folder) const { return state_->findRow(path, folder) >= 0; }

PreparedPath CatalogBuilder::prepare(PathFlavor pathFlavor, TextView path, const PreparedPath* previous) noexcept {
  auto parentLength = static_cast<std::size_t>(path_flavor::lastSeparator(pathFlavor, path) + 1);
  PreparedPath prepared{path, static_cast<std::uint32_t>(parentLength), nameHash(path.substr(parentLength))};
  if (previous && sameText(previous->parent(), prepared.parent())) {
    prepared.sameParent = true;
  } else {
    prepared.parentHash = textHash(prepared.parent());
  }
  return prepared;
}

void CatalogBuilder::prefetch(TextView path, bool folder) const noexcept {
  const State& s = *state_;
  TextView parent = s.parentOf(path);
  std::uint32_t index = s.lastPrefetchParent;
  if (index == kNone || !sameText(s.parentText(index), parent)) {
    index = s.lookupParent(parent);
    if (index == kNone) return;  // a new parent: nothing there to load yet
    s.lastPrefetchParent = index;
  }
  TextView name = path.substr(parent.size());
  std::uint32_t hash = slotHash(name, s.keyOf(index | (folder ? kFolderBit : 0)));
  __builtin_prefetch(s.slots.address(hash & (s.slots.size() - 1)));
}

void CatalogBuilder::prefetch(const PreparedPath& path, bool folder) const noexcept {
  const State& s = *state_;
  std::uint32_t index = s.lastPrefetchParent;
  if (!path.sameParent || index == kNone) {
    index = s.findParent(path.parent(), path.parentHash);
    s.lastPrefetchParent = index;
    if (index == kNone) return;  // a new parent: nothing there to load yet
  }
  std::uint32_t hash = mixKey(path.nameHash, s.keyOf(index | (folder ? kFolderBit : 0)));
  __builtin_prefetch(s.slots.address(hash & (s.slots.size() - 1)));
}

bool CatalogBuilder::add(TextView path, bool folder, std::uint64_t size, std::uint64_t modified, std::uint64_t created,
                         const std::optional<Text>& irregularExtension, std::uint8_t kind, std::uint64_t allocated,
                         std::optional<std::uint64_t> device) {
  State& s = *state_;
  TextView parent = s.parentOf(path);
  TextView name = path.substr(parent.size());
  std::uint32_t parentIndex = s.internParent(parent);
  return addRow(parentIndex, name, nameHash(name), folder, size, modified, created, irregularExtension, kind,
                allocated, device);
}

bool CatalogBuilder::add(const PreparedPath& prepared, bool folder, std::uint64_t size, std::uint64_t modified,
                         std::uint64_t created, const std::optional<Text>& irregularExtension, std::uint8_t kind,
                         std::uint64_t allocated, std::optional<std::uint64_t> device) {
  State& s = *state_;
  std::uint32_t parentIndex = prepared.sameParent && s.lastParent != kNone
                                  ? s.lastParent
                                  : s.internParent(prepared.parent(), prepared.parentHash);
  s.lastParent = parentIndex;
  return addRow(parentIndex, prepared.path.substr(prepared.parentLength), prepared.nameHash, folder, size, modified,
                created, irregularExtension, kind, allocated, device);
}

bool CatalogBuilder::addRow(std::uint32_t parentIndex, TextView name, std::uint32_t hashOfName, bool folder,
                            std::uint64_t size, std::uint64_t modified, std::uint64_t created,
                            const std::optional<Text>& irregularExtension, std::uint8_t kind, std::uint64_t allocated,
                            std::optional<std::uint64_t> device) {
  State& s = *state_;
  std::uint32_t tag = parentIndex | (folder ? kFolderBit : 0);

  auto row = s.count();
  if (s.slots.size() <= 2 * (static_cast<std::size_t>(row) + 1)) s.growSlots();
  std::uint32_t key = s.keyOf(tag);
  std::uint32_t hash = mixKey(hashOfName, key);
  bool found = false;
  std::size_t slot = s.probe(name, key, hash, found);
  if (found) return false;

  if (row == std::numeric_limits<std::int32_t>::max()) fatal("row count exceeds 31 bits");
  if (s.names.size() + name.size() + 1 > kMaxOffset) fatal("name offset exceeds 31 bits");
  s.nameStarts.push_back(static_cast<std::int32_t>(s.names.size()));
  s.names.append(name.data(), name.size());
  s.names.push_back(0);
  s.parentTags.push_back(tag);

  s.sizes.push_back(folder && !s.directorySizes ? kUnknown64 : size);
  s.modified.push_back(modified);
  if (!s.inferAncestors) s.kinds.push_back(kind);
  auto earlierRows = static_cast<std::size_t>(row);
  if (created != kUnknown64 && !s.anyCreated) {
    s.anyCreated = true;
    s.created.resize(earlierRows, kUnknown64);
  }
  if (s.anyCreated) s.created.push_back(created);
  if (folder) allocated = kUnknown64;
  if (allocated != kUnknown64 && !s.anyAllocated) {
    s.anyAllocated = true;
    s.allocated.resize(earlierRows, kUnknown64);
  }
  if (s.anyAllocated) s.allocated.push_back(allocated);

  std::uint16_t deviceId = kNoDevice;
  if (device) {
    if (s.lastDeviceId != kNoDevice && s.lastDevice == *device) {
      deviceId = s.lastDeviceId;
    } else if (auto known = s.deviceLookup.find(*device); known != s.deviceLookup.end()) {
      deviceId = known->second;
    } else if (s.devices.size() < kNoDevice) {
      deviceId = static_cast<std::uint16_t>(s.devices.size());
      s.deviceLookup.emplace(*device, deviceId);
      s.devices.push_back(*device);
    }
    if (deviceId != kNoDevice) {
      s.lastDevice = *device;
      s.lastDeviceId = deviceId;
    }
    if (!s.anyDevice) {
      s.anyDevice = true;
      s.deviceIds.resize(earlierRows, kNoDevice);
    }
  }
  if (s.anyDevice) s.deviceIds.push_back(deviceId);

  if (irregularExtension) s.irregular.emplace(row, *irregularExtension);

  s.slots[slot] = makeSlot(hash, row);
  count_ = row + 1;
  if (folder) ++s.folders;
  return true;
}

// For each parent text of a Windows catalog, the folder row whose path is the
// text without its trailing separator, or -1; empty for other flavors (where
// the walk's cut, at either separator, need not give a parent text). These
// lookups are most of the ancestor walk's cost and read the builder only, so
// a large catalog splits them over two threads.
std::vector<std::int32_t> CatalogBuilder::State::folderOwners() const {
  if (pathFlavor != PathFlavor::windows) return {};
  auto parentCount = static_cast<std::uint32_t>(parentHashes.size());
  std::vector<std::int32_t> owners(parentCount, -1);
  auto find = [&](std::uint32_t from, std::uint32_t to) noexcept {
    for (std::uint32_t p = from; p < to; ++p) {
      TextView text = parentText(p);
      std::size_t length = text.size();
      if (length > 0 && isAnySeparator(text[length - 1])) --length;
      if (length != 0) owners[p] = findFolder(text.substr(0, length));
    }
  };
  constexpr std::uint32_t kWorthAThread = 1 << 16;
  std::thread helper;
  if (parentCount >= kWorthAThread) {
    try {
      helper = std::thread(find, parentCount / 2, parentCount);
    } catch (const std::system_error&) {
      // No thread to be had: the same lookups, on this thread alone.
    }
  }
  find(0, helper.joinable() ? parentCount / 2 : parentCount);
  if (helper.joinable()) helper.join();
  return owners;
}

// Every parent text, in order of first appearance, is walked up to its
// outermost folder; each folder path that no folder row declares is queued,
// so ancestors follow all real records, deepest first per parent. A folder
// already walked has had its whole chain walked, so the walk stops there
// without changing the result.
void CatalogBuilder::State::synthesiseAncestors(CatalogBuilder& owner) {
  // Queued folders are prefixes of parent texts: (parent index, length).
  struct Queued {
    std::uint32_t parent, length, hash;
  };
  std::vector<Queued> missing;
  std::vector<std::uint32_t> missingSlots(1024, 0);  // entry + 1
  auto findMissing = [&](TextView text, std::uint32_t hash) {
    std::size_t mask = missingSlots.size() - 1;
    for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
      std::uint32_t slot = missingSlots[i];
      if (slot == 0) return false;
      const Queued& q = missing[slot - 1];
      if (q.hash == hash && sameText(parentText(q.parent).substr(0, q.length), text)) return true;
    }
  };
  auto place = [&](std::uint32_t entry) {
    std::size_t mask = missingSlots.size() - 1;
    std::size_t i = missing[entry].hash & mask;
    while (missingSlots[i] != 0) i = (i + 1) & mask;
    missingSlots[i] = entry + 1;
  };
  std::vector<std::uint8_t> walked(static_cast<std::size_t>(count()), 0);

  auto parentCount = static_cast<std::uint32_t>(parentHashes.size());
  std::vector<std::int32_t> owners = folderOwners();
  for (std::uint32_t p = 0; p < parentCount; ++p) {
    TextView text = parentText(p);
    std::size_t length = text.size();
    // While the walk is on whole parent texts of a Windows catalog, the
    // folder each one names was looked up ahead: a listed folder's parent
    // text is exactly what cutting its path after the last separator leaves.
    std::uint32_t whole = owners.empty() ? kNone : p;
    for (;;) {
      if (length > 0 && isAnySeparator(text[length - 1])) --length;
      if (length == 0) break;
      if (whole != kNone && owners[whole] >= 0) {
        auto row = static_cast<std::size_t>(owners[whole]);
        if (walked[row]) break;
        walked[row] = 1;
        whole = parentTags[row] & kIndexMask;
        text = parentText(whole);
        length = text.size();
        continue;
      }
      whole = kNone;
      TextView folder = text.substr(0, length);
      std::uint32_t hash = textHash(folder);
      if (findMissing(folder, hash)) break;  // queued folders were walked when queued
      if (std::int32_t row = findFolder(folder); row >= 0) {
        if (walked[static_cast<std::size_t>(row)]) break;
        walked[static_cast<std::size_t>(row)] = 1;
      } else {
        if (missingSlots.size() <= 2 * (missing.size() + 1)) {
          missingSlots.assign(missingSlots.size() * 2, 0);
          for (std::uint32_t e = 0; e < missing.size(); ++e) place(e);
        }
        missing.push_back(Queued{p, static_cast<std::uint32_t>(length), hash});
        place(static_cast<std::uint32_t>(missing.size() - 1));
      }
      std::size_t cut = length;
      while (cut > 0 && !isAnySeparator(folder[cut - 1])) --cut;
      if (cut == 0) break;
      length = cut;  // keep the separator; the next round strips it
    }
  }
  Text path;
  for (const Queued& q : missing) {
    // Copied: adding may append parent texts and move their storage.
    path.assign(parentText(q.parent).substr(0, q.length));
    owner.add(path, /*folder=*/true, kUnknown64, kUnknown64, kUnknown64, std::nullopt, /*kind=*/0, kUnknown64,
              std::nullopt);
  }
}

// Folder sizes are the sum of the file sizes below each folder. Files add
// into their parent text; parent texts are then visited longest first, so a
// text's total is complete when it is visited, and each total moves up one
// step: into the folder whose children the text holds and on into that
// folder's own parent text. A text that no folder row owns (an unlisted
// folder) passes its total to the next stored text or listed folder above it,
// so nothing below an unlisted folder is lost.
void CatalogBuilder::State::deriveFolderSizes() {
  auto parentCount = static_cast<std::uint32_t>(parentHashes.size());
  std::vector<std::uint64_t> totals(parentCount, 0);
  // A folder whose path ends in a separator ("/" itself) holds its children
  // in its own parent text.
  std::vector<std::int32_t> ownerWithEmptyName(parentCount, -1);
  for (std::int32_t row = 0; row < count(); ++row) {
    std::uint32_t tag = parentTags[row];
    std::uint32_t parent = tag & kIndexMask;
    if (tag & kFolderBit) {
      sizes[row] = 0;
      if (nameOf(row).empty() && ownerWithEmptyName[parent] < 0) ownerWithEmptyName[parent] = row;
    } else if (sizes[row] != kUnknown64) {
      totals[parent] = saturatingAdd(totals[parent], sizes[row]);
    }
  }
  auto isRoot = [&](TextView text) { return text.size() == 1 && path_flavor::isSeparator(pathFlavor, text[0]); };
  auto ownerOf = [&](TextView text) {
    TextView folder = path_flavor::trimParent(pathFlavor, text);
    return folder.empty() || isRoot(folder) ? -1 : findFolder(folder);
  };

  std::vector<std::uint32_t> order(parentCount);
  std::iota(order.begin(), order.end(), 0u);
  std::sort(order.begin(), order.end(), [&](std::uint32_t a, std::uint32_t b) {
    return parentStarts[a + 1] - parentStarts[a] > parentStarts[b + 1] - parentStarts[b];
  });
  for (std::uint32_t p : order) {
    std::uint64_t amount = totals[p];
    if (amount == 0) continue;
    TextView text = parentText(p);
    std::int32_t owner = ownerWithEmptyName[p];
    if (owner < 0) owner = ownerOf(text);
    // Walk up past texts that are neither stored nor owned by a listed folder.
    while (owner < 0) {
      TextView folder = path_flavor::trimParent(pathFlavor, text);
      if (folder.empty() || isRoot(folder)) break;
      auto separator = path_flavor::lastSeparator(pathFlavor, folder);
      if (separator < 0) break;
      text = folder.substr(0, static_cast<std::size_t>(separator + 1));
      if (std::uint32_t stored = findParent(text, textHash(text)); stored != kNone) {
        totals[stored] = saturatingAdd(totals[stored], amount);
        break;
      }
      owner = ownerOf(text);
    }
    if (owner < 0) continue;
    sizes[owner] = saturatingAdd(sizes[owner], amount);
    std::uint32_t up = parentTags[owner] & kIndexMask;
    if (up != p) totals[up] = saturatingAdd(totals[up], amount);
  }
}

Catalog CatalogBuilder::finish() {
  State& s = *state_;
  if (s.inferAncestors) s.synthesiseAncestors(*this);
  if (s.directorySizes) s.deriveFolderSizes();

  Catalog::Parts parts;
  parts.count = s.count();
  parts.folderCount = s.folders;
  parts.pathFlavor = s.pathFlavor;
  parts.sourceId = std::move(s.sourceId);
  parts.directorySizes = s.directorySizes;
  s.nameStarts.push_back(static_cast<std::int32_t>(s.names.size()));
  parts.names = s.names.release();
  parts.nameStarts = s.nameStarts.release();
  parts.parentTags = s.parentTags.release();
  parts.sizes = s.sizes.release();
  parts.modifiedTimes = s.modified.release();
  if (s.anyCreated) parts.createdTimes = s.created.release();
  if (s.anyAllocated) parts.allocations = s.allocated.release();
  if (s.anyDevice) parts.deviceIds = s.deviceIds.release();
  parts.deviceLabels.assign(s.devices.size(), std::nullopt);
  parts.devices = std::move(s.devices);
  if (!s.inferAncestors) parts.kinds = s.kinds.release();
  parts.parentChars = s.parentChars.release();
  parts.parentStarts = s.parentStarts.release();
  parts.irregularExtensions = std::move(s.irregular);
  state_.reset();
  count_ = 0;
  return Catalog(std::move(parts));
}

NativeCatalogBuilder::NativeCatalogBuilder(std::string sourceId, PathFlavor pathFlavor, bool directorySizes)
    : builder_(std::move(sourceId), pathFlavor, /*inferAncestors=*/false, directorySizes) {}

bool NativeCatalogBuilder::addIfAbsent(TextView path, std::uint8_t kind, std::uint64_t size, std::uint64_t modified,
                                       std::uint64_t created, std::uint64_t allocated,
                                       std::optional<std::uint64_t> device) {
  if (path.empty() || hasNul(path) || kind >= 7)
    throw KernelError::invalid("Invalid native record");
  return builder_.add(path, kind == 1, size, modified, created, std::nullopt, kind, allocated, device);
}

void NativeCatalogBuilder::add(const PreparedPath& path, std::uint8_t kind, std::uint64_t size, std::uint64_t modified,
                               std::uint64_t created, std::uint64_t allocated, std::optional<std::uint64_t> device) {
  if (path.path.empty() || hasNul(path.path) || kind >= 7)
    throw KernelError::invalid("Invalid native record");
  if (!builder_.add(path, kind == 1, size, modified, created, std::nullopt, kind, allocated, device))
    throw KernelError::invalid("Duplicate native path: " + utf8(path.path));
}

void NativeCatalogBuilder::add(TextView path, std::uint8_t kind, std::uint64_t size, std::uint64_t modified,
                               std::uint64_t created, std::uint64_t allocated, std::optional<std::uint64_t> device) {
  if (!addIfAbsent(path, kind, size, modified, created, allocated, device))
    throw KernelError::invalid("Duplicate native path: " + utf8(path));
}

}  // namespace tarv
