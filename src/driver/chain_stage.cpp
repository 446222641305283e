#include "driver/chain_stage.hpp"

#include "chain/chain_figures.hpp"
#include "chain/chain_words.hpp"
#include "driver/chain_files.hpp"

namespace verdel::internal {
namespace {

ChainWishes wishes_of(const ChainOptions& options) {
  return {.tap_filters = !options.no_tap_filters, .gains = !options.no_gains};
}

}  // namespace

Options render_options(const ChainOptions& chain) {
  Options options;
  options.mix = chain.mix;
  options.taps = chain.taps;
  options.out = chain.out;
  options.project = chain.project;
  options.excerpt_start = chain.excerpt_start;
  options.excerpt_len = chain.excerpt_len;
  options.no_report = chain.no_report;
  options.write_null = chain.write_null;
  options.progress_json = chain.progress_json;
  return options;
}

std::vector<AppliedLag> hear_and_tell(const Run& run, const ChainOptions& options, const Mix& mix,
                                      StemMap& taps) {
  run.lines.stage("hearing the master chain");
  ThreadPool pool(run.machine.processors(), "verdel-chain");
  const ProgressLines progress(run.lines, options.progress_json);
  const ChainJob job{.mix = mix.audio.view(),
                     .sr = mix.sr,
                     .pool = &pool,
                     .stop = run.stop,
                     .progress = [&](std::string_view phase, std::size_t done, std::size_t total) {
                       progress.emit_progress(phase, done, total);
                       run.lines.stage("hearing the master chain: " + std::string(phase));
                     }};
  const ChainWishes wishes = wishes_of(options);
  const ChainFinding finding = hear_chain(job, taps, wishes);
  const auto names = names_of(taps);
  run.lines.print_now("--- master chain ---");
  for (const std::string& line : chain_words(finding, wishes, names)) run.lines.print_now(line);
  run.lines.print_now("");
  write_chain_files(options, finding, taps, mix.sr, run.stop);
  return moves_of(finding, names);
}

}  // namespace verdel::internal
