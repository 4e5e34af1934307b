#pragma once
// ExactDecimal: a decimal number held exactly as sign, decimal digits and a
// power-of-ten exponent, so that size operands such as "1.5kb" or "2e3mb" are
// turned into bytes without any floating-point rounding. A plain value type;
// immutable after construction and safe to share between threads.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "kernel/base/text.h"

namespace tarv {

class ExactDecimal {
 public:
  // The value (negative ? -1 : 1) * digits * 10^exponent, where `digits` are
  // decimal digit values 0..9, most significant first. The number is kept
  // normalised: no leading zeros, trailing zeros folded into the exponent, and
  // zero has no digits at all. Exponents are clamped to +-kExponentLimit,
  // which is far beyond any value that still fits in 64 bits.
  ExactDecimal(bool negative, std::vector<std::uint8_t> digits, std::int64_t exponent);
  ExactDecimal() = default;

  static constexpr std::int64_t kExponentLimit = 1'000'000'000'000'000;  // 10^15

  // Reads a number at `position` in `text`: an optional "+" or "-"; digits
  // optionally followed by "." and more digits, or "." followed by at least one
  // digit; then an optional exponent ("e" or "E", optional sign, at least one
  // digit; without a digit the "e" is left unread). On success advances
  // `position` past the number; without a number returns nullopt and leaves
  // `position` unchanged. Never throws; linear in the units read.
  static std::optional<ExactDecimal> read(TextView text, std::size_t& position);

  bool negative() const noexcept { return negative_; }
  const std::vector<std::uint8_t>& digits() const noexcept { return digits_; }
  std::int64_t exponent() const noexcept { return exponent_; }
  bool isZero() const noexcept { return digits_.empty(); }

  // The number times 1024^byPowerOf1024, truncated toward zero. A negative
  // number with any non-zero digit gives 0; a result above the UInt64 maximum
  // gives the maximum. Exact for every input. Throws KernelError::invalid when
  // byPowerOf1024 is outside 0..6.
  std::uint64_t multipliedTruncated(int byPowerOf1024) const;

 private:
  bool negative_ = false;
  std::vector<std::uint8_t> digits_;
  std::int64_t exponent_ = 0;
};

}  // namespace tarv
