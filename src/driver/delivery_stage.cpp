#include "driver/delivery_stage.hpp"

#include <bit>

#include "contamination/report.hpp"
#include "delivery/render_outputs.hpp"
#include "support/errors.hpp"

namespace verdel::internal {
namespace {

constexpr double kNullThreshold = -140.0;  // dBFS, what the stems are sold for

/// A power of two above the length of the source, also for an excerpt of it.
std::size_t report_transform_length(std::size_t frames) {
  return std::bit_ceil(frames + 1);
}

}  // namespace

void deliver(const Run& run, const Mix& mix, const StemMap& taps, const StemMap& est,
             OutputRange range) {
  const LineSink print = [&run](std::string_view line) { run.lines.print(line); };
  const RenderOutputs outputs{.out = *run.options.out,
                              .write_null = run.options.write_null,
                              .est = views_of(est),
                              .taps = column_range(views_of(taps), range.start, range.stop),
                              .sr = mix.sr,
                              .mix = mix.audio.view().column_range(range.start, range.stop),
                              .null_threshold = kNullThreshold};
  const auto print_report = [&] {
    if (run.options.no_report) return run.lines.stage("proving the files");
    run.lines.stage("comparing stems and taps");
    const ReportJob job{.est = outputs.est,
                        .taps = outputs.taps,
                        .sr = mix.sr,
                        .n_bands = static_cast<std::size_t>(*run.options.bands),
                        .nfft = report_transform_length(mix.frames()),
                        .workers = run.machine.processors()};
    report(job, print, run.stop);
    run.lines.stage("proving the files");
  };
  const auto verdict = write_render_outputs(outputs, print, print_report, run.stop);
  if (!verdict.proof.passed) {
    throw RuntimeError("written single-band stems failed reconstruction verification\n" +
                       shallow_null_text(verdict, range.start, mix.sr));
  }
}

}  // namespace verdel::internal
