#include "kernel/query/bitset.h"

#include <algorithm>

namespace tarv {

void Bitset::setRange(std::int64_t begin, std::int64_t end) noexcept {
  if (begin >= end) return;
  auto first = static_cast<std::size_t>(begin >> 6);
  auto last = static_cast<std::size_t>((end - 1) >> 6);
  const std::uint64_t head = ~std::uint64_t(0) << (begin & 63);
  const std::uint64_t tail = ~std::uint64_t(0) >> (63 - ((end - 1) & 63));
  if (first == last) {
    words_[first] |= head & tail;
    return;
  }
  words_[first] |= head;
  std::fill(words_.begin() + static_cast<std::ptrdiff_t>(first) + 1, words_.begin() + static_cast<std::ptrdiff_t>(last),
            ~std::uint64_t(0));
  words_[last] |= tail;
}

namespace {

std::int64_t countWords(std::span<const std::uint64_t> words) noexcept {
  std::int64_t total = 0;
  for (auto w : words) total += std::popcount(w);
  return total;
}

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
// The baseline x86-64 target has no population-count instruction, so the
// portable loop calls a library routine per word (about 20 instructions); a
// count of a 7.9 M-row set is 124,000 words. Every x86-64 processor of the
// last fifteen years has the instruction: use it when the processor says so.
__attribute__((target("popcnt"))) std::int64_t countWordsWithInstruction(std::span<const std::uint64_t> words) noexcept {
  std::int64_t total = 0;
  for (auto w : words) total += __builtin_popcountll(w);
  return total;
}

const bool kHasPopcount = [] {
  __builtin_cpu_init();  // this runs among the static constructors
  return __builtin_cpu_supports("popcnt") != 0;
}();
#endif

}  // namespace

std::int64_t Bitset::count(std::span<const std::uint64_t> words) noexcept {
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
  if (kHasPopcount) return countWordsWithInstruction(words);
#endif
  return countWords(words);
}

bool Bitset::none() const noexcept {
  return std::all_of(words_.begin(), words_.end(), [](std::uint64_t w) { return w == 0; });
}

void Bitset::unite(std::span<const std::uint64_t> other) noexcept {
  const std::size_t n = std::min(words_.size(), other.size());
  for (std::size_t i = 0; i < n; ++i) words_[i] |= other[i];
}

void Bitset::intersect(std::span<const std::uint64_t> other) noexcept {
  const std::size_t n = std::min(words_.size(), other.size());
  for (std::size_t i = 0; i < n; ++i) words_[i] &= other[i];
  std::fill(words_.begin() + static_cast<std::ptrdiff_t>(n), words_.end(), 0);
}

void Bitset::subtract(std::span<const std::uint64_t> other) noexcept {
  const std::size_t n = std::min(words_.size(), other.size());
  for (std::size_t i = 0; i < n; ++i) words_[i] &= ~other[i];
}

void Bitset::complement(std::int64_t rows) noexcept {
  const std::size_t full = rows <= 0 ? 0 : static_cast<std::size_t>(rows >> 6);
  for (std::size_t i = 0; i < words_.size(); ++i) {
    if (i < full) {
      words_[i] = ~words_[i];
    } else if (i == full && rows > 0 && (rows & 63) != 0) {
      words_[i] = ~words_[i] & ((std::uint64_t(1) << (rows & 63)) - 1);
    } else {
      words_[i] = 0;
    }
  }
}

std::vector<std::int32_t> Bitset::rows() const {
  std::vector<std::int32_t> out;
  out.reserve(static_cast<std::size_t>(count()));
  forEach([&](std::int64_t row) { out.push_back(static_cast<std::int32_t>(row)); });
  return out;
}

}  // namespace tarv
