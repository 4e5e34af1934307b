// ExactDecimal: reading numbers and exact scaling by powers of 1024.

#include "kernel/query/exact_decimal.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>
#include <string>

#include "kernel/base/kernel_error.h"

namespace tarv {
namespace {

constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();

// What a reader of a number sees: where the number ends (0: no number) and
// what it is worth in bytes scaled by 1024^power (truncated; negative is 0).
TEST(ExactDecimalRead, WhereNumbersEndAndWhatTheyAreWorth) {
  struct Case {
    const char* label;
    const char16_t* text;
    std::size_t end;
    int power;
    std::uint64_t value;
  };
  const Case cases[] = {
      {"integer", u"123kb", 3, 0, 123},
      {"fraction with a trailing zero", u"1.50", 4, 1, 1536},
      {"leading dot with sign", u"+.5", 3, 1, 512},
      {"trailing dot is a number", u"5.", 2, 0, 5},
      {"negative", u"-7", 2, 0, 0},
      {"leading zeros", u"007", 3, 0, 7},
      {"integer zeros", u"1200", 4, 0, 1200},
      {"zero", u"0.000", 5, 0, 0},
      {"exponent", u"1e+2mb", 4, 0, 100},
      {"negative exponent", u"25E-3", 5, 1, 25},
      {"e without digits is not read", u"1e", 1, 0, 1},
      {"e and sign without digits", u"1e+kb", 1, 0, 1},
      {"dot and exponent", u"2.5e1", 5, 0, 25},
      {"lone dot", u".", 0, 0, 0},
      {"lone sign", u"-", 0, 0, 0},
      {"sign then dot", u"+.e5", 0, 0, 0},
      {"exponent alone", u"e5", 0, 0, 0},
      {"empty", u"", 0, 0, 0},
  };
  for (const auto& c : cases) {
    std::size_t position = 0;
    const auto number = ExactDecimal::read(c.text, position);
    ASSERT_EQ(number.has_value(), c.end > 0) << c.label;
    EXPECT_EQ(position, c.end) << c.label;
    if (number) {
      EXPECT_EQ(number->multipliedTruncated(c.power), c.value) << c.label;
    }
  }
}

std::uint64_t scaled(const char16_t* text, int power) {
  std::size_t position = 0;
  auto number = ExactDecimal::read(text, position);
  EXPECT_TRUE(number) << utf8(text);
  return number ? number->multipliedTruncated(power) : 0;
}

TEST(ExactDecimalScale, ExactTruncation) {
  struct Case {
    const char* label;
    const char16_t* text;
    int power;
    std::uint64_t expected;
  };
  const Case cases[] = {
      {"one and a half KiB", u"1.5", 1, 1536},
      {"half KiB", u"0.5", 1, 512},
      {"bytes truncate", u"5.9", 0, 5},
      {"negative is zero", u"-0.5", 1, 0},
      {"negative zero", u"-0", 0, 0},
      {"fraction of a MiB", u"0.0001", 2, 104},
      {"below one byte", u"0.0009", 1, 0},
      {"many digits", u"1234.56789", 2, 1294538259},
      {"exponent into the fraction", u"123456789e-5", 2, 1294538259},
      {"20 PiB", u"20", 5, 22517998136852480},
      {"largest value", u"18446744073709551615", 0, kMax},
      {"one past the largest", u"18446744073709551616", 0, kMax},
      {"largest with fraction", u"18446744073709551615.99", 0, kMax},
      {"ten to the nineteenth", u"1e19", 0, 10000000000000000000ull},
      {"ten to the twentieth", u"1e20", 0, kMax},
      {"2^64 bytes as PiB", u"16384", 5, kMax},
      {"just below 2^64 as EiB", u"15.999999999999999999", 6, 18446744073709551614ull},
      {"nines just below one KiB", u"0.99999999999999999999999999", 1, 1023},
      {"exactly one KiB", u"1", 1, 1024},
      {"tiny", u"1e-40", 6, 0},
      {"huge exponent saturates", u"1e999999999999999999999999", 0, kMax},
      {"huge negative exponent saturates", u"9e-999999999999999999999999", 6, 0},
  };
  for (const auto& c : cases) EXPECT_EQ(scaled(c.text, c.power), c.expected) << c.label;
}

TEST(ExactDecimalScale, LongDigitStrings) {
  // One followed by 100000 zeros, scaled back down: exactly one.
  std::u16string text = u"1" + std::u16string(100000, u'0') + u"e-100000";
  EXPECT_EQ(scaled(text.c_str(), 1), 1024u);
  // 0.000...0001 with 50000 zeros is below one byte even in EiB.
  std::u16string small = u"0." + std::u16string(50000, u'0') + u"1";
  EXPECT_EQ(scaled(small.c_str(), 6), 0u);
  // Many digits after the point only change the truncated result when they should.
  std::u16string almost = u"2." + std::u16string(30000, u'9');
  EXPECT_EQ(scaled(almost.c_str(), 0), 2u);
  EXPECT_EQ(scaled(almost.c_str(), 1), 3071u);
}

TEST(ExactDecimalScale, AgreesWithIntegerArithmeticOnSmallNumbers) {
  // a.bcd * 1024^n computed with plain integers, for random small values.
  std::mt19937_64 rng(5);
  for (int i = 0; i < 20000; ++i) {
    std::uint64_t whole = rng() % 100000;
    std::uint64_t thousandths = rng() % 1000;
    int power = static_cast<int>(rng() % 4);
    std::uint64_t multiplier = std::uint64_t{1} << (10 * power);
    std::uint64_t expected = (whole * 1000 + thousandths) * multiplier / 1000;
    std::string digits = std::to_string(thousandths);
    digits.insert(0, 3 - digits.size(), '0');
    std::u16string text = utf16(std::to_string(whole) + "." + digits);
    ASSERT_EQ(scaled(text.c_str(), power), expected) << utf8(text) << " * 1024^" << power;
  }
}

TEST(ExactDecimalScale, PowerOutsideRangeIsRejected) {
  ExactDecimal one(false, {1}, 0);
  EXPECT_THROW(one.multipliedTruncated(7), KernelError);
  EXPECT_THROW(one.multipliedTruncated(-1), KernelError);
  EXPECT_EQ(one.multipliedTruncated(6), std::uint64_t{1} << 60);
}

}  // namespace
}  // namespace tarv
