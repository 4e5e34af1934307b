#include "kernel/catalog/catalog_builder.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <numeric>
#include <type_traits>

#include "kernel/base/kernel_error.h"

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

bool sameUnits(TextView a, const Unit* b, std::size_t n) {
  return a.size() == n && (n == 0 || std::memcmp(a.data(), b, n * sizeof(Unit)) == 0);
}

// Streaming hash over UTF-16 units for the builder's own lookups (parents and
// declared folders). It must give the same value for a text hashed in one
// piece or in two (parent text, then name), so it works unit by unit.
class UnitHash {
 public:
  void add(TextView text) noexcept {
    for (Unit u : text) h_ = (h_ ^ u) * 0x100000001B3ull;
  }
  std::uint32_t value() const noexcept {
    std::uint64_t x = h_;
    x ^= x >> 33;
    x *= 0xFF51AFD7ED558CCDull;
    x ^= x >> 33;
    return static_cast<std::uint32_t>(x);
  }

 private:
  std::uint64_t h_ = 0xCBF29CE484222325ull;
};

std::uint32_t hashOf(TextView text) {
  UnitHash h;
  h.add(text);
  return h.value();
}

// The duplicate table's slot hash before masking: the start slot is this
// value masked by (slot count - 1). The arithmetic is fixed (wrapping 32-bit)
// so that a catalog's slot layout does not depend on the platform.
std::uint32_t slotHash(TextView name, std::uint32_t key) {
  std::uint32_t h = 0;
  for (Unit u : name) h = h * 31u + u;
  std::uint32_t x = h ^ (key * 0x9E3779B9u);
  std::uint32_t y = (x ^ (x >> 16)) * 0x7FEB352Du;
  return y ^ (y >> 15);
}

// A duplicate-table slot: 0 when empty, else (slot hash << 32) | (row + 1).
// Keeping the hash in the slot lets a probe skip rows whose hash differs
// without touching the row arrays, and lets growth move entries without
// rereading names.
constexpr std::uint64_t makeSlot(std::uint32_t hash, std::int32_t row) {
  return (std::uint64_t{hash} << 32) | (static_cast<std::uint32_t>(row) + 1);
}
constexpr std::int32_t slotRow(std::uint64_t slot) { return static_cast<std::int32_t>(static_cast<std::uint32_t>(slot) - 1); }
constexpr std::uint32_t slotHashOf(std::uint64_t slot) { return static_cast<std::uint32_t>(slot >> 32); }

std::uint64_t saturatingAdd(std::uint64_t a, std::uint64_t b) {
  std::uint64_t sum = a + b;
  if (sum < a || sum >= kUnknown64) return kUnknown64 - 1;
  return sum;
}


bool sameText(TextView a, TextView b) { return sameUnits(a, b.data(), b.size()); }

// Hash of a parent text, eight bytes at a time (parents are hashed whenever
// the parent changes between consecutive records, so this is warm code).
std::uint32_t parentHash(TextView text) {
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
  std::memcpy(&tail, bytes, left);
  h = (h ^ tail) * 0xC4CEB9FE1A85EC53ull;
  h ^= h >> 29;
  return static_cast<std::uint32_t>(h);
}

// A growing array of plain values on malloc/realloc. Large blocks grow by
// remapping instead of copying, so building a big catalog touches each page
// about once, and the finished memory becomes a column's owned allocation
// without another copy.
template <class T>
class GrowBuffer {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  GrowBuffer() = default;
  GrowBuffer(const GrowBuffer&) = delete;
  GrowBuffer& operator=(const GrowBuffer&) = delete;
  ~GrowBuffer() { std::free(data_); }

  std::size_t size() const noexcept { return size_; }
  bool empty() const noexcept { return size_ == 0; }
  T* data() noexcept { return data_; }
  const T* data() const noexcept { return data_; }
  T& operator[](std::size_t i) noexcept { return data_[i]; }
  const T& operator[](std::size_t i) const noexcept { return data_[i]; }
  const T* begin() const noexcept { return data_; }
  const T* end() const noexcept { return data_ + size_; }

