#include "kernel/query/plan_evaluator.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "kernel/query/name_literal.h"
#include "kernel/query/order_range.h"
#include "kernel/query/parallel.h"
#include "kernel/query/path_states.h"
#include "kernel/query/query_optimizer.h"

namespace tarv::planning {
namespace {

using Term = Query::Term;
using Step = ExecutionPlanner::Filter::Step;
using PathTerm = ExecutionPlanner::Filter::PathTerm;

// Runs the steps of one plan as bitsets over the source's rows. A pool
// (absent: every row) limits every step to its members.
class Evaluator {
 public:
  Evaluator(const SearchIndex& index, const ExecutionPlanner::Filter& filter, ExecutionPlanner::Groups& groups,
            std::int64_t minimum)
      : index_(index),
        catalog_(index.catalog()),
        table_(index.compatibility()),
        filter_(filter),
        groups_(groups),
        n_(catalog_.count()),
        minimum_(minimum),
        fold_(table_.searchTable().data()),
        names_(catalog_.parts().names.data()),
        nameStarts_(catalog_.parts().nameStarts.data()),
        nameUnits_(catalog_.parts().names.size()) {}

  Bitset run(std::uint32_t at, const Bitset* pool) {
    const Step& step = filter_.steps[at];
    switch (step.method) {
      case Method::all: return pool ? *pool : everyRow();
      case Method::none: return Bitset(n_);
      case Method::rows:
        return perRow(pool, [&](std::int32_t r) { return Query::matches(*step.term, catalog_, r, table_); });
      case Method::literal: return literal(step, pool);
      case Method::literalOr: return literalOr(step, pool);
      case Method::units: return units(step, pool);
      case Method::prefix:
      case Method::suffix: return candidates(step, pool);
      case Method::pattern: {
        const std::uint64_t* masks = index_.nameGramMasks().data();
        return perRow(pool, [&](std::int32_t r) {
          return (masks[r] & step.mask) == step.mask && Query::wildcard(*step.term, catalog_.nameUnits(r), table_);
        });
      }
      case Method::extension: return extension(step, pool);
      case Method::parent: return parent(step, pool);
      case Method::path: return path(step, pool);
      case Method::volume: {
        const auto& hits = *step.term->deviceHits;
        return perRow(pool, [&](std::int32_t r) {
          const std::uint16_t id = catalog_.deviceId(r);
          return id < hits.size() && hits[id];
        });
      }
      case Method::numeric: return numeric(step.numeric, pool);
      case Method::allOf: {
        Bitset acc = run(step.children.front(), pool);
        for (std::size_t i = 1; i < step.children.size() && !acc.none(); ++i) acc = run(step.children[i], &acc);
        return acc;
      }
      case Method::anyOf: {
        Bitset acc = run(step.children.front(), pool);
        for (std::size_t i = 1; i < step.children.size(); ++i) acc.unite(run(step.children[i], pool));
        return acc;
      }
      case Method::negate: {
        Bitset out = pool ? *pool : everyRow();
        out.subtract(run(step.children.front(), pool));
        return out;
      }
    }
    return Bitset(n_);
  }

 private:
  Bitset everyRow() const {
    Bitset all(n_);
    all.setRange(0, n_);
    return all;
  }

  // The pool's word w, or every row of word w.
  std::uint64_t poolWord(const Bitset* pool, std::int64_t w) const noexcept {
    if (pool) return pool->words()[static_cast<std::size_t>(w)];
    const std::int64_t left = n_ - (w << 6);
    return left >= 64 ? ~std::uint64_t(0) : (std::uint64_t(1) << left) - 1;
  }

  void prefetchName(std::int64_t row) const noexcept {
    const auto start = static_cast<std::uint32_t>(nameStarts_[row]);
    if (start < nameUnits_) __builtin_prefetch(names_ + start);
  }

  static std::int64_t members(const Bitset* pool) { return pool ? pool->count() : -1; }

  static bool firstUse(std::atomic<int>& uses) noexcept {
    return uses.fetch_add(1, std::memory_order_relaxed) == 0;
  }

