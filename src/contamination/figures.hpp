#pragma once

#include <cstddef>
#include <vector>

#include "signal/arrays.hpp"
#include "support/stop_token.hpp"

namespace verdel::internal {

/// What the contamination report is made from.
struct ReportJob {
  StemViews est;            ///< the stems as rendered, [channels][samples] each
  StemViews taps;           ///< their taps: the same names, order and shapes
  int sr = 0;               ///< Hz
  std::size_t n_bands = 0;  ///< bands of the comparison, at least 2
  std::size_t nfft = 0;     ///< transform length of the whole source, a power of two
  std::size_t workers = 1;  ///< threads; the figures do not depend on it
};

/// How much of a stem its own tap does not explain, and what that sounds like.
struct StemContamination {
  double ratio = 0.0;               ///< RMS level of the foreign part minus that of the stem, dB
  std::vector<double> resemblance;  ///< per tap, -1 .. 1: its envelope against the foreign part's;
                                    ///< not a number for the own tap or a constant envelope
};

/// The figures of every stem, in stem order. The stems' samples are read and nothing of their size
/// is kept: one cell in 16 samples per stem and tap, and about 12 MB a worker. Throws Cancelled.
std::vector<StemContamination> measure_contamination(const ReportJob& job,
                                                     const StopToken& stop = {});

}  // namespace verdel::internal
