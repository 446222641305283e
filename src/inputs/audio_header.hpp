#pragma once

#include <vector>

#include "inputs/audio_file.hpp"
#include "inputs/input_planning.hpp"
#include "support/stop_token.hpp"

namespace verdel::internal {

/// The files of one input, open, and what they make together.
struct OpenAudioInput {
  std::vector<AudioFile> files;  ///< in the input's order
  AudioHeader header;            ///< of a pair: two channels; frames absent if absent in either
};

/// Opens an input and holds what the headers of a pair say against each other: both sides mono, of
/// one rate and one length, else a ValueError. Decodes nothing.
OpenAudioInput open_audio_input(const StemInput& input);

/// What an input is, without decoding it; the tests and errors are those of open_audio_input. Audio
/// that is compressed is looked at where it should end, so that a file cut short shows at once
/// (RuntimeError).
AudioHeader check_audio_input(const StemInput& input, const StopToken& stop = {});

/// Refuses sides of different lengths with the ValueError of open_audio_input.
void require_equal_lengths(const StemInput& pair, std::size_t left_frames,
                           std::size_t right_frames);

}  // namespace verdel::internal