  // Rows of the pool for which `test` holds, in parallel chunks of whole words.
  template <class Test>
  Bitset perRow(const Bitset* pool, Test test) const {
    Bitset out(n_);
    std::uint64_t* words = out.words().data();
    Parallel::chunks(n_, 64, minimum_, [&](std::int64_t begin, std::int64_t end) {
      for (std::int64_t w = begin >> 6; w << 6 < end; ++w) {
        std::uint64_t candidates = poolWord(pool, w);
        std::uint64_t bits = 0;
        if (candidates == ~std::uint64_t(0)) {
          // A full word: every row in turn, without branching on the pool.
          const auto first = static_cast<std::int32_t>(w << 6);
          for (int b = 0; b < 64; ++b) bits |= std::uint64_t(test(first + b) ? 1 : 0) << b;
          words[w] = bits;
          continue;
        }
        while (candidates != 0) {
          const int b = std::countr_zero(candidates);
          candidates &= candidates - 1;
          if (test(static_cast<std::int32_t>((w << 6) + b))) bits |= std::uint64_t(1) << b;
        }
        words[w] = bits;
      }
    });
    return out;
  }

  // Rows whose name-bigram mask holds `mask` and whose name-unit mask holds
  // `unitMask`, in the pool, then `test`. With `anyOf` (an or of literals,
  // each a bigram mask and a unit mask), a row survives when it holds both
  // masks of any one literal instead.
  template <class Test>
  Bitset maskScan(const Bitset* pool, std::uint64_t mask, Test test, std::uint64_t unitMask = 0,
                  std::span<const std::array<std::uint64_t, 2>> anyOf = {}) const {
    const std::uint64_t* masks = index_.nameGramMasks().data();
    const std::uint64_t* unitMasks = index_.nameUnitMasks().data();
    Bitset out(n_);
    std::uint64_t* words = out.words().data();
    Parallel::chunks(n_, 64, minimum_, [&](std::int64_t begin, std::int64_t end) {
      for (std::int64_t w = begin >> 6; w << 6 < end; ++w) {
        const std::int64_t first = w << 6;
        std::uint64_t candidates = poolWord(pool, w);
        if (candidates == 0) {
          words[w] = 0;
          continue;
        }
        // Branch-free over the word's masks, then the few survivors.
        std::uint64_t held = 0;
        const std::int64_t count = std::min<std::int64_t>(64, n_ - first);
        if (!anyOf.empty()) {
          for (std::int64_t i = 0; i < count; ++i) {
            const std::uint64_t m = masks[first + i];
            const std::uint64_t u = unitMasks[first + i];
            bool any = false;
            for (const auto& x : anyOf) any |= ((m & x[0]) == x[0]) & ((u & x[1]) == x[1]);
            held |= std::uint64_t(any) << i;
          }
        } else if (unitMask == 0) {
          for (std::int64_t i = 0; i < count; ++i) held |= std::uint64_t((masks[first + i] & mask) == mask) << i;
        } else {
          for (std::int64_t i = 0; i < count; ++i)
            held |= std::uint64_t(((masks[first + i] & mask) == mask) & ((unitMasks[first + i] & unitMask) == unitMask))
                    << i;
        }
        candidates &= held;
        // The survivors' names lie scattered in the names column, one cache
        // miss each: ask for all of them before reading the first, so the
        // misses overlap instead of following one another.
        for (std::uint64_t c = candidates; c != 0; c &= c - 1) prefetchName(first + std::countr_zero(c));
        std::uint64_t bits = 0;
        while (candidates != 0) {
          const int b = std::countr_zero(candidates);
          candidates &= candidates - 1;
          if (test(static_cast<std::int32_t>(first + b))) bits |= std::uint64_t(1) << b;
        }
        words[w] = bits;
      }
    });
    return out;
  }

