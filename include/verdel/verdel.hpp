#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

/// VERDEL for programs that hold their audio in memory: taps and a mix in, stems out whose sum is
/// the mix. Nothing is printed, no file of yours is read or written, no signal is caught; scratch
/// space is taken in a temporary folder and given back.
///
///     verdel::RenderRequest request;
///     request.sample_rate = 48000;
///     request.mix = {mix_left, mix_right};
///     request.taps = {{"Drums", {drums_left, drums_right}}, {"Bass", {bass_left, bass_right}}};
///     const verdel::RenderResult result = verdel::render(request);
///     // result.stems[0].channels[0] is the left side of "Drums", as float32
///
/// A program that also plans FFTW transforms of its own calls fftw_make_planner_thread_safe() and
/// fftwf_make_planner_thread_safe(), of FFTW's threads libraries, before its threads start: VERDEL
/// plans under the same lock. Where FFTW has no threads libraries, such a program plans nothing
/// while a render runs.
///
/// Link with verdel::verdel (CMake) or `pkg-config --libs --static verdel`.
namespace verdel {

/// One channel of audio, full scale at 1.0. What it points to stays the caller's, who keeps it
/// unchanged until the render returns.
using ChannelView = std::span<const double>;

struct TapRequest {
  std::string name;
  std::vector<ChannelView> channels;  ///< as many and as long as those of the mix
};

struct RenderRequest {
  int sample_rate = 0;           ///< Hz
  std::vector<ChannelView> mix;  ///< at least one channel, all of one length
  std::vector<TapRequest> taps;  ///< at least one; the stems come out in this order
  bool align = true;             ///< move taps that are early or late, if that fits better
  /// Hear the master chain first and play the taps through it, as verdel-chain does. Where it lines
  /// up taps itself, whatever `align` says, the render moves none again.
  bool chain = false;
  std::size_t start = 0;              ///< first sample to deliver
  std::size_t stop = SIZE_MAX;        ///< behind the last one; beyond the mix: to its end
  std::size_t processors = 0;         ///< threads to use; 0: as many as the machine has
  std::string temporary_folder = {};  ///< for scratch space; empty: the system's

