#include "diagnosis/diagnose.hpp"

#include <algorithm>
#include <iterator>

#include "alignment/tap_alignment.hpp"
#include "diagnosis/mix_findings.hpp"
#include "diagnosis/placing.hpp"
#include "diagnosis/tap_levels.hpp"
#include "diagnosis/tap_likeness.hpp"
#include "support/thread_pool.hpp"

namespace verdel::internal {
namespace {

void append(std::vector<Finding>& all, std::vector<Finding> more) {
  std::ranges::move(more, std::back_inserter(all));
}

std::vector<std::ptrdiff_t> moves_of_render(AudioView mix, StemMap& taps, int sr,
                                            const Machine& machine, const StopToken& stop) {
  std::vector<std::ptrdiff_t> moves(taps.size());
  for (const AppliedLag& moved : align_taps_to_mix(mix, taps, sr, machine, stop)) {
    const auto tap = std::ranges::find(taps, moved.name, [](const auto& t) { return t.name; });
    moves[static_cast<std::size_t>(tap - taps.begin())] = moved.lag;
  }
  return moves;
}

}  // namespace

std::vector<Finding> diagnose(AudioView mix, StemMap& taps, int sr, const Machine& machine,
                              const StopToken& stop) {
  std::vector<Finding> findings;
  std::vector<std::string> names, mono;
  ThreadPool pool(machine.processors(), "verdel-check");
  std::vector<std::vector<Finding>> levels(taps.size());
  run_indexed(&pool, taps.size(), [&](std::size_t t) {
    levels[t] = level_findings(taps[t].name, taps[t].audio.view(), sr);
  });
  for (std::size_t t = 0; t < taps.size(); ++t) {
    names.push_back(taps[t].name);
    append(findings, std::move(levels[t]));
    if (is_mono(taps[t].audio.view())) mono.push_back(taps[t].name);
  }
  if (!mono.empty() && mono.size() < taps.size()) {
    findings.push_back(
        {.kind = "sides",
         .taps = mono,
         .severity = Severity::kNote,
         .text = "mono: both sides are the same. That is right where it is so in the mix.",
         .where = {},
         .figures = {}});
  }
  const SpectralSums given(mix, views_of(taps), sr, &pool, stop);
  if (given.segments() > 0) {
    append(findings, band_findings(given, names));
    Likenesses likenesses = find_likenesses(given, names);
    append(findings, std::move(likenesses.findings));
    const Placing placing = place_taps({.mix = mix,
                                        .taps = views_of(taps),
                                        .sr = sr,
                                        .left_out = likenesses.left_out,
                                        .pool = &pool,
                                        .stop = stop});
    const auto moves = moves_of_render(mix, taps, sr, machine, stop);
    append(findings, mix_findings(placing, names, likenesses.left_out, moves));
  }
  std::ranges::stable_sort(findings, {}, &Finding::severity);
  return findings;
}

}  // namespace verdel::internal