  // The merged numeric filter with its columns resolved once: per row a type
  // bit and, per field, one load and two comparisons, all inlined.
  // One field of the merged numeric filter, as a branch-free test: a value
  // passes when it is unknown if unknown values are wanted, and lies in
  // low ..= low + span if known ones are (both wanted: nothing passes).
  struct NumericField {
    const std::uint64_t* values = nullptr;
    bool wantUnknown = false;
    bool wantKnown = false;
    std::uint64_t low = 0;
    std::uint64_t span = 0;
    SortKey key = SortKey::none;  // the stored order of the field's column
    Query::Bounds bounds;
  };

  static bool passesField(const NumericField& f, std::int32_t r) noexcept {
    const std::uint64_t v = f.values[r];
    const bool unknown = v == kUnknown64;
    return (!f.wantUnknown || unknown) & (!f.wantKnown || (!unknown & (v - f.low <= f.span)));
  }

  template <std::size_t N>
  Bitset numericRows(const std::array<NumericField, 4>& fields, int types, const Bitset* pool) const {
    const std::uint32_t* tags = catalog_.parts().parentTags.data();
    return perRow(pool, [&](std::int32_t r) {
      const unsigned folder = (tags[r] & kFolderBit) != 0 ? 1u : 0u;
      bool ok = ((static_cast<unsigned>(types) >> folder) & 1u) != 0;
      for (std::size_t i = 0; i < N; ++i) ok &= passesField(fields[i], r);
      return ok;
    });
  }

  // The merged numeric filter with its columns resolved once: per row a type
  // bit and, per field, one load and two comparisons, without branches. A
  // field whose column the catalog lacks (every value unknown) is decided
  // here, once.
  Bitset numeric(const Query::NumericFilter& filter, const Bitset* pool) const {
    const Catalog::Parts& parts = catalog_.parts();
    std::array<NumericField, 4> fields{};
    std::size_t count = 0;
    bool never = false;
    auto add = [&](int bit, const std::uint64_t* values, const Query::Bounds& bounds, SortKey key) {
      if ((filter.fields & bit) == 0) return;
      if (bounds.known && bounds.high < bounds.low) never = true;
      if (values == nullptr) {
        never = never || bounds.known;  // an unknown value is never in range
        return;                         // and is always unknown
      }
      fields[count++] = {values, bounds.unknown, bounds.known, bounds.low, bounds.high - bounds.low, key, bounds};
    };
    add(1, parts.sizes.data(), filter.size, SortKey::size);
    add(2, parts.modifiedTimes.data(), filter.modified, SortKey::modified);
    add(4, parts.createdTimes ? parts.createdTimes->data() : nullptr, filter.created, SortKey::created);
    add(8, parts.allocations ? parts.allocations->data() : nullptr, filter.allocated, SortKey::allocated);
    if (never || (filter.types & 3) == 0) return Bitset(n_);
    if (count == 0) return typedRows(filter.types, pool);
    if (std::optional<Bitset> rows = numericRuns(fields, count, filter.types, pool)) return std::move(*rows);
    switch (count) {
      case 0: return numericRows<0>(fields, filter.types, pool);
      case 1: return numericRows<1>(fields, filter.types, pool);
      case 2: return numericRows<2>(fields, filter.types, pool);
      case 3: return numericRows<3>(fields, filter.types, pool);
      default: return numericRows<4>(fields, filter.types, pool);
    }
  }

  const Bitset& folders() const {
    std::call_once(groups_.folderOnce, [&] {
      const std::uint32_t* tags = catalog_.parts().parentTags.data();
      groups_.folders = perRow(nullptr, [&](std::int32_t r) { return (tags[r] & kFolderBit) != 0; });
    });
    return groups_.folders;
  }

  // Rows of the record types in `types` (1 files, 2 folders) within the
  // pool. The folders are a bitset kept by the planner, made by the first
  // question that needs it (one pass over the record tags, no dearer than
  // the test it replaces), so file: and folder: cost a copy afterwards.
  Bitset typedRows(int types, const Bitset* pool) const {
    if ((types & 3) == 3) return pool ? *pool : everyRow();
    Bitset out = folders();
    if ((types & 3) == 1) out.complement(n_);
    if (pool) out.intersect(*pool);
    return out;
  }

