#pragma once

#include <functional>
#include <string_view>

namespace verdel::internal {

/// Takes one line of text for the user, without its line break. Stages hand their lines to the
/// driver through it; only the driver knows where they go.
using LineSink = std::function<void(std::string_view line)>;

}  // namespace verdel::internal
