#pragma once

#include <string>
#include <vector>

#include "driver/run_context.hpp"
#include "inputs/input_planning.hpp"
#include "signal/arrays.hpp"

namespace verdel::internal {

/// The finished mix, whole length.
struct Mix {
  StemInput input;
  AudioArray audio;  ///< [channels][frames]
  int sr = 0;        ///< Hz

  std::size_t channels() const { return audio.rows(); }
  std::size_t frames() const { return audio.columns(); }
};

/// Completes the paths of the options and prints them. Throws ValueError.
void resolve_paths(Options& options, OutputLines& lines);

/// Reads the mix, prints its line, and refuses one that is not stereo unless told otherwise.
Mix read_mix(const Run& run);

/// Refuses a mix that is too short or a render that is too large for the machine, and tries whether
/// the temporary folder takes anything, before a tap is opened. Throws ValueError and OSError.
void check_preflight(const Run& run, const Mix& mix, std::size_t stem_count);

/// Reads the taps of a plan, all of the mix's length, in its order.
StemMap read_taps(const Run& run, const Mix& mix, const std::vector<StemInput>& plan);

std::vector<std::string> names_of(const StemMap& stems);

/// The part of the source that is delivered; prints the excerpt lines if that was asked for. Throws
/// ValueError for an excerpt length that reaches beyond all numbers, or to no sample.
SampleSpan choose_output_range(const Run& run, const Mix& mix);

}  // namespace verdel::internal