  // The numeric filter through a stored order: the rows of one field's
  // order whose values lie in its bounds are one run per record type
  // (order_range.h), found by binary search; the field whose runs are
  // shortest is taken and any other field tested on those rows only.
  // Absent when no field has a stored order or the runs hold so many rows
  // that scattering them costs more than a scan of the columns.
  std::optional<Bitset> numericRuns(const std::array<NumericField, 4>& fields, std::size_t count, int types,
                                    const Bitset* pool) const {
    const auto folders = static_cast<std::int64_t>(catalog_.folderCount());
    std::size_t best = count;
    order_range::Runs runs;
    Column<std::int32_t> order;
    for (std::size_t i = 0; i < count; ++i) {
      if (!index_.stores(fields[i].key)) continue;
      Column<std::int32_t> candidate = index_.order(fields[i].key);
      if (static_cast<std::int64_t>(candidate.size()) != n_) continue;
      const order_range::Runs found = order_range::find(
          candidate.span(), {fields[i].values, static_cast<std::size_t>(n_)}, folders, fields[i].bounds, types);
      if (best == count || found.size() < runs.size()) {
        best = i;
        runs = found;
        order = std::move(candidate);
      }
    }
    if (best == count) return std::nullopt;
    const std::int64_t size = runs.size();
    if (size > n_ / kRunScanRatio) return std::nullopt;
    if (pool && size > 0 && pool->count() < size) return std::nullopt;
    std::array<NumericField, 4> others{};
    std::size_t otherCount = 0;
    for (std::size_t i = 0; i < count; ++i)
      if (i != best) others[otherCount++] = fields[i];
    auto rowsOf = [&](const order_range::Run& run) {
      return order.span().subspan(static_cast<std::size_t>(run.begin), static_cast<std::size_t>(run.size()));
    };
    const std::array<std::span<const std::int32_t>, 2> lists = {rowsOf(runs.folders), rowsOf(runs.files)};
    Bitset out = scatter(lists, [&](std::int32_t r) {
      bool ok = true;
      for (std::size_t i = 0; i < otherCount; ++i) ok &= passesField(others[i], r);
      return ok;
    });
    if (pool) out.intersect(*pool);
    return out;
  }

  // Runs holding more than rows / kRunScanRatio rows are scanned instead:
  // a scattered bit costs a few times a sequential column read.
  static constexpr std::int64_t kRunScanRatio = 2;

  // The rows of `lists` (in any order) that pass `test`, as a bitset. Each
  // chunk of entries fills a bitset of its own, one chunk per worker, and
  // the bitsets are united at the end: the rows are scattered, so chunks
  // writing one bitset would share words and need an atomic write per row.
  template <class Test>
  Bitset scatter(std::span<const std::span<const std::int32_t>> lists, Test test) const {
    std::vector<std::int64_t> starts{0};
    for (const auto list : lists) starts.push_back(starts.back() + static_cast<std::int64_t>(list.size()));
    const std::int64_t size = starts.back();
    const std::int64_t workers = Parallel::workers();
    const std::int64_t minimum = std::max<std::int64_t>(minimum_, (size + workers - 1) / workers);
    const Parallel::Plan plan = Parallel::plan(size, 1, minimum);
    std::vector<Bitset> parts(static_cast<std::size_t>(plan.serial ? 1 : plan.chunks));
    Parallel::chunks(size, 1, minimum, [&](std::int64_t begin, std::int64_t end) {
      Bitset& part = parts[plan.serial ? 0 : static_cast<std::size_t>(begin / plan.length)];
      part = Bitset(n_);
      std::uint64_t* words = part.words().data();
      auto list = static_cast<std::size_t>(std::upper_bound(starts.begin(), starts.end(), begin) - starts.begin() - 1);
      for (std::int64_t i = begin; i < end; ++list) {
        const std::int32_t* rows = lists[list].data();
        const std::int64_t first = starts[list];
        const std::int64_t stop = std::min(end, starts[list + 1]);
        for (; i < stop; ++i) {
          const std::int32_t r = rows[i - first];
          // An entry of a damaged file that names no row is no member.
          if (static_cast<std::uint64_t>(r) >= static_cast<std::uint64_t>(n_) || !test(r)) continue;
          words[r >> 6] |= std::uint64_t(1) << (r & 63);
        }
      }
    });
    Bitset out = std::move(parts.front());
    if (out.words().empty()) out = Bitset(n_);
    for (std::size_t c = 1; c < parts.size(); ++c) out.unite(parts[c]);
    return out;
  }

