#pragma once

#include <string>
#include <vector>

#include "chain/hear_chain.hpp"
#include "driver/options.hpp"
#include "signal/arrays.hpp"
#include "support/stop_token.hpp"

/// The files that the chain stage itself writes, beside the render.
namespace verdel::internal {

/// Refuses places that are taken: nobody's file is replaced by these, two of them are not one file,
/// and none is one that the render writes later. Then tries whether they can be written. Looks at
/// names alone; taps that cannot be planned pass, since loading says why in its turn. The paths of
/// `render` are complete. Throws ValueError and OSError.
void require_chain_places(const ChainOptions& chain, const Options& render);

/// Writes what the options ask for: the taps as heard, the finding as JSON and as a picture.
/// Errors: OSError; Cancelled.
void write_chain_files(const ChainOptions& chain, const ChainFinding& finding, const StemMap& taps,
                       int sr, const StopToken& stop);

}  // namespace verdel::internal
