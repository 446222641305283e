#pragma once

#include <cstddef>

namespace verdel::internal {

/// The processing profile: what is fixed for every render unless a command line says otherwise.
struct Profile {
  double gain_window_ms = 30.0;    ///< over which the shared gain is measured
  double gain_smooth_ms = 120.0;   ///< over which it is averaged; 0: not at all
  double null_threshold = -140.0;  ///< dBFS that the mix minus the delivered stems stays below
  std::size_t report_bands = 128;  ///< in which the report compares stems and taps
};

}  // namespace verdel::internal