  Bitset literal(const Step& step, const Bitset* pool) const {
    const Term& term = *step.term;
    const TextView text = term.text;
    if (term.whole)
      return maskScan(
          pool, step.mask, [&](std::int32_t r) { return Query::textMatches(term, catalog_.nameUnits(r), table_); },
          step.unitMask);
    if (!step.firsts.empty() && step.firsts.front()) {
      const name_literal::UnitSet& first = *step.firsts.front();
      return maskScan(
          pool, step.mask,
          [&](std::int32_t r) { return name_literal::contains(catalog_.nameUnits(r), text, first, fold_); },
          step.unitMask);
    }
    const bool sensitive = term.sensitive;
    return maskScan(
        pool, step.mask,
        [&](std::int32_t r) { return name_literal::contains(catalog_.nameUnits(r), text, sensitive, fold_); },
        step.unitMask);
  }

  Bitset literalOr(const Step& step, const Bitset* pool) const {
    const MultiLiteralOr& alternatives = *step.term->literalOr;
    const std::uint64_t* masks = index_.nameGramMasks().data();
    const std::uint64_t* unitMasks = index_.nameUnitMasks().data();
    // The rows holding both masks of some literal: far fewer than those
    // holding the bigrams all literals share (often none), and read in the
    // same pass over the mask columns.
    std::vector<std::array<std::uint64_t, 2>> each;
    for (const MultiLiteralOr::Literal& literal : alternatives.literals) each.push_back({literal.mask, literal.units});
    if (each.size() > kMaxMaskAlternatives) each.clear();
    return maskScan(pool, alternatives.commonMask, [&](std::int32_t r) {
      const std::uint64_t m = masks[r];
      const std::uint64_t u = unitMasks[r];
      const TextView name = catalog_.nameUnits(r);
      for (std::size_t i = 0; i < alternatives.literals.size(); ++i) {
        const MultiLiteralOr::Literal& literal = alternatives.literals[i];
        if ((m & literal.mask) != literal.mask || (u & literal.units) != literal.units) continue;
        const auto& first = step.firsts[i];
        if (first ? name_literal::contains(name, literal.text, *first, fold_)
                  : name_literal::contains(name, literal.text, literal.sensitive, fold_))
          return true;
      }
      return false;
    }, 0, each);
  }

  // Literals of an or whose masks are tested one by one per row; beyond
  // this the bigrams all literals share decide which names are read.
  static constexpr std::size_t kMaxMaskAlternatives = 8;

  // Rows of the pool whose name-unit mask has `bit`: 8 bytes a row, no name.
  Bitset unitBitRows(int bit, const Bitset* pool) const {
    const std::uint64_t* masks = index_.nameUnitMasks().data();
    Bitset out(n_);
    std::uint64_t* words = out.words().data();
    Parallel::chunks(n_, 64, minimum_, [&](std::int64_t begin, std::int64_t end) {
      for (std::int64_t w = begin >> 6; w << 6 < end; ++w) {
        const std::int64_t first = w << 6;
        const std::uint64_t candidates = poolWord(pool, w);
        if (candidates == 0) {
          words[w] = 0;
          continue;
        }
        std::uint64_t held = 0;
        const std::int64_t count = std::min<std::int64_t>(64, n_ - first);
        for (std::int64_t i = 0; i < count; ++i) held |= ((masks[first + i] >> bit) & 1) << i;
        words[w] = held & candidates;
      }
    });
    return out;
  }