  void push_back(T value) {
    if (size_ == capacity_) reserve(size_ + 1);
    data_[size_++] = value;
  }
  void append(const T* values, std::size_t count) {
    if (size_ + count > capacity_) reserve(size_ + count);
    if (count != 0) std::memcpy(data_ + size_, values, count * sizeof(T));
    size_ += count;
  }
  void resize(std::size_t count, T value) {
    if (count > capacity_) reserve(count);
    for (std::size_t i = size_; i < count; ++i) data_[i] = value;
    size_ = count;
  }

  Column<T> release() {
    if (size_ != 0 && size_ < capacity_) {
      if (void* shrunk = std::realloc(data_, size_ * sizeof(T))) data_ = static_cast<T*>(shrunk);
    }
    std::shared_ptr<const void> owner(data_, [](const void* p) { std::free(const_cast<void*>(p)); });
    Column<T> column(data_, size_, std::move(owner));
    data_ = nullptr;
    size_ = capacity_ = 0;
    return column;
  }

 private:
  void reserve(std::size_t needed) {
    std::size_t capacity = std::max<std::size_t>({needed, capacity_ * 2, 4096 / sizeof(T)});
    void* grown = std::realloc(data_, capacity * sizeof(T));
    if (!grown) throw std::bad_alloc();
    data_ = static_cast<T*>(grown);
    capacity_ = capacity;
  }

  T* data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

}  // namespace

struct CatalogBuilder::State {
  PathFlavor pathFlavor;
  bool inferAncestors;
  std::string sourceId;
  bool directorySizes;
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
  GrowBuffer<std::int32_t> parentStarts;  // starts with 0, see the constructor
  std::vector<std::uint32_t> parentHashes;
  std::vector<std::uint32_t> parentSlots = std::vector<std::uint32_t>(1024, 0);  // index + 1
  std::uint32_t lastParent = kNone;  // consecutive records usually share a parent

  std::unordered_map<std::int32_t, Text> irregular;

  // declaredDirectories: folders by full path, with no text copies. An entry
  // is a folder row (its text is parent text + name) or, while `finish`
  // synthesises ancestors, a prefix of a stored parent text.
  struct Declared {
    std::int32_t row;     // >= 0: a folder row; -1: a prefix of a parent text
    std::uint32_t parent; // for a prefix: the parent text it is cut from
    std::uint32_t length; // for a prefix: its length in units
    std::uint32_t hash;
    bool walked;          // its ancestors were already walked by `finish`
  };
  std::vector<Declared> declared;
  std::vector<std::uint32_t> declaredSlots;  // entry + 1

  std::vector<std::uint64_t> slots = std::vector<std::uint64_t>(kInitialSlots, 0);  // see makeSlot

