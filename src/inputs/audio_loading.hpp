#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "inputs/audio_header.hpp"
#include "inputs/input_planning.hpp"
#include "signal/arrays.hpp"
#include "signal/song_storage.hpp"
#include "support/line_sink.hpp"
#include "support/stop_token.hpp"

namespace verdel::internal {

/// Decoded audio, integer formats at a full scale of 1.0 and float formats as stored.
struct LoadedAudio {
  AudioArray audio;
  int sr = 0;  ///< Hz
};

/// The whole of one audio file, decoded. Throws OSError or RuntimeError, naming the file, if it
/// cannot be read to the end that its header tells. Memory is taken for samples that are there,
/// never for what a header claims.
LoadedAudio load(const std::string& path, const StopToken& stop = {},
                 const SongStorage& storage = {});

/// The whole of one input, a pair as two rows, left first. Errors as those of load and
/// open_audio_input.
LoadedAudio load_audio_input(const StemInput& input, const StopToken& stop = {},
                             const SongStorage& storage = {});

/// What stems are held against.
struct StemLoading {
  int mix_sr = 0;  ///< Hz
  std::size_t mix_channels = 0;
  std::size_t mix_frames = 0;
  bool any_channels = false;   ///< lets stems of another channel count through
  bool strict_inputs = false;  ///< refuses stems of another length
  std::size_t workers = 1;     ///< stems decoded at once; no figure and no order depends on it
  SongStorage storage = {};
};

/// The stems of a plan, in its order, rounded to single precision, which holds 24 bits and all
/// floats as they are; all of the mix's length: a longer one loses its end, a shorter one gains
/// silence. More than 2 samples of difference draw a warning line, or a failure
/// with strict_inputs. Every header is held against the mix before any stem is decoded, so that a
/// fault in the last is known at once. The warnings come in stem order, each as soon as that
/// allows.
///
/// Throws ValueError if there are no stems or one does not fit, besides the errors of
/// load_audio_input.
StemMap load_stem_inputs(const std::vector<StemInput>& plan, const StemLoading& loading,
                         const LineSink& message, const StopToken& stop = {});

}  // namespace verdel::internal