  Bitset units(const Step& step, const Bitset* pool) const {
    if (step.unitBit >= 0) return unitBitRows(step.unitBit, pool);
    // A sparse pool is cheaper to test row by row than to scan all names.
    if (pool && pool->count() * 8 < n_) {
      const Term& term = *step.term;
      return perRow(pool, [&](std::int32_t r) {
        return name_literal::contains(catalog_.nameUnits(r), term.text, term.sensitive, fold_);
      });
    }
    Bitset out(n_);
    std::uint64_t* words = out.words().data();
    const std::uint64_t* poolWords = pool ? pool->words().data() : nullptr;
    Parallel::chunks(n_, 64, minimum_, [&](std::int64_t begin, std::int64_t end) {
      name_literal::scanUnits(catalog_, step.units, begin, end, poolWords, words);
    });
    return out;
  }

  // Sets the rows of `rows` that are in the pool and pass `test`; chunks
  // share words, so bits are set atomically.
  template <class Test>
  void setCandidates(std::span<const std::int32_t> rows, const Bitset* pool, Bitset& out, Test test) const {
    std::uint64_t* words = out.words().data();
    const std::uint64_t* poolWords = pool ? pool->words().data() : nullptr;
    Parallel::chunks(static_cast<std::int64_t>(rows.size()), 1, minimum_, [&](std::int64_t begin, std::int64_t end) {
      for (auto i = begin; i < end; ++i) {
        const std::int32_t r = rows[static_cast<std::size_t>(i)];
        // Lists mapped from an index file are not checked at load: an entry
        // past the rows (a damaged file) is skipped, not looked up.
        if (static_cast<std::uint64_t>(r) >= static_cast<std::uint64_t>(n_)) continue;
        const std::uint64_t bit = std::uint64_t(1) << (r & 63);
        if (poolWords && (poolWords[r >> 6] & bit) == 0) continue;
        if (!test(r)) continue;
        std::atomic_ref<std::uint64_t>(words[r >> 6]).fetch_or(bit, std::memory_order_relaxed);
      }
    });
  }

  // Candidates from the name order or the reversed-name order, then the
  // term's own rule on each; names holding NUL units are tested on their own.
  Bitset candidates(const Step& step, const Bitset* pool) const {
    const Term& term = *step.term;
    auto test = [&](std::int32_t r) { return Query::textMatches(term, catalog_.nameUnits(r), table_); };
    if (pool && pool->count() < step.estimate) return perRow(pool, test);
    const NameCandidates& names = *index_.names();
    const Column<std::int32_t>& order = step.method == Method::suffix ? names.reverseOrder()
                                        : step.folded                 ? names.foldedOrder()
                                                                      : names.nameOrder();
    Bitset out(n_);
    for (const NameCandidates::Range& range : step.ranges) {
      if (range.size() <= 0) continue;
      const std::span<const std::int32_t> rows(order.data() + range.begin, static_cast<std::size_t>(range.size()));
      if (step.exact) setCandidates(rows, pool, out, [](std::int32_t) { return true; });
      else setCandidates(rows, pool, out, test);
    }
    setCandidates(names.nulNames().span(), pool, out, test);
    return out;
  }

  Bitset extension(const Step& step, const Bitset* pool) const {
    const Term& term = *step.term;
    if (pool && pool->count() < step.estimate)
      return perRow(pool, [&](std::int32_t r) { return Query::matches(term, catalog_, r, table_); });
    const auto& hits = *term.extensionHits;
    if (firstUse(groups_.extensionUses)) {
      const std::uint16_t* ids = index_.extensionIds().data();
      std::vector<std::uint8_t> wanted(SearchIndex::kExtensionOverflow, 0);
      for (std::size_t id = 0; id < hits.size() && id < wanted.size(); ++id) wanted[id] = hits[id] ? 1 : 0;
      return perRow(pool, [&](std::int32_t r) {
        const std::uint16_t id = ids[r];
        if (id >= SearchIndex::kExtensionOverflow) return Query::matches(term, catalog_, r, table_);
        return wanted[id] != 0 && !catalog_.isDirectory(r);
      });
    }
    std::call_once(groups_.extensionOnce, [&] {
      const std::uint16_t* ids = index_.extensionIds().data();
      groups_.byExtension = RowGroups::build(static_cast<std::int32_t>(n_), 65536, [&](std::int32_t r) { return ids[r]; });
    });
    // The groups' rows, then the folders and the rows outside the pool
    // taken out word by word.
    std::vector<std::span<const std::int32_t>> lists;
    for (std::size_t id = 0; id < hits.size() && id < SearchIndex::kExtensionOverflow; ++id)
      if (hits[id]) lists.push_back(groups_.byExtension.of(id));
    Bitset out = scatter(lists, [](std::int32_t) { return true; });
    out.subtract(folders());
    if (pool) out.intersect(*pool);
    if (index_.hasOverflowExtensions())
      setCandidates(groups_.byExtension.of(SearchIndex::kExtensionOverflow), pool, out,
                    [&](std::int32_t r) { return Query::matches(term, catalog_, r, table_); });
    return out;
  }

