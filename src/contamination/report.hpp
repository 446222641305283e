#pragma once

#include <string>

#include "contamination/figures.hpp"
#include "support/line_sink.hpp"
#include "support/stop_token.hpp"

namespace verdel::internal {

/// Tells the user how loud the part of each stem is that its own tap cannot explain, and which
/// other tap that part sounds like. It measures the stems as rendered and changes nothing; a bad
/// figure is no failure. Throws Cancelled.
void report(const ReportJob& job, const LineSink& print, const StopToken& stop = {});

/// The report's line on one stem; `taps` gives the names behind figures.resemblance.
std::string report_line(const std::string& name, const StemContamination& figures,
                        const StemViews& taps);

}  // namespace verdel::internal
