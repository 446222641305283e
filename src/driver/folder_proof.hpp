#pragma once

#include "driver/options.hpp"
#include "driver/output_lines.hpp"
#include "support/stop_token.hpp"

namespace verdel::internal {

/// Adds up the stems of a folder, whoever wrote them, holds the sum against the mix, and prints
/// what is left: for each channel the peak, where it is, and the RMS. Returns whether the peak lies
/// below the threshold.
///
/// A mono pair counts as one stem; the diagnostic file of a render is left out. Stems that are
/// shorter than the mix need options.excerpt_start.
/// Errors: ValueError for a folder without stems or a stem that is not of the mix's rate, channels
/// or length; those of the loading.
bool prove_folder(const VerifyOptions& options, OutputLines& lines, const StopToken& stop = {});

}  // namespace verdel::internal