  void ensureParents() const {
    std::call_once(groups_.parentOnce, [&] {
      groups_.byParent = RowGroups::build(static_cast<std::int32_t>(n_),
                                          static_cast<std::size_t>(std::max(catalog_.parentCount(), 0)),
                                          [&](std::int32_t r) { return catalog_.parentIndex(r); });
    });
  }

  Bitset parent(const Step& step, const Bitset* pool) const {
    const auto& hits = *step.term->parentHits;
    if (pool && pool->count() < step.estimate)
      return perRow(pool, [&](std::int32_t r) { return static_cast<bool>(hits[catalog_.parentIndex(r)]); });
    if (firstUse(groups_.parentUses))
      return perRow(pool, [&](std::int32_t r) {
        const auto p = static_cast<std::size_t>(catalog_.parentIndex(r));
        return p < hits.size() && hits[p];
      });
    ensureParents();
    std::vector<std::span<const std::int32_t>> lists;
    for (std::size_t p = 0; p < hits.size(); ++p)
      if (hits[p]) lists.push_back(groups_.byParent.of(p));
    Bitset out = scatter(lists, [](std::int32_t) { return true; });
    if (pool) out.intersect(*pool);
    return out;
  }

  // The states of the parents a path term needs: of every parent, or, for
  // a pool of few rows, only of its rows' parents (kUnknownState elsewhere),
  // walked in row order so that neighbouring parents share their starts.
  std::vector<std::int32_t> statesFor(const PathTerm& term, const Bitset* pool) const {
    const auto parents = static_cast<std::size_t>(std::max(catalog_.parentCount(), 0));
    if (pool == nullptr || pool->count() * kSparsePathRatio >= static_cast<std::int64_t>(parents))
      return parentStates(catalog_, table_, term);
    std::vector<std::int32_t> states(parents, kUnknownState);
    ParentStateWalker walker(catalog_, table_, term);
    pool->forEach([&](std::int64_t r) {
      const std::uint32_t p = catalog_.parentIndex(static_cast<std::int32_t>(r));
      if (states[p] == kUnknownState) states[p] = walker.stateOf(p);
    });
    return states;
  }
  // Path terms whose open parents hold at most rows / kPathGroupRatio rows
  // take them from the rows grouped by parent: a scattered row costs about
  // what a scan spends on two rows.
  static constexpr std::int64_t kPathGroupRatio = 2;

  // A pool of fewer rows than parents / kSparsePathRatio has its parents'
  // states computed on their own: each costs about a parent text's walk.
  static constexpr std::int64_t kSparsePathRatio = 2;

