#pragma once

#include <cstddef>
#include <vector>

#include "inputs/input_planning.hpp"
#include "signal/arrays.hpp"
#include "signal/levels.hpp"
#include "signal/song_storage.hpp"
#include "support/stop_token.hpp"

/// The proof that files add up to a mix, whoever wrote them.
namespace verdel::internal {

/// What a render calls what its stems leave of the mix, where it is asked to write that too.
inline constexpr const char* kNullResidualName = "_NULL_RESIDUAL";

/// Whether a stem of a folder is such a diagnostic: it has the name and holds nothing above -100
/// dBFS. Rounding stays far below that; what is louder is a stem that happens to have the name.
/// Errors as those of load_audio_input.
bool is_null_residual(const StemInput& stem, const StopToken& stop = {});

/// What stems leave of the mix: reads them from the disk one after the other and block by block,
/// adds them up in their order in double precision, and returns the mix minus their sum,
/// [channels][samples]. A pair counts as one stem of two channels.
///
/// Errors: RuntimeError "written stem verification failed for {name}" for a stem whose rate,
/// channels or length are not those of the mix; OSError or RuntimeError with the file's name for
/// one that cannot be read whole; Cancelled by `stop`.
AudioArray written_residual(const std::vector<StemInput>& stems, AudioView mix, int sr,
                            const StopToken& stop = {}, const SongStorage& storage = {});

struct ChannelProof {
  Levels difference;      ///< dB; both NaN if a sample is not a number
  std::size_t worst = 0;  ///< the first sample of that peak, or the first that is not a number
};

struct Proof {
  std::vector<ChannelProof> channels;
  std::size_t worst_channel = 0;
  double peak = -999.0;  ///< dB, of the worst channel: NaN if any holds what is not a number
  bool passed = false;   ///< peak < threshold
};

/// Measures a residual of at least one channel; the threshold is in dB.
Proof prove(AudioView residual, double threshold);

/// Which stems are too many: those without which the others add up to the mix, as far as that shows
/// by leaving out one of them, or the oldest of them by the time of their last change. Empty where
/// neither helps. `residual` is what written_residual gave for the stems; errors are the same.
std::vector<StemInput> surplus_stems(const std::vector<StemInput>& stems, AudioArray residual,
                                     int sr, double threshold, const StopToken& stop = {});

}  // namespace verdel::internal
