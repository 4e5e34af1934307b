#pragma once
// Bitset: a set of row numbers as 64-bit words; row r is bit (r mod 64) of
// word (r div 64). Parallel evaluation fills one with chunks aligned to 64
// rows, so each chunk owns whole words and no two chunks share one.
//
// A value type that owns its words. The binary operations also take plain
// word spans, so sets stored in a mapped index file combine without copying.
// Not synchronised: concurrent writers must touch disjoint words.

#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace tarv {

class Bitset {
 public:
  Bitset() = default;
  // An empty set able to hold rows 0 ..< rows.
  explicit Bitset(std::int64_t rows) : words_(wordCount(rows), 0) {}
  explicit Bitset(std::vector<std::uint64_t> words) : words_(std::move(words)) {}

  static std::size_t wordCount(std::int64_t rows) noexcept {
    return rows <= 0 ? 0 : static_cast<std::size_t>((rows + 63) / 64);
  }

  std::vector<std::uint64_t>& words() noexcept { return words_; }
  const std::vector<std::uint64_t>& words() const noexcept { return words_; }
  std::span<const std::uint64_t> view() const noexcept { return words_; }

  // Rows must lie within the words (unchecked).
  void set(std::int64_t row) noexcept { words_[static_cast<std::size_t>(row >> 6)] |= bit(row); }
  void reset(std::int64_t row) noexcept { words_[static_cast<std::size_t>(row >> 6)] &= ~bit(row); }
  bool test(std::int64_t row) const noexcept { return (words_[static_cast<std::size_t>(row >> 6)] & bit(row)) != 0; }
  static bool test(std::span<const std::uint64_t> words, std::int64_t row) noexcept {
    return (words[static_cast<std::size_t>(row >> 6)] & bit(row)) != 0;
  }
  // Sets rows begin ..< end.
  void setRange(std::int64_t begin, std::int64_t end) noexcept;

  std::int64_t count() const noexcept { return count(words_); }
  static std::int64_t count(std::span<const std::uint64_t> words) noexcept;
  bool none() const noexcept;

  // In place, word by word. Words past the end of `other` count as empty: a
  // union or difference leaves them, an intersection clears them.
  void unite(std::span<const std::uint64_t> other) noexcept;
  void intersect(std::span<const std::uint64_t> other) noexcept;
  void subtract(std::span<const std::uint64_t> other) noexcept;
  void unite(const Bitset& other) noexcept { unite(other.view()); }
  void intersect(const Bitset& other) noexcept { intersect(other.view()); }
  void subtract(const Bitset& other) noexcept { subtract(other.view()); }
  // Flips rows 0 ..< rows and clears every bit at or past `rows`.
  void complement(std::int64_t rows) noexcept;

  // Calls f(row) for every member in ascending order.
  template <class F>
  void forEach(F&& f) const {
    forEach(words_, 0, words_.size(), f);
  }
  // The same over words [firstWord, endWord) of any word span.
  template <class F>
  static void forEach(std::span<const std::uint64_t> words, std::size_t firstWord, std::size_t endWord, F&& f) {
    for (std::size_t w = firstWord; w < endWord; ++w) {
      std::uint64_t bits = words[w];
      while (bits != 0) {
        f(static_cast<std::int64_t>(w * 64 + static_cast<std::size_t>(std::countr_zero(bits))));
        bits &= bits - 1;
      }
    }
  }
  // The members in ascending order.
  std::vector<std::int32_t> rows() const;

  friend bool operator==(const Bitset& a, const Bitset& b) { return a.words_ == b.words_; }

 private:
  static std::uint64_t bit(std::int64_t row) noexcept { return std::uint64_t(1) << (row & 63); }
  std::vector<std::uint64_t> words_;
};

}  // namespace tarv