  TextView parentText(std::uint32_t i) const noexcept {
    auto start = static_cast<std::size_t>(parentStarts[i]);
    auto end = static_cast<std::size_t>(parentStarts[i + 1]);
    return TextView(parentChars.data() + start, end - start - 1);
  }
  TextView nameOf(std::int32_t row) const noexcept {
    auto start = static_cast<std::size_t>(nameStarts[row]);
    auto end = static_cast<std::size_t>(row + 1) < nameStarts.size() ? static_cast<std::size_t>(nameStarts[row + 1]) : names.size();
    return TextView(names.data() + start, end - start - 1);
  }
  std::int32_t count() const noexcept { return static_cast<std::int32_t>(parentTags.size()); }

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
    return findParent(text, parentHash(text));
  }

  void placeParent(std::uint32_t index) noexcept {
    std::size_t mask = parentSlots.size() - 1;
    std::size_t i = parentHashes[index] & mask;
    while (parentSlots[i] != 0) i = (i + 1) & mask;
    parentSlots[i] = index + 1;
  }

  std::uint32_t internParent(TextView text) {
    if (lastParent != kNone && sameText(parentText(lastParent), text)) return lastParent;
    std::uint32_t hash = parentHash(text);
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

  // Doubles the table. Entries are moved in table order, which keeps both the
  // reads and the writes close to sequential.
  void growSlots() {
    std::vector<std::uint64_t> old(slots.size() * 2, 0);
    old.swap(slots);
    std::size_t mask = slots.size() - 1;
    for (std::uint64_t slot : old) {
      if (slot == 0) continue;
      std::size_t i = slotHashOf(slot) & mask;
      while (slots[i] != 0) i = (i + 1) & mask;
      slots[i] = slot;
    }
  }

  // ---- declared folders ----

  std::uint32_t insertDeclared(const Declared& entry) {
    if (declaredSlots.size() <= 2 * (declared.size() + 1)) {
      declaredSlots.assign(std::max<std::size_t>(1024, declaredSlots.size() * 2), 0);
      for (std::uint32_t e = 0; e < declared.size(); ++e) placeDeclared(e);
    }
    declared.push_back(entry);
    auto index = static_cast<std::uint32_t>(declared.size() - 1);
    placeDeclared(index);
    return index;
  }

  void placeDeclared(std::uint32_t index) noexcept {
    std::size_t mask = declaredSlots.size() - 1;
    std::size_t i = declared[index].hash & mask;
    while (declaredSlots[i] != 0) i = (i + 1) & mask;
    declaredSlots[i] = index + 1;
  }

  void declareFolderRow(std::int32_t row, TextView parent, TextView name) {
    UnitHash h;
    h.add(parent);
    h.add(name);
    std::uint32_t hash = h.value();
    if (findDeclared(parent, name, hash) != kNone) return;
    insertDeclared(Declared{row, 0, 0, hash, false});
  }

  // The entry whose text is first + second, compared without joining them.
  std::uint32_t findDeclared(TextView first, TextView second, std::uint32_t hash) const noexcept {
    if (declaredSlots.empty()) return kNone;
    std::size_t mask = declaredSlots.size() - 1;
    std::size_t total = first.size() + second.size();
    for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
      std::uint32_t slot = declaredSlots[i];
      if (slot == 0) return kNone;
      const Declared& entry = declared[slot - 1];
      if (entry.hash != hash) continue;
      TextView a, b;
      if (entry.row < 0) {
        a = parentText(entry.parent).substr(0, entry.length);
      } else {
        a = parentText(parentTags[entry.row] & kIndexMask);
        b = nameOf(entry.row);
      }
      if (a.size() + b.size() != total) continue;
      if (piecesEqual(a, b, first, second)) return slot - 1;
    }
  }

  // Whether the concatenations a+b and c+d (of equal total length) are equal.
  static bool piecesEqual(TextView a, TextView b, TextView c, TextView d) noexcept {
    std::size_t total = a.size() + b.size();
    for (std::size_t i = 0; i < total; ++i) {
      Unit x = i < a.size() ? a[i] : b[i - a.size()];
      Unit y = i < c.size() ? c[i] : d[i - c.size()];
      if (x != y) return false;
    }
    return true;
  }

  // ---- finish ----

  void synthesiseAncestors(CatalogBuilder& owner);
  class FolderPaths;
  void deriveFolderSizes();
};

CatalogBuilder::CatalogBuilder(std::string sourceId, PathFlavor pathFlavor, bool inferAncestors, bool directorySizes)
    : state_(std::make_unique<State>()) {
  state_->pathFlavor = pathFlavor;
  state_->inferAncestors = inferAncestors;
  state_->sourceId = std::move(sourceId);
  state_->directorySizes = directorySizes;
  state_->parentStarts.push_back(0);
}

