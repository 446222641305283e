#pragma once

#include "driver/options.hpp"
#include "driver/output_lines.hpp"
#include "support/stop_token.hpp"

namespace verdel::internal {

/// Holds the stems of a folder, whoever wrote them, against the mix and prints what they leave of
/// it: for each channel the peak, where it is, and the RMS.
///
/// A mono pair counts as one stem; the null residual of a render is left out. Stems that are
/// shorter than the mix need options.excerpt_start.
/// Errors: RuntimeError if the peak does not lie below the threshold, with the stems that are too
/// many where leaving them out would help; ValueError for a folder without stems or stems that are
/// not of the mix's rate, channels or one length; those of the loading.
void prove_folder(const VerifyOptions& options, OutputLines& lines, const StopToken& stop = {});

}  // namespace verdel::internal
