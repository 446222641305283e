#include "driver/terminal_progress.hpp"

#include <gtest/gtest.h>

#include <tuple>

namespace verdel::internal {
namespace {

TEST(TerminalProgress, SaysHowLongItWillTakeOnceThatIsKnown) {
  using Case = std::tuple<double, double, const char*>;
  for (const auto& [done, elapsed, text] :
       {Case{-1.0, 9.0, "rendering"}, Case{0.0, 0.0, "rendering  0 %"},
        Case{0.5, 0.4, "rendering  50 %"}, Case{0.02, 9.0, "rendering  2 %"},
        Case{0.25, 30.0, "rendering  25 %  1:30 left"},
        Case{0.999, 60.0, "rendering  99 %  0:00 left"},
        Case{1.0, 60.0, "rendering  100 %  0:00 left"}}) {
    EXPECT_EQ(progress_text("rendering", done, elapsed), text);
  }
}

}  // namespace
}  // namespace verdel::internal