CatalogBuilder::~CatalogBuilder() = default;
CatalogBuilder::CatalogBuilder(CatalogBuilder&&) noexcept = default;
CatalogBuilder& CatalogBuilder::operator=(CatalogBuilder&&) noexcept = default;

bool CatalogBuilder::contains(TextView path, bool folder) const {
  const State& s = *state_;
  auto separator = path_flavor::lastSeparator(s.pathFlavor, path);
  TextView parent = path.substr(0, static_cast<std::size_t>(separator + 1));
  TextView name = path.substr(static_cast<std::size_t>(separator + 1));
  std::uint32_t index = s.lookupParent(parent);
  if (index == kNone) return false;
  std::uint32_t key = s.keyOf(index | (folder ? kFolderBit : 0));
  bool found = false;
  s.probe(name, key, slotHash(name, key), found);
  return found;
}

bool CatalogBuilder::add(TextView path, bool folder, std::uint64_t size, std::uint64_t modified, std::uint64_t created,
                         const std::optional<Text>& irregularExtension, std::uint8_t kind, std::uint64_t allocated,
                         std::optional<std::uint64_t> device) {
  State& s = *state_;
  auto separator = path_flavor::lastSeparator(s.pathFlavor, path);
  TextView parent = path.substr(0, static_cast<std::size_t>(separator + 1));
  TextView name = path.substr(static_cast<std::size_t>(separator + 1));

  std::uint32_t parentIndex = s.internParent(parent);
  std::uint32_t tag = parentIndex | (folder ? kFolderBit : 0);

  auto row = s.count();
  if (s.slots.size() <= 2 * (static_cast<std::size_t>(row) + 1)) s.growSlots();
  std::uint32_t key = s.keyOf(tag);
  std::uint32_t hash = slotHash(name, key);
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
  auto rowCount = static_cast<std::size_t>(row);
  if (created != kUnknown64 && !s.anyCreated) {
    s.anyCreated = true;
    s.created.resize(rowCount, kUnknown64);
  }
  if (s.anyCreated) s.created.push_back(created);
  if (folder) allocated = kUnknown64;
  if (allocated != kUnknown64 && !s.anyAllocated) {
    s.anyAllocated = true;
    s.allocated.resize(rowCount, kUnknown64);
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
  }
  if (device && !s.anyDevice) {
    s.anyDevice = true;
    s.deviceIds.resize(rowCount, kNoDevice);
  }
  if (s.anyDevice) s.deviceIds.push_back(deviceId);

  if (irregularExtension) s.irregular.emplace(row, *irregularExtension);

  s.slots[slot] = makeSlot(hash, row);
  count_ = row + 1;
  if (folder) {
    ++s.folders;
    if (s.inferAncestors) s.declareFolderRow(row, s.parentText(parentIndex), name);
  }
  return true;
}

// Every parent text, in order of first appearance, is walked up to its
// outermost folder; each folder path nobody declared is queued, so ancestors
// follow all real records, deepest first per parent. A text already walked has
// had its whole chain walked, so the walk stops there without changing the result.
void CatalogBuilder::State::synthesiseAncestors(CatalogBuilder& owner) {
  std::vector<std::uint32_t> missing;
  auto parentCount = static_cast<std::uint32_t>(parentHashes.size());
  for (std::uint32_t p = 0; p < parentCount; ++p) {
    TextView text = parentText(p);
    std::size_t length = text.size();
    for (;;) {
      if (length > 0 && isAnySeparator(text[length - 1])) --length;
      if (length == 0) break;
      TextView folder = text.substr(0, length);
      std::uint32_t hash = hashOf(folder);
      std::uint32_t entry = findDeclared(folder, {}, hash);
      if (entry != kNone) {
        if (declared[entry].walked) break;
        declared[entry].walked = true;
      } else {
        entry = insertDeclared(Declared{-1, p, static_cast<std::uint32_t>(length), hash, true});
        missing.push_back(entry);
      }
      std::size_t cut = length;
      while (cut > 0 && !isAnySeparator(folder[cut - 1])) --cut;
      if (cut == 0) break;
      length = cut;  // keep the separator; the next round strips it
    }
  }
  Text path;
  for (std::uint32_t entry : missing) {
    // Copied: adding may append parent texts and move the storage.
    path.assign(parentText(declared[entry].parent).substr(0, declared[entry].length));
    owner.add(path, /*folder=*/true, kUnknown64, kUnknown64, kUnknown64, std::nullopt, /*kind=*/0, kUnknown64,
              std::nullopt);
  }
}

