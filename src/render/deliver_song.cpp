#include "render/deliver_song.hpp"

#include <bit>
#include <utility>

#include "contamination/report.hpp"

namespace verdel::internal {
namespace {

/// A power of two above the length of the source, also for an excerpt of it.
std::size_t report_transform_length(std::size_t frames) {
  return std::bit_ceil(frames + 1);
}

}  // namespace

DeliveryVerdict deliver_song(const SongJob& job, const StemMap& taps, CoordinatedStems stems,
                             const SongFiles& files, const LineSink& line, SongObserver& observer,
                             const StopToken& stop) {
  const RenderOutputs outputs{.out = files.out,
                              .write_null = files.write_null,
                              .taps = column_range(views_of(taps), job.range.first, job.range.stop),
                              .sr = job.sr,
                              .mix = job.mix.column_range(job.range.first, job.range.stop),
                              .null_threshold = job.profile.null_threshold,
                              .begin = [&observer](Stage stage) { observer.begin(stage); },
                              .storage = job.storage};
  StemReport print_report;
  if (files.report) {
    print_report = [&](const StemViews& written) {
      report({.est = written,
              .taps = outputs.taps,
              .sr = job.sr,
              .n_bands = job.profile.report_bands,
              .nfft = report_transform_length(job.mix.columns()),
              .workers = files.workers},
             line, stop);
    };
  }
  return write_render_outputs(outputs, std::move(stems), line, print_report, stop);
}

}  // namespace verdel::internal
