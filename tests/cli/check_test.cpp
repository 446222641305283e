#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "cli/run_program.hpp"
#include "driver/small_projects.hpp"

namespace verdel::internal {
namespace {

using testing::run_program;

/// What is done to the taps of a project, and what is then said of it.
struct Case {
  std::function<void(testing::Channels& tap)> change;
  int status;
  const char* out;
};

TEST(Check, TellsFindingsByStatusLineAndJson) {
  const auto all = [](auto change) {
    return [change](testing::Channels& tap) {
      for (auto& channel : tap) {
        for (double& x : channel) x = change(x);
      }
    };
  };
  const Case kCases[] = {
      {[](auto&) {}, 0, "nothing found"},
      {all([](double x) { return -x; }), 3, "fix   polarity     b: is turned over"},
      {all([](double) { return 0.0; }), 3, "fix   silent       b: is silent from beginning to end"},
      {all([](double x) { return x + 0.01; }), 3,
       "look  offset       b: its left side has an offset of 0.01"},
      {all([](double x) { return std::clamp(20.0 * x, -1.0, 1.0); }), 3,
       "fix   clipped      b: its left side"},
      {[](auto& tap) { std::ranges::fill(tap[1], 0.0); }, 3,
       "fix   sides        b: its right side is silent"},
      {[](auto& tap) {
         for (auto& channel : tap) channel.resize(11000);
       },
       3, "look  length       b: is 1000 samples shorter than the mix (0.125 s)"}};
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.out);
    const testing::SmallProject project({"a", "b", "c"});
    auto tap = testing::hits(1, 2, 12000, 8000);
    c.change(tap);
    project.write_tap("b.wav", tap);
    const std::vector<std::string> arguments = {"--mix", project.mix_path(), "--taps",
                                                project.path("taps")};
    const auto text = run_program({.program = "verdel-check", .arguments = arguments});
    EXPECT_EQ(text.status, c.status) << text.err;
    EXPECT_THAT(text.out, ::testing::HasSubstr(c.out));
    auto words = arguments;
    words.emplace_back("--json");
    const auto json = run_program({.program = "verdel-check", .arguments = words});
    EXPECT_EQ(json.status, c.status);
    EXPECT_EQ(testing::lines_of(json.out).size(), 1U);
    EXPECT_THAT(json.out, ::testing::StartsWith(c.status == 0 ? R"({"findings": []})"
                                                              : R"({"findings": [{"kind": ")"));
  }
  EXPECT_EQ(run_program({.program = "verdel-check", .folder = "/"}).status, 1);
}

}  // namespace
}  // namespace verdel::internal