  Bitset path(const Step& step, const Bitset* pool) const {
    const PathTerm& term = filter_.paths[step.path];
    const std::vector<std::int32_t> parentState = statesFor(term, pool);
    const std::int32_t* states = parentState.data();
    auto test = [&](std::int32_t r) { return ExecutionPlanner::Filter::pathMatches(term, states, index_, r); };
    if (parentState.empty()) return Bitset(n_);  // no parent, so no row to hold the text
    if (!term.needsSeparator) return perRow(pool, test);
    // A row whose parent leaves only parts that need a separator from the
    // name matches only if its name holds one: most rows are decided by
    // their parent's state and one bit, without reading the name.
    const std::span<const std::uint64_t> separatorWords = index_.separatorNames();
    // Per parent, one byte says what its rows need, so the per-row lookups
    // stay within a table a quarter the size of the states.
    enum : std::uint8_t { kNo, kYes, kRead, kSeparatorThenRead };
    std::vector<std::uint8_t> verdicts(parentState.size());
    for (std::size_t p = 0; p < verdicts.size(); ++p) {
      const std::int32_t state = parentState[p];
      // A parent left unknown has no row in the pool.
      verdicts[p] = state == kFound                       ? kYes
                    : state == kCut || state == kUnknownState ? kNo
                    : state == 0 || term.separatorBound[static_cast<std::size_t>(state)] ? kSeparatorThenRead
                                                                                           : kRead;
    }
    const std::uint8_t* verdictOf = verdicts.data();
    auto separatorTest = [&](std::int32_t r) {
      const std::uint8_t verdict = verdictOf[catalog_.parentIndex(r)];
      if (verdict <= kYes) return verdict == kYes;
      // Words missing from a damaged file say nothing: the row is read.
      const auto w = static_cast<std::size_t>(r >> 6);
      if (verdict == kSeparatorThenRead && w < separatorWords.size() && (separatorWords[w] >> (r & 63) & 1) == 0)
        return false;
      return ExecutionPlanner::Filter::pathMatches(term, states, index_, r);
    };
    // Only rows whose parent holds the text, rows whose parent leaves a part
    // that a name without separators can finish, and rows whose name holds
    // a separator can match.
    auto open = [&](std::int32_t state) {
      return state == kFound || (state > 0 && !term.separatorBound[static_cast<std::size_t>(state)]);
    };
    std::int64_t pending = 0;
    const auto& counts = index_.parentRowCounts();
    for (std::size_t p = 0; p < parentState.size(); ++p)
      if (open(parentState[p])) pending += p < counts.size() ? counts[p] : n_;
    if (pending > n_ / kPathGroupRatio || (pool && pool->count() < pending) || firstUse(groups_.parentUses))
      return perRow(pool, separatorTest);
    ensureParents();
    // The rows of parents holding the text are members as they are,
    // scattered per worker; those of parents leaving a part pending are read.
    std::vector<std::span<const std::int32_t>> found;
    for (std::size_t p = 0; p < parentState.size(); ++p)
      if (parentState[p] == kFound) found.push_back(groups_.byParent.of(p));
    Bitset out = scatter(found, [](std::int32_t) { return true; });
    if (pool) out.intersect(*pool);
    for (std::size_t p = 0; p < parentState.size(); ++p)
      if (parentState[p] != kFound && open(parentState[p])) setCandidates(groups_.byParent.of(p), pool, out, test);
    // Rows with a separator in the name, whatever their parent.
    const std::span<const std::uint64_t> separators = index_.separatorNames();
    Bitset named(std::vector<std::uint64_t>(separators.begin(), separators.end()));
    named.words().resize(Bitset::wordCount(n_), 0);
    // Bits past the last row (a damaged file) name no row.
    if (n_ % 64 != 0 && !named.words().empty()) named.words().back() &= (std::uint64_t(1) << (n_ % 64)) - 1;
    if (pool) named.intersect(*pool);
    out.unite(perRow(&named, test));
    return out;
  }

  const SearchIndex& index_;
  const Catalog& catalog_;
  const Compatibility& table_;
  const ExecutionPlanner::Filter& filter_;
  ExecutionPlanner::Groups& groups_;
  std::int64_t n_;
  std::int64_t minimum_;
  const std::uint16_t* fold_;
  const char16_t* names_;
  const std::int32_t* nameStarts_;
  std::size_t nameUnits_;
};

}  // namespace

Bitset evaluate(const SearchIndex& index, const ExecutionPlanner::Filter& filter, ExecutionPlanner::Groups& groups,
                std::int64_t minimum) {
  return Evaluator(index, filter, groups, minimum).run(0, nullptr);
}

}  // namespace tarv::planning
