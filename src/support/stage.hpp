#pragma once

#include <functional>

namespace verdel::internal {

/// The stages of a render in their order, for those who show or measure where it stands.
enum class Stage {
  kReadingMix,
  kReadingTaps,
  kAligning,
  kFitting,
  kAllocating,
  kRounding,
  kWriting,
  kComparing,
  kProving
};

/// Told that a stage begins, on the thread of the render.
using StageSink = std::function<void(Stage)>;

}  // namespace verdel::internal
