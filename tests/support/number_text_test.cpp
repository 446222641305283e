#include "support/number_text.hpp"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <utility>

namespace verdel::internal {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

TEST(NumberText, ReadsDecimalFormsAndNothingElse) {
  const std::pair<const char*, double> kNumbers[] = {
      {"5", 5.0},           {"-.5", -0.5},           {"5.", 5.0},      {" +1e-05\n", 1e-5},
      {"1E3", 1000.0},      {"1e400", kInfinity},    {"1e-400", 0.0},  {"-1e400", -kInfinity},
      {"-inf", -kInfinity}, {"InFiNiTy", kInfinity}, {"\t12\v", 12.0}, {"0.1", 0.1}};
  for (const auto& [text, value] : kNumbers) EXPECT_EQ(parse_float64(text), value);
  for (const char* text : {"nan", "-NaN", "+nan "}) {
    ASSERT_TRUE(parse_float64(text)) << text;
    EXPECT_TRUE(std::isnan(*parse_float64(text))) << text;
  }
  for (const char* text : {"", " ", "-", "+-5", ".", "e5", "5e", "5e+", "0x10", "1,5", "1_000",
                           "12a", "nan(1)", "in", "infin", "1 2", "- 5", "١"}) {
    EXPECT_FALSE(parse_float64(text)) << text;
  }
}

TEST(NumberText, ReadsWholeNumbersOfAnySize) {
  using Limits = std::numeric_limits<std::int64_t>;
  const std::pair<const char*, std::int64_t> kNumbers[] = {{"0", 0},
                                                           {" -07 ", -7},
                                                           {"+128", 128},
                                                           {"9223372036854775807", Limits::max()},
                                                           {"9223372036854775808", Limits::max()},
                                                           {"-9223372036854775808", Limits::min()},
                                                           {"-9223372036854775809", Limits::min()}};
  for (const auto& [text, value] : kNumbers) EXPECT_EQ(parse_whole(text), value);
  for (const char* text : {"", "-", "1.0", "1e3", "0x1", "1_0", "--1", "1 0", "inf"}) {
    EXPECT_FALSE(parse_whole(text)) << text;
  }
}

TEST(NumberText, ShortestTextKeepsItsFormAndReadsBackTheSameBits) {
  const std::pair<double, const char*> kTexts[] = {
      {12.0, "12.0"},        {-0.0, "-0.0"},         {0.1, "0.1"},
      {1e-5, "1e-05"},       {1e-4, "0.0001"},       {1e15, "1000000000000000.0"},
      {1e16, "1e+16"},       {1e100, "1e+100"},      {-kInfinity, "-inf"},
      {std::nan(""), "nan"}, {-std::nan(""), "nan"}, {5e-324, "5e-324"}};
  for (const auto& [value, text] : kTexts) EXPECT_EQ(shortest_float64(value), text);

  std::mt19937_64 bits(1);
  for (int i = 0; i < 20000; ++i) {
    const auto value = std::bit_cast<double>(bits());
    if (std::isnan(value)) continue;
    const auto read = parse_float64(shortest_float64(value));
    ASSERT_TRUE(read);
    ASSERT_EQ(std::bit_cast<std::uint64_t>(*read), std::bit_cast<std::uint64_t>(value));
  }
}

TEST(NumberText, PrintsFiguresForPeople) {
  EXPECT_EQ(general(30.0), "30");
  EXPECT_EQ(general(1.0 / 3.0), "0.333333");
  EXPECT_EQ(general(1e6), "1e+06");
  EXPECT_EQ(one_decimal(62.04), "62.0");
  EXPECT_EQ(signed_one_decimal(-13.16), "-13.2");
  EXPECT_EQ(signed_one_decimal(0.0), "+0.0");
  EXPECT_EQ(signed_one_decimal(-std::nan("")), "+nan");
}

}  // namespace
}  // namespace verdel::internal