// Folder rows by full path (parent text + name), for the size derivation.
class CatalogBuilder::State::FolderPaths {
 public:
  explicit FolderPaths(const State& s) : s_(s) {
    std::size_t folders = static_cast<std::size_t>(s.folders);
    std::size_t size = 16;
    while (size <= 2 * folders) size *= 2;
    slots_.assign(size, 0);
    hashes_.assign(static_cast<std::size_t>(s.count()), 0);
    for (std::int32_t row = 0; row < s.count(); ++row) {
      if (!(s.parentTags[row] & kFolderBit)) continue;
      UnitHash h;
      h.add(s.parentText(s.parentTags[row] & kIndexMask));
      h.add(s.nameOf(row));
      hashes_[row] = h.value();
      std::size_t i = hashes_[row] & (slots_.size() - 1);
      while (slots_[i] != 0) i = (i + 1) & (slots_.size() - 1);
      slots_[i] = static_cast<std::uint32_t>(row) + 1;
    }
  }

  // The folder row whose path is `path`, or -1.
  std::int32_t find(TextView path) const {
    std::uint32_t hash = hashOf(path);
    for (std::size_t i = hash & (slots_.size() - 1);; i = (i + 1) & (slots_.size() - 1)) {
      if (slots_[i] == 0) return -1;
      auto row = static_cast<std::int32_t>(slots_[i] - 1);
      if (hashes_[row] != hash) continue;
      TextView parent = s_.parentText(s_.parentTags[row] & kIndexMask);
      TextView name = s_.nameOf(row);
      if (path.size() == parent.size() + name.size() && piecesEqual(parent, name, path, {})) return row;
    }
  }

 private:
  const State& s_;
  std::vector<std::uint32_t> slots_;
  std::vector<std::uint32_t> hashes_;
};

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
  FolderPaths folderPaths(*this);
  auto isRoot = [&](TextView text) { return text.size() == 1 && path_flavor::isSeparator(pathFlavor, text[0]); };

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
    if (owner < 0 && !isRoot(text)) owner = folderPaths.find(path_flavor::trimParent(pathFlavor, text));
    // Walk up past texts that are neither stored nor owned by a listed folder.
    while (owner < 0) {
      TextView folder = path_flavor::trimParent(pathFlavor, text);
      if (isRoot(folder)) break;
      auto separator = path_flavor::lastSeparator(pathFlavor, folder);
      if (separator < 0) break;
      text = folder.substr(0, static_cast<std::size_t>(separator + 1));
      if (std::uint32_t stored = findParent(text, parentHash(text)); stored != kNone) {
        totals[stored] = saturatingAdd(totals[stored], amount);
        break;
      }
      if (!isRoot(text)) owner = folderPaths.find(path_flavor::trimParent(pathFlavor, text));
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

void NativeCatalogBuilder::add(TextView path, std::uint8_t kind, std::uint64_t size, std::uint64_t modified,
                               std::uint64_t created, std::uint64_t allocated, std::optional<std::uint64_t> device) {
  if (path.empty() || path.find(u'\0') != TextView::npos || kind >= 7)
    throw KernelError::invalid("Invalid native record");
  if (!builder_.add(path, kind == 1, size, modified, created, std::nullopt, kind, allocated, device))
    throw KernelError::invalid("Duplicate native path: " + utf8(path));
}

}  // namespace tarv
