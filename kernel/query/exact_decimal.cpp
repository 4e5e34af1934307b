#include "kernel/query/exact_decimal.h"

#include <algorithm>
#include <limits>
#include <string>

#include "kernel/base/kernel_error.h"

namespace tarv {
namespace {

constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();

// a * b + c, or nullopt when it does not fit in 64 bits.
std::optional<std::uint64_t> mulAdd(std::uint64_t a, std::uint64_t b, std::uint64_t c) {
  std::uint64_t product = 0;
  std::uint64_t sum = 0;
  if (__builtin_mul_overflow(a, b, &product) || __builtin_add_overflow(product, c, &sum)) return std::nullopt;
  return sum;
}

bool isDigit(Unit u) { return u >= u'0' && u <= u'9'; }

std::int64_t clampExponent(std::int64_t e) {
  return std::clamp(e, -ExactDecimal::kExponentLimit, ExactDecimal::kExponentLimit);
}

}  // namespace

ExactDecimal::ExactDecimal(bool negative, std::vector<std::uint8_t> digits, std::int64_t exponent)
    : negative_(negative), digits_(std::move(digits)), exponent_(clampExponent(exponent)) {
  auto firstNonZero = std::find_if(digits_.begin(), digits_.end(), [](std::uint8_t d) { return d != 0; });
  digits_.erase(digits_.begin(), firstNonZero);
  std::size_t trailing = 0;
  while (trailing < digits_.size() && digits_[digits_.size() - 1 - trailing] == 0) ++trailing;
  digits_.resize(digits_.size() - trailing);
  exponent_ = clampExponent(exponent_ + static_cast<std::int64_t>(std::min<std::size_t>(trailing, kExponentLimit)));
  if (digits_.empty()) exponent_ = 0;
}

std::optional<ExactDecimal> ExactDecimal::read(TextView text, std::size_t& position) {
  std::size_t i = position;
  bool negative = false;
  if (i < text.size() && (text[i] == u'+' || text[i] == u'-')) {
    negative = text[i] == u'-';
    ++i;
  }
  std::vector<std::uint8_t> digits;
  std::size_t integerDigits = 0;
  while (i < text.size() && isDigit(text[i])) {
    digits.push_back(static_cast<std::uint8_t>(text[i] - u'0'));
    ++i;
    ++integerDigits;
  }
  std::size_t fractionDigits = 0;
  if (i < text.size() && text[i] == u'.') {
    std::size_t j = i + 1;
    while (j < text.size() && isDigit(text[j])) {
      digits.push_back(static_cast<std::uint8_t>(text[j] - u'0'));
      ++j;
      ++fractionDigits;
    }
    // "5." is a number; a lone "." is not.
    if (integerDigits > 0 || fractionDigits > 0) i = j;
  }
  if (integerDigits == 0 && fractionDigits == 0) return std::nullopt;

  std::int64_t exponent = 0;
  if (i < text.size() && (text[i] == u'e' || text[i] == u'E')) {
    std::size_t j = i + 1;
    bool exponentNegative = false;
    if (j < text.size() && (text[j] == u'+' || text[j] == u'-')) {
      exponentNegative = text[j] == u'-';
      ++j;
    }
    if (j < text.size() && isDigit(text[j])) {
      while (j < text.size() && isDigit(text[j])) {
        // Saturate: beyond the limit the result is 0 or the maximum anyway.
        if (exponent < kExponentLimit) exponent = exponent * 10 + (text[j] - u'0');
        ++j;
      }
      exponent = std::min(exponent, kExponentLimit);
      if (exponentNegative) exponent = -exponent;
      i = j;
    }
  }
  auto fraction = static_cast<std::int64_t>(std::min<std::size_t>(fractionDigits, kExponentLimit));
  position = i;
  return ExactDecimal(negative, std::move(digits), exponent - fraction);
}

std::uint64_t ExactDecimal::multipliedTruncated(int byPowerOf1024) const {
  if (byPowerOf1024 < 0 || byPowerOf1024 > 6)
    throw KernelError::invalid("Unsupported power of 1024: " + std::to_string(byPowerOf1024));
  if (digits_.empty() || negative_) return 0;
  const std::uint64_t multiplier = std::uint64_t{1} << (10 * byPowerOf1024);
  const auto count = static_cast<std::int64_t>(digits_.size());

  // Digits above the decimal point form the integer part A; the k digits below
  // it form the fraction B / 10^k. The result is A*M + floor(B*M / 10^k).
  const std::int64_t belowPoint = exponent_ < 0 ? -exponent_ : 0;
  const std::int64_t aboveDigits = count - belowPoint + (exponent_ > 0 ? exponent_ : 0);
  // A has no leading zero, so 21 or more digits means A >= 10^20 > UInt64 max.
  if (aboveDigits > 20) return kMax;

  std::optional<std::uint64_t> integer = 0;
  const std::int64_t integerFromDigits = std::max<std::int64_t>(0, count - belowPoint);
  for (std::int64_t i = 0; i < integerFromDigits && integer; ++i)
    integer = mulAdd(*integer, 10, digits_[static_cast<std::size_t>(i)]);
  for (std::int64_t i = 0; i < exponent_ && integer; ++i) integer = mulAdd(*integer, 10, 0);  // exponent_ <= 20 here
  if (!integer) return kMax;

  // floor(B*M / 10^k): multiply the fraction by M from its last digit, keeping
  // only the carry; the carry stays below M, so every step fits in 64 bits.
  std::uint64_t carry = 0;
  for (std::int64_t i = count - 1; i >= integerFromDigits; --i)
    carry = (digits_[static_cast<std::size_t>(i)] * multiplier + carry) / 10;
  // Leading zeros of the fraction (k larger than the digit count) only divide.
  for (std::int64_t zeros = belowPoint - count; zeros > 0 && carry != 0; --zeros) carry /= 10;

  return mulAdd(*integer, multiplier, carry).value_or(kMax);
}

}  // namespace tarv
