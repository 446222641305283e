#pragma once

#include <functional>
#include <string>

#include "delivery/coordinated_float32.hpp"
#include "delivery/verification.hpp"
#include "signal/arrays.hpp"
#include "support/line_sink.hpp"
#include "support/stage.hpp"
#include "support/stop_token.hpp"

namespace verdel::internal {

/// What a render delivers. All audio is [channels][samples] of one shape: the range that is put
/// out, which may be an excerpt.
struct RenderOutputs {
  std::string out;          ///< the folder to write to
  bool write_null = false;  ///< also write what is left of the mix
  StemViews taps;           ///< the aligned taps, under the names of the stems
  int sr = 0;               ///< Hz
  AudioView mix;
  double null_threshold = -100.0;  ///< dB
  StageSink begin = {};            ///< may be empty
  SongStorage storage = {};        ///< where what the files leave of the mix stands
};

struct DeliveryVerdict {
  Proof proof;  ///< of the files: passed where they leave less of the mix than the threshold
  double loudest_stem;  ///< dB, the peak of all stems
};

/// Says how the stems as written compare with their taps.
using StemReport = std::function<void(const StemViews& stems)>;

/// Writes one 32-bit float file per stem into the folder (made with its parents if need be), each
/// under its own name only once it is complete, then reads all of them back and measures what the
/// mix has beyond their sum. A line per stem and the verdict go to `line`; `report`, which may be
/// empty, is called between the two. Complete files stay whatever happens afterwards; unfinished
/// ones that a killed run has left in the folder are removed.
///
/// Errors: OSError naming the file or folder that cannot be written; those of
/// CoordinatedStems::finish before any file is written; those of written_residual.
/// A null that is too shallow is no error but a verdict.
DeliveryVerdict write_render_outputs(const RenderOutputs& outputs, CoordinatedStems rendered,
                                     const LineSink& line, const StemReport& report,
                                     const StopToken& stop = {});

/// A line for the user whose render failed its proof: what is left, where, and what to do. `start`
/// is the first sample of the output range.
std::string shallow_null_text(const DeliveryVerdict& verdict, std::size_t start, int sr);

}  // namespace verdel::internal
