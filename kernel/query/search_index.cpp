#include "kernel/query/search_index.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstring>
#include <exception>
#include <iterator>
#include <optional>
#include <string>
#include <thread>

#include "kernel/query/bitset.h"
#include "kernel/query/name_collation.h"
#include "kernel/query/parallel.h"
#include "kernel/query/parallel_sort.h"
#include "kernel/query/path_order.h"
#include "kernel/query/prefix_sort.h"

namespace tarv {
namespace {

constexpr std::int64_t kRowsPerChunk = 1 << 15;

std::string section(std::string_view prefix, std::string_view name) {
  std::string out(prefix);
  out += name;
  return out;
}

std::string orderSection(std::string_view prefix, SortKey key) {
  return section(prefix, "order." + std::string(sortKeyName(key)));
}

[[noreturn]] void invalidSection(const std::string& name) { throw KernelError::io("Invalid index section " + name); }

bool isDriveLetter(Unit u) noexcept { return (u >= u'A' && u <= u'Z') || (u >= u'a' && u <= u'z'); }

bool isDriveName(TextView name) noexcept { return name.size() == 2 && isDriveLetter(name[0]) && name[1] == u':'; }

bool isDriveRoot(TextView parent) noexcept {
  return parent.size() == 3 && isDriveLetter(parent[0]) && parent[1] == u':' &&
         path_flavor::isSeparator(PathFlavor::windows, parent[2]);
}

// The "extensions" section: the number of texts k as two u16 halves, then
// k + 1 unit offsets as u16 halves (low first), then the units.
std::vector<std::uint16_t> encodeTexts(const std::vector<Text>& texts) {
  std::vector<std::uint16_t> out;
  auto put32 = [&](std::uint32_t v) {
    out.push_back(static_cast<std::uint16_t>(v & 0xFFFF));
    out.push_back(static_cast<std::uint16_t>(v >> 16));
  };
  put32(static_cast<std::uint32_t>(texts.size()));
  std::uint32_t offset = 0;
  put32(offset);
  for (const Text& t : texts) put32(offset += static_cast<std::uint32_t>(t.size()));
  for (const Text& t : texts) out.insert(out.end(), t.begin(), t.end());
  return out;
}

// Where the pieces of an encoded text table lie; checked in constant time.
struct TextTableShape {
  std::size_t count = 0;
  std::size_t unitsAt = 0;
  std::size_t units = 0;
};

std::uint32_t get32(const Column<std::uint16_t>& data, std::size_t at) noexcept {
  return std::uint32_t(data[at]) | std::uint32_t(data[at + 1]) << 16;
}

// The header of an encoded table: the count within the id range, room for
// every offset, the first offset 0 and the last the number of units.
std::optional<TextTableShape> textTableShape(const Column<std::uint16_t>& data) noexcept {
  if (data.size() < 4) return std::nullopt;
  const std::uint64_t count = get32(data, 0);
  if (count == 0 || count > 65536 || data.size() < 2 + 2 * (count + 1)) return std::nullopt;
  TextTableShape shape;
  shape.count = static_cast<std::size_t>(count);
  shape.unitsAt = 2 + 2 * (shape.count + 1);
  shape.units = data.size() - shape.unitsAt;
  if (get32(data, 2) != 0 || get32(data, 2 + 2 * shape.count) != shape.units) return std::nullopt;
  return shape;
}

// Decodes a table whose header passed textTableShape. An inner offset pair
// out of order or past the units (a damaged file) gives an empty text.
std::vector<Text> decodeTexts(const Column<std::uint16_t>& data, const TextTableShape& shape) {
  std::vector<Text> texts;
  texts.reserve(shape.count);
  for (std::size_t i = 0; i < shape.count; ++i) {
    const std::uint32_t from = get32(data, 2 + 2 * i);
    const std::uint32_t to = get32(data, 2 + 2 * (i + 1));
    if (from > to || to > shape.units) {
      texts.emplace_back();
      continue;
    }
    const auto* first = reinterpret_cast<const char16_t*>(data.data() + shape.unitsAt + from);
    texts.emplace_back(first, first + (to - from));
  }
  return texts;
}

}  // namespace

std::uint64_t SearchIndex::gramMask(const Compatibility& compatibility, TextView units) noexcept {
  std::uint64_t mask = 0;
  if (units.size() < 2) return mask;
  const auto& search = compatibility.searchTable();
  std::uint32_t a = search[units[0]];
  for (std::size_t i = 1; i < units.size(); ++i) {
    const std::uint32_t b = search[units[i]];
    const std::uint32_t h = b + a * 65599u;
    mask |= std::uint64_t(1) << ((h ^ (h >> 16)) & 63);
    a = b;
  }
  return mask;
}

// Frequent punctuation of file names, most frequent first (measured on a
// large package tree: '.' in 85% of names, '_' 33%, '-' 20%, the rest rare
// but still worth an exact one-unit answer).
constexpr char16_t kPunctuationBits[] = {u'.', u'_', u'-', u'+', u'@', u'~', u' ', u'='};
constexpr int kFirstPunctuationBit = 36;
constexpr int kFirstHashedBit = kFirstPunctuationBit + static_cast<int>(std::size(kPunctuationBits));
static_assert(kFirstHashedBit + SearchIndex::kHashedUnitBits == 64);
static_assert(std::ranges::all_of(kPunctuationBits, [](char16_t u) { return u < 0x80; }));

int SearchIndex::unitBit(Unit folded) noexcept {
  const std::uint32_t u = folded;
  if (u >= u'a' && u <= u'z') return static_cast<int>(u - u'a');
  if (u >= u'A' && u <= u'Z') return static_cast<int>(u - u'A');
  if (u >= u'0' && u <= u'9') return 26 + static_cast<int>(u - u'0');
  // Every punctuation unit with its own bit is ASCII: the other units skip
  // the search (the exact-unit table walks all 65,536 at every start-up).
  if (u < 0x80)
    for (std::size_t k = 0; k < std::size(kPunctuationBits); ++k)
      if (u == kPunctuationBits[k]) return kFirstPunctuationBit + static_cast<int>(k);
  return kFirstHashedBit + static_cast<int>(((u * 2654435761u) >> 16) % kHashedUnitBits);
}

std::uint64_t SearchIndex::unitMask(const Compatibility& compatibility, TextView units) noexcept {
  const auto& search = compatibility.searchTable();
  std::uint64_t mask = 0;
  for (const Unit u : units) mask |= std::uint64_t(1) << unitBit(static_cast<Unit>(search[u]));
  return mask;
}

std::uint64_t SearchIndex::foldedUnitMask(TextView folded) noexcept {
  std::uint64_t mask = 0;
  for (const Unit u : folded) mask |= std::uint64_t(1) << unitBit(u);
  return mask;
}

void SearchIndex::findExactUnits() const noexcept {
  // The values the table folds to; a bit reached by one of them alone
  // answers a one-unit question exactly.
  const auto& search = compatibility_->searchTable();
  std::array<std::uint64_t, 65536 / 64> seen{};
  exactUnits_.fill(-1);
  std::array<bool, 64> shared{};
  for (std::uint32_t u = 0; u < 65536; ++u) {
    const Unit f = static_cast<Unit>(search[u]);
    const std::uint64_t flag = std::uint64_t(1) << (f & 63);
    if ((seen[f >> 6] & flag) != 0) continue;
    seen[f >> 6] |= flag;
    const auto bit = static_cast<std::size_t>(unitBit(f));
    if (exactUnits_[bit] >= 0) shared[bit] = true;
    exactUnits_[bit] = f;
  }
  for (std::size_t bit = 0; bit < 64; ++bit)
    if (shared[bit]) exactUnits_[bit] = -1;
}

SearchIndex::SearchIndex(CatalogPtr catalog, std::shared_ptr<const Compatibility> compatibility)
    : catalog_(std::move(catalog)), compatibility_(std::move(compatibility)) {
  const Catalog& c = *catalog_;
  storedKeys_ = {SortKey::name, SortKey::path, SortKey::size, SortKey::modified};
  if (c.parts().createdTimes) storedKeys_.push_back(SortKey::created);
  if (c.parts().allocations) storedKeys_.push_back(SortKey::allocated);

  // Two independent halves: the orders (parent ranks, the tie-break sort and
  // the stored orders) on this thread, and the name-side tables (reverse name
  // order, per-row tables, parent prefix order) on a second calling thread.
  // Both hand their chunks to the one pool, whose workers take from either, so
  // the serial stretches of one half do not leave a core idle.
  Column<std::int32_t> reverseOrder;
  Column<std::int32_t> foldedOrder;
  std::vector<std::int32_t> nul;
  std::exception_ptr sideError;
  std::thread side([&] {
    try {
      // Both name-key sorts share one scratch, so the second reuses the
      // first one's pages instead of faulting in fresh memory.
      PrefixScratch scratch;
      reverseOrder = toColumn(NameCandidates::buildReverseOrder(c, *compatibility_, &scratch));
      foldedOrder = toColumn(NameCandidates::buildFoldedOrder(c, *compatibility_, &scratch));
      nul = buildRowTables();
      buildParentPrefixOrder();
    } catch (...) {
      sideError = std::current_exception();
    }
  });
  try {
    buildOrders();
  } catch (...) {
    side.join();
    throw;
  }
  side.join();
  if (sideError) std::rethrow_exception(sideError);

  names_ = std::make_unique<NameCandidates>(catalog_, compatibility_, orders_.front(), std::move(reverseOrder),
                                            Column<std::int32_t>::owned(std::move(nul)), std::move(foldedOrder));
}

void SearchIndex::buildOrders() {
  const Catalog& c = *catalog_;
  const Compatibility& t = *compatibility_;
  parentRanks_ = Column<std::int32_t>::owned(PathOrder::ranks(c, t));

  // Every stored order is a stable sort of the tie-break order T by its key;
  // the sorts share their working arrays rather than each faulting in
  // hundreds of megabytes of fresh memory.
  const RowOrder::TieBreak tieBreak = RowOrder::tieBreak(c, t, parentRanks_.span());
  RowOrder::Scratch scratch;
  for (SortKey key : storedKeys_)
    orders_.push_back(toColumn(RowOrder::orderFrom(c, tieBreak, key, parentRanks_.span(), &scratch)));
}

std::vector<std::int32_t> SearchIndex::buildRowTables() {
  const Catalog& c = *catalog_;
  const Compatibility& t = *compatibility_;
  const std::int32_t n = c.count();
  const std::int32_t parents = std::max(c.parentCount(), 0);
  const PathFlavor flavor = c.pathFlavor();

  // One pass over the rows for everything that is per row. Chunks are aligned
  // to 64 rows so each owns whole words of the separator bitset; per-chunk
  // lists are joined in chunk order, which keeps them ascending.
  struct ChunkState {
    std::unordered_map<TextView, std::int32_t> local;  // extension text to local id
    std::vector<TextView> texts;
    std::vector<std::int64_t> counts;
    std::vector<std::int32_t> nul;
    std::vector<std::int64_t> drives;
  };
  const Parallel::Plan plan = Parallel::plan(n, 64, kRowsPerChunk);
  std::vector<ChunkState> states(static_cast<std::size_t>(plan.chunks));
  Buffer<std::int32_t> localIds(static_cast<std::size_t>(n));
  Buffer<std::uint64_t> grams(static_cast<std::size_t>(n));
  Buffer<std::uint64_t> unitMasks(static_cast<std::size_t>(n));
  // Each unit's bit through its folded value, looked up once per unit.
  std::vector<std::uint8_t> bitOf(65536);
  for (std::uint32_t u = 0; u < 65536; ++u)
    bitOf[u] = static_cast<std::uint8_t>(unitBit(static_cast<Unit>(t.searchTable()[u])));
  std::vector<std::uint64_t> separatorWords(Bitset::wordCount(n), 0);
  std::vector<std::int32_t> rowCounts(static_cast<std::size_t>(parents), 0);
  Parallel::chunks(n, 64, kRowsPerChunk, [&](std::int64_t begin, std::int64_t end) {
    ChunkState& state = states[static_cast<std::size_t>(plan.length == 0 ? 0 : begin / plan.length)];
    TextView lastText;
    std::int32_t lastId = -1;
    std::uint32_t runParent = 0;
    std::int32_t run = 0;
    for (auto i = begin; i < end; ++i) {
      const auto row = static_cast<std::int32_t>(i);
      const TextView name = c.nameUnits(row);
      grams[static_cast<std::size_t>(i)] = gramMask(t, name);
      bool nul = false, separator = false;
      std::uint64_t unitBits = 0;
      for (Unit u : name) {
        unitBits |= std::uint64_t(1) << bitOf[u];
        nul |= u == 0;
        separator |= path_flavor::isSeparator(flavor, u);
      }
      unitMasks[static_cast<std::size_t>(i)] = unitBits;
      if (nul) state.nul.push_back(row);
      if (separator) separatorWords[static_cast<std::size_t>(i >> 6)] |= std::uint64_t(1) << (i & 63);

      const std::uint32_t parent = c.parentIndex(row);
      if (run > 0 && parent != runParent) {
        std::atomic_ref<std::int32_t>(rowCounts[runParent]).fetch_add(run, std::memory_order_relaxed);
        run = 0;
      }
      runParent = parent;
      ++run;
      if (flavor == PathFlavor::windows && isDriveName(name) && c.parentUnits(parent).empty())
        state.drives.push_back(row);

      const TextView extension = c.extensionUnits(row);
      if (lastId < 0 || extension != lastText) {
        auto [it, added] = state.local.try_emplace(extension, static_cast<std::int32_t>(state.texts.size()));
        if (added) {
          state.texts.push_back(extension);
          state.counts.push_back(0);
        }
        lastText = extension;
        lastId = it->second;
      }
      ++state.counts[static_cast<std::size_t>(lastId)];
      localIds[static_cast<std::size_t>(i)] = lastId;
    }
    if (run > 0) std::atomic_ref<std::int32_t>(rowCounts[runParent]).fetch_add(run, std::memory_order_relaxed);
  });

  // Extension ids: 0 for the empty extension, then by falling row count.
  std::unordered_map<TextView, std::int64_t> totals;
  totals[TextView()] = 0;
  for (const auto& state : states)
    for (std::size_t k = 0; k < state.texts.size(); ++k) totals[state.texts[k]] += state.counts[k];
  std::vector<std::pair<TextView, std::int64_t>> ranked(totals.begin(), totals.end());
  std::sort(ranked.begin(), ranked.end(), [](const auto& x, const auto& y) {
    if (x.first.empty() != y.first.empty()) return x.first.empty();
    if (x.second != y.second) return x.second > y.second;
    return x.first < y.first;
  });
  std::unordered_map<TextView, std::uint16_t> globalIds;
  std::vector<std::int64_t> counts;
  std::vector<Text> extensions;
  for (std::size_t k = 0; k < ranked.size(); ++k) {
    if (k < kExtensionOverflow) {
      globalIds[ranked[k].first] = static_cast<std::uint16_t>(k);
      extensions.emplace_back(ranked[k].first);
      counts.push_back(ranked[k].second);
    } else {
      if (k == kExtensionOverflow) {
        extensions.emplace_back();
        counts.push_back(0);
      }
      globalIds[ranked[k].first] = kExtensionOverflow;
      counts.back() += ranked[k].second;
    }
  }
  std::vector<std::vector<std::uint16_t>> translate(states.size());
  for (std::size_t s = 0; s < states.size(); ++s)
    for (TextView text : states[s].texts) translate[s].push_back(globalIds.at(text));
  Buffer<std::uint16_t> ids(static_cast<std::size_t>(n));
  Parallel::chunks(n, 64, kRowsPerChunk, [&](std::int64_t begin, std::int64_t end) {
    const auto& table = translate[static_cast<std::size_t>(plan.length == 0 ? 0 : begin / plan.length)];
    for (auto i = begin; i < end; ++i)
      ids[static_cast<std::size_t>(i)] = table[static_cast<std::size_t>(localIds[static_cast<std::size_t>(i)])];
  });
  extensionIds_ = toColumn(std::move(ids));
  encodedExtensions_ = Column<std::uint16_t>::owned(encodeTexts(extensions));
  extensionCounts_ = Column<std::int64_t>::owned(std::move(counts));
  nameGramMasks_ = toColumn(std::move(grams));
  nameUnitMasks_ = toColumn(std::move(unitMasks));
  separatorNameCount_ = Bitset::count(separatorWords);
  separatorNames_ = Column<std::uint64_t>::owned(std::move(separatorWords));
  parentRowCounts_ = Column<std::int32_t>::owned(std::move(rowCounts));

  std::vector<std::int32_t> nul;
  std::vector<std::int64_t> driveNames;
  for (const auto& state : states) {
    nul.insert(nul.end(), state.nul.begin(), state.nul.end());
    driveNames.insert(driveNames.end(), state.drives.begin(), state.drives.end());
  }
  driveNames_ = Column<std::int64_t>::owned(std::move(driveNames));

  std::vector<std::int64_t> driveParents;
  if (flavor == PathFlavor::windows)
    for (std::int32_t p = 0; p < parents; ++p)
      if (isDriveRoot(c.parentUnits(static_cast<std::uint32_t>(p)))) driveParents.push_back(p);
  driveParents_ = Column<std::int64_t>::owned(std::move(driveParents));

  return nul;
}

void SearchIndex::buildParentPrefixOrder() {
  const Catalog& c = *catalog_;
  const std::int32_t parents = std::max(c.parentCount(), 0);
  // Parent prefix order: slices of fold codes (0 past the end); texts that
  // fold equal fall back to raw units.
  const name_collation::FoldCodes foldCodes(*compatibility_);
  Buffer<PrefixItem> parentItems(static_cast<std::size_t>(parents));
  for (std::int32_t p = 0; p < parents; ++p) parentItems[static_cast<std::size_t>(p)].row = p;
  const char16_t* parentChars = c.parts().parentChars.data();
  const std::int32_t* parentStarts = c.parts().parentStarts.data();
  struct PrefixAccess {
    const Catalog& catalog;
    const name_collation::FoldCodes& codes;
    const char16_t* chars;
    const std::int32_t* starts;
    std::size_t units = codes.unitsPerSlice();
    std::uint64_t mask = codes.slotMask();

    PrefixSlice sliceAt(std::int32_t p, int depth) const {
      const TextView text = catalog.parentUnits(static_cast<std::uint32_t>(p));
      const std::size_t from = static_cast<std::size_t>(depth) * units;
      PrefixSlice s;
      codes.pack([&](std::size_t j) -> std::uint64_t { return from + j < text.size() ? codes.code(text[from + j]) : 0; },
                 s.high, s.low);
      return s;
    }
    void locate(std::int32_t p) const { __builtin_prefetch(starts + p); }
    void prefetch(std::int32_t p, int depth) const {
      __builtin_prefetch(chars + starts[p] + depth * static_cast<std::ptrdiff_t>(units));
    }
    bool ended(const PrefixSlice& s) const { return (s.low & mask) == 0; }
    bool finalLess(const PrefixItem& x, const PrefixItem& y) const {
      const int raw = catalog.parentUnits(static_cast<std::uint32_t>(x.row))
                          .compare(catalog.parentUnits(static_cast<std::uint32_t>(y.row)));
      return raw != 0 ? raw < 0 : x.row < y.row;
    }
  } prefixAccess{c, foldCodes, parentChars, parentStarts};
  prefixSort(parentItems, prefixAccess);
  std::vector<std::int32_t> prefixOrder(static_cast<std::size_t>(parents));
  for (std::size_t k = 0; k < prefixOrder.size(); ++k) prefixOrder[k] = parentItems[k].row;
  parentPrefixOrder_ = Column<std::int32_t>::owned(std::move(prefixOrder));
}

SearchIndex::SearchIndex(const IndexFile::Reader& reader, CatalogPtr catalog,
                         std::shared_ptr<const Compatibility> compatibility, std::string_view prefix)
    : catalog_(std::move(catalog)), compatibility_(std::move(compatibility)) {
  // Constant time whatever the record count: lengths against the counts the
  // catalog implies, never the values inside. Users of a stored number as an
  // index check it where they use it (see the header), so a damaged file
  // costs wrong answers at worst, and loading touches no page of the columns.
  const Catalog& c = *catalog_;
  const std::int64_t n = c.count();
  const std::int64_t parents = std::max(c.parentCount(), 0);
  // Files of an older layout (no value) or another one are refused whole.
  const auto layout = reader.meta().find(section(prefix, "indexLayout"));
  if (layout == reader.meta().end() || !layout->is_number_integer() || layout->get<std::int64_t>() != kLayout)
    throw KernelError::io("Unsupported index layout");
  auto exactly = [&](auto column, std::int64_t length, const std::string& name) {
    if (static_cast<std::int64_t>(column.size()) != length) invalidSection(name);
    return column;
  };
  auto atMost = [&](auto column, std::int64_t length, const std::string& name) {
    if (static_cast<std::int64_t>(column.size()) > length) invalidSection(name);
    return column;
  };

  std::string name = section(prefix, "parentRanks");
  parentRanks_ = exactly(reader.column<std::int32_t>(name), parents, name);

  storedKeys_ = {SortKey::name, SortKey::path, SortKey::size, SortKey::modified};
  if (c.parts().createdTimes) storedKeys_.push_back(SortKey::created);
  if (c.parts().allocations) storedKeys_.push_back(SortKey::allocated);
  for (SortKey key : storedKeys_) {
    name = orderSection(prefix, key);
    orders_.push_back(exactly(reader.column<std::int32_t>(name), n, name));
  }

  name = section(prefix, "extensions");
  encodedExtensions_ = reader.column<std::uint16_t>(name);
  const std::optional<TextTableShape> shape = textTableShape(encodedExtensions_);
  if (!shape) invalidSection(name);
  name = section(prefix, "extensionIds");
  extensionIds_ = exactly(reader.column<std::uint16_t>(name), n, name);
  name = section(prefix, "extensionCounts");
  extensionCounts_ = exactly(reader.column<std::int64_t>(name), static_cast<std::int64_t>(shape->count), name);

  name = section(prefix, "nameGrams");
  nameGramMasks_ = exactly(reader.column<std::uint64_t>(name), n, name);
  name = section(prefix, "nameUnits");
  nameUnitMasks_ = exactly(reader.column<std::uint64_t>(name), n, name);

  name = section(prefix, "parentPrefixOrder");
  parentPrefixOrder_ = exactly(reader.column<std::int32_t>(name), parents, name);
  name = section(prefix, "parentRowCounts");
  parentRowCounts_ = exactly(reader.column<std::int32_t>(name), parents, name);

  name = section(prefix, "driveParents");
  driveParents_ = atMost(reader.column<std::int64_t>(name), parents, name);
  name = section(prefix, "driveNames");
  driveNames_ = atMost(reader.column<std::int64_t>(name), n, name);

  name = section(prefix, "separatorNames");
  separatorNames_ = exactly(reader.column<std::uint64_t>(name), static_cast<std::int64_t>(Bitset::wordCount(n)), name);
  // No bit may name a row past the end (one word to look at).
  if (n % 64 != 0 && !separatorNames_.empty() && (separatorNames_[separatorNames_.size() - 1] >> (n % 64)) != 0)
    invalidSection(name);
  // Counted when the index was built; a damaged value is only a wrong count.
  name = section(prefix, "separatorNameCount");
  separatorNameCount_ = reader.integer(name);
  if (separatorNameCount_ < 0 || separatorNameCount_ > n) invalidSection(name);

  name = section(prefix, "nulNames");
  auto nul = atMost(reader.column<std::int32_t>(name), n, name);
  name = section(prefix, "reverseOrder");
  auto reverseOrder = exactly(reader.column<std::int32_t>(name), n, name);
  name = section(prefix, "foldedOrder");
  auto foldedOrder = exactly(reader.column<std::int32_t>(name), n, name);

  names_ = std::make_unique<NameCandidates>(catalog_, compatibility_, orders_.front(), std::move(reverseOrder),
                                            std::move(nul), std::move(foldedOrder));
}

const SearchIndex::ExtensionTables& SearchIndex::extensionTables() const {
  // Small tables over the distinct extensions (at most 65536), not per row;
  // a search that names an extension pays for them once.
  std::call_once(extensionOnce_, [&] {
    ExtensionTables& x = extensionTables_;
    if (const std::optional<TextTableShape> shape = textTableShape(encodedExtensions_))
      x.texts = decodeTexts(encodedExtensions_, *shape);
    const Compatibility& t = *compatibility_;
    x.classes.assign(x.texts.size(), -1);
    for (std::size_t id = 0; id < x.texts.size(); ++id) {
      if (id == kExtensionOverflow) continue;
      x.map.try_emplace(x.texts[id], static_cast<std::int32_t>(id));
      auto [it, added] = x.classMap.try_emplace(t.fold(x.texts[id]), static_cast<std::int32_t>(x.classMembers.size()));
      if (added) x.classMembers.emplace_back();
      x.classMembers[static_cast<std::size_t>(it->second)].push_back(static_cast<std::int32_t>(id));
      x.classes[id] = it->second;
    }
  });
  return extensionTables_;
}

std::vector<std::int32_t> SearchIndex::extensionIdsMatching(TextView extension, bool sensitive) const {
  const ExtensionTables& x = extensionTables();
  if (sensitive) {
    auto it = x.map.find(Text(extension));
    if (it == x.map.end()) return {};
    return {it->second};
  }
  auto it = x.classMap.find(compatibility_->fold(extension));
  if (it == x.classMap.end()) return {};
  return x.classMembers[static_cast<std::size_t>(it->second)];
}

bool SearchIndex::stores(SortKey key) const noexcept {
  return std::find(storedKeys_.begin(), storedKeys_.end(), key) != storedKeys_.end();
}

Column<std::int32_t> SearchIndex::order(SortKey key) const {
  if (key == SortKey::device) {
    std::lock_guard lock(deviceLock_);
    if (!deviceOrder_) {
      const auto ranks = RowOrder::labelRanks(*catalog_, *compatibility_);
      // The name order is the tie-break; its entries index the catalog's
      // columns here, so a mapped one is read through a range check (this
      // is linear work anyway, done once, on first use).
      const Column<std::int32_t>& names = orders_.front();
      std::vector<std::int32_t> tieBreak(names.size());
      const std::int32_t* from = names.data();
      const Catalog& c = *catalog_;
      Parallel::chunks(static_cast<std::int64_t>(names.size()), 1, 1 << 16, [&](std::int64_t begin, std::int64_t end) {
        for (auto i = begin; i < end; ++i) tieBreak[static_cast<std::size_t>(i)] = c.hasRow(from[i]) ? from[i] : 0;
      });
      deviceOrder_ =
          toColumn(RowOrder::orderFrom(*catalog_, tieBreak, SortKey::device, parentRanks_.span(), ranks));
    }
    return *deviceOrder_;
  }
  for (std::size_t k = 0; k < storedKeys_.size(); ++k)
    if (storedKeys_[k] == key) return orders_[k];
  return orders_.front();  // name, none, or a column the catalog lacks
}

void SearchIndex::write(IndexFile::Writer& writer, std::string_view prefix) const {
  writer.add(section(prefix, "parentRanks"), parentRanks_);
  for (std::size_t k = 0; k < storedKeys_.size(); ++k) writer.add(orderSection(prefix, storedKeys_[k]), orders_[k]);
  writer.add(section(prefix, "extensionIds"), extensionIds_);
  writer.add(section(prefix, "extensions"), encodedExtensions_);
  writer.add(section(prefix, "nameGrams"), nameGramMasks_);
  writer.add(section(prefix, "nameUnits"), nameUnitMasks_);
  writer.add(section(prefix, "parentPrefixOrder"), parentPrefixOrder_);
  writer.add(section(prefix, "parentRowCounts"), parentRowCounts_);
  writer.add(section(prefix, "driveParents"), driveParents_);
  writer.add(section(prefix, "driveNames"), driveNames_);
  writer.add(section(prefix, "separatorNames"), separatorNames_);
  writer.add(section(prefix, "nulNames"), names_->nulNames());
  writer.add(section(prefix, "reverseOrder"), names_->reverseOrder());
  writer.add(section(prefix, "foldedOrder"), names_->foldedOrder());
  writer.add(section(prefix, "extensionCounts"), extensionCounts_);
  writer.meta()[section(prefix, "separatorNameCount")] = separatorNameCount_;
  writer.meta()[section(prefix, "indexLayout")] = kLayout;
}

}  // namespace tarv
