#include "driver/chain_stage.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <optional>
#include <system_error>

#include "chain/hear_chain.hpp"
#include "delivery/audio_file_writing.hpp"
#include "delivery/text_file_writing.hpp"
#include "driver/chain_json.hpp"
#include "inputs/path_text.hpp"
#include "support/errors.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

std::string agreement(const CurveFinding& curve) {
  double least = 0.0, most = 0.0;
  std::size_t voters = 0;
  for (const CurveVote& vote : curve.votes) {
    if (!vote.vote) continue;
    least = voters == 0 ? *vote.vote : std::min(least, *vote.vote);
    most = voters == 0 ? *vote.vote : std::max(most, *vote.vote);
    ++voters;
  }
  return fmt::format(
      "{} of {} taps vote for it ({:.2f} to {:.2f}; 1 is a tap that went through it)", voters,
      curve.votes.size(), least, most);
}

std::string curve_words(const CurveFinding& curve) {
  if (!curve.used) return "curve: " + curve.why_not;
  return fmt::format("curve: {}, takes {:.1f} dB off what is left ({:.1f} to {:.1f} dB)",
                     name_of(curve.model), curve.left_before - curve.left_after, curve.left_before,
                     curve.left_after);
}

std::string gain_words(const GainsFinding& gains) {
  if (gains.used.empty()) return "gain:  nothing finer than the engine's own";
  std::string kinds;
  for (const FineGain& gain : gains.used) {
    kinds += kinds.empty() ? "" : ", then ";
    kinds += gain.in_bands ? fmt::format("{} bands of an octave", gain.centres.size())
                           : "one for all frequencies";
  }
  return fmt::format("gain:  {}, takes {:.1f} dB off what is left ({:.1f} to {:.1f} dB)", kinds,
                     gains.left_before - gains.left_after, gains.left_before, gains.left_after);
}

void print_finding(const ChainFinding& finding, bool gains, OutputLines& lines) {
  lines.print_now("--- master chain ---");
  lines.print_now(curve_words(finding.curve));
  if (finding.curve.used) lines.print_now("       " + agreement(finding.curve));
  if (gains && !finding.curve.hz.empty()) lines.print_now(gain_words(finding.gains));
  lines.print_now("");
}

void make_folder(const std::string& folder) {
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (error) throw OSError("cannot make the folder " + quoted_path(folder), error.value());
}

/// The place of a file that is to be written, which must be free: nobody's file is replaced.
void require_free(const std::string& path) {
  std::error_code error;
  if (!std::filesystem::exists(std::filesystem::symlink_status(path, error))) return;
  throw OSError(quoted_path(path) + " is there already. Move it, or name another place.");
}

std::string heard_file(const std::string& folder, const std::string& name) {
  return join(folder, name + ".wav");
}

void require_free_places(const ChainOptions& options, const StemMap& taps) {
  if (options.json) require_free(*options.json);
  if (!options.taps_to) return;
  for (const auto& tap : taps) require_free(heard_file(*options.taps_to, tap.name));
}

void write_heard(const std::string& folder, const StemMap& taps, int sr, const StopToken& stop) {
  make_folder(folder);
  for (const auto& tap : taps) {
    AudioFileWriter writer(heard_file(folder, tap.name),
                           {.sr = sr, .channels = tap.audio.rows(), .frames = tap.audio.columns()});
    writer.write(tap.audio.view(), stop);
    writer.commit();
  }
}

std::vector<AppliedLag> moves_of(const ChainFinding& finding, const StemMap& taps) {
  std::vector<AppliedLag> moves;
  for (std::size_t i = 0; i < taps.size(); ++i) {
    if (finding.curve.lags[i] != 0) moves.push_back({taps[i].name, finding.curve.lags[i]});
  }
  return moves;
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
  require_free_places(options, taps);
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
  const ChainFinding finding = hear_chain(job, taps, !options.no_gains);
  print_finding(finding, !options.no_gains, run.lines);
  if (options.taps_to) write_heard(*options.taps_to, taps, mix.sr, run.stop);
  if (options.json) write_text_file(*options.json, chain_json(finding, taps, mix.sr));
  return moves_of(finding, taps);
}

}  // namespace verdel::internal