  /// Called now and then with what is done, 0 to 1, never falling, from one thread at a time but
  /// not always the same. Returning false cancels the render. It must not throw.
  std::function<bool(double done)> progress = {};
};

struct MovedTap {
  std::string name;
  std::ptrdiff_t samples = 0;  ///< positive: moved later
};

struct RenderedStem {
  std::string name;
  std::vector<std::vector<float>> channels;  ///< [channels][stop - start]
};

/// One curve of an equaliser, at the frequencies of its owner.
struct ResponseCurve {
  std::string name;                    ///< "master", "mid", "side", "left", "right", ...
  std::vector<double> db;              ///< 0: the level before
  std::vector<double> phase;           ///< radians
  std::vector<double> uncertainty_db;  ///< standard deviation of `db`, never below 0.3
};

struct FoundEqualiser {
  std::vector<double> hz;             ///< empty where nothing could be looked for
  std::vector<ResponseCurve> curves;  ///< one; two for mid/side or left/right; four for a matrix
};

/// A gain over the slow one that every render has; the first point is at 0 s.
struct FoundGain {
  std::string kind;                   ///< "fine": for all frequencies; "bands": one per octave
  std::vector<std::string> channels;  ///< "left", "right"; empty where one is for all channels
  std::vector<double> hz;             ///< centres of the bands
  double seconds_per_point = 0.0;
  std::vector<std::vector<std::vector<double>>> db;  ///< [channels, or one][bands][points]
};

/// What a single tap went through on its own.
struct FoundTapFilter {
  std::string name;  ///< the tap's
  std::string kind;  ///< "eq", or "effect": a room or delay that stands in the mix alone
  double cross_validation_db = 0.0, fall_db = 0.0;
  FoundEqualiser equaliser;      ///< of an "eq"
  double seconds = 0.0;          ///< of an "effect": until it has fallen by 60 dB
  double decay_step = 0.0;       ///< seconds
  std::vector<double> decay_db;  ///< its energy from 0 s on, against that of the tap
};

/// What was found of the master chain. "Left" is what the taps leave of the mix under the slow gain
/// of every render, in dB of the mix.
struct ChainResult {
  std::vector<std::string> sentences;  ///< what verdel-chain prints
  bool curve_used = false;
  std::string model;            ///< "one curve", "mid/side", "left/right", "matrix"
  FoundEqualiser curve;         ///< as it was found, used or not
  double left_before_db = 0.0;  ///< without the curve
  double left_after_db = 0.0;   ///< through the curve, used or not
  double gains_left_before_db = 0.0, gains_left_after_db = 0.0;
  double cross_validation_db = 0.0;
  double against = 0.0;  ///< 0 to 1: share of the curve's change on taps that did not go through it
  std::vector<std::optional<double>> votes;  ///< by tap: 1 went through the curve, -1 did not
  std::vector<FoundTapFilter> tap_filters;
  std::vector<FoundGain> gains;  ///< in the order in which they are played
};

struct RenderResult {
  std::vector<RenderedStem> stems;
  std::vector<MovedTap> moved;
  std::optional<ChainResult> chain;  ///< if it was asked for
  double null_peak = 0.0;  ///< dBFS of mix minus the sum of the stems; -999 where nothing is left
};

/// The request cannot be followed: shapes that do not fit, two taps of one name, too short a mix
/// (2048 samples are the least), samples that are not finite, too little memory or temporary space.
/// what() says which, with the tap's name and the sample's place.
class RenderError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The progress callback wanted no more.
class RenderCancelled : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Renders in the calling thread and some helpers, which have ended when it returns. Calls from
/// several threads at a time do not disturb each other. The same request gives the same bits on the
/// same machine, whatever the number of processors.
///
/// Memory: two floats per sample, channel and tap and two doubles per sample and channel of the
/// mix, beside the interval's working memory and the scratch space. The chain has some arrays of
/// the mix's size for itself, and gives them back before the render. Throws RenderError,
/// RenderCancelled, or std::bad_alloc; a stem that misses the mix by -140 dBFS or more is a
/// RenderError too.
RenderResult render(const RenderRequest& request);

struct CheckRequest {
  int sample_rate = 0;           ///< Hz
  std::vector<ChannelView> mix;  ///< one or two channels of one length
  std::vector<TapRequest> taps;  ///< at least one
};

/// A part of the song in seconds.
struct Stretch {
  double from = 0.0, to = 0.0;
};

/// Something that is wrong with taps, or may be.
struct TapFinding {
  std::string kind;               ///< "polarity", "lag", ...: docs/checking-taps.md has them all
  std::vector<std::string> taps;  ///< empty for what is missing
  std::vector<Stretch> where;     ///< empty: everywhere, or nowhere in particular
  std::string severity;           ///< "fix", "look", "note"
  std::string text;               ///< what, the evidence, what to do
  std::vector<std::pair<std::string, double>> figures;
};

/// What is wrong with the taps of a mix, the gravest first; what verdel-check does, without files.
/// Throws RenderError for shapes that do not fit.
std::vector<TapFinding> check(const CheckRequest& request);

/// A stem to be handed over, such as one of a RenderResult.
struct FloatStem {
  std::string name;
  std::vector<std::span<const float>> channels;  ///< as many and as long as those of the mix
};

struct DeliverRequest {
  int bits = 24;                 ///< 16 or 24
  std::vector<ChannelView> mix;  ///< at least one channel, all of one length
  std::vector<FloatStem> stems;  ///< at least one; rendered against this mix
};

struct IntegerStem {
  std::string name;
  std::vector<std::vector<std::int32_t>> channels;  ///< [channels][samples], in steps
  int largest_departure = 0;                        ///< steps from rounding this stem for itself
  double rms_departure = 0.0;                       ///< the same over all samples
  std::uint64_t samples_relieved =
      0;                            ///< where it would have clipped, and others hold what is over
  std::uint64_t samples_taken = 0;  ///< where it holds what is over in others
};

struct DeliverResult {
  std::vector<std::vector<std::int32_t>> mix;  ///< the integers that the stems sum to
  double largest_mix_change = 0.0;             ///< steps; 0 where the mix was integers already
  std::vector<IntegerStem> stems;              ///< in the order of the request
};

/// Rounds stems together to integers, full scale at 2 to the power of `bits` less one, so that they
/// sum to those of the mix at every sample; what verdel-deliver does, without files. Throws
/// RenderError for shapes that do not fit, a mix beyond full scale, samples that are not finite,
/// and stems that miss the mix by more than two steps.
DeliverResult deliver(const DeliverRequest& request);

/// The version of the library, such as "0.1.0".
const char* version();

}  // namespace verdel
