#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

/// The allocator's constants: the geometry of its spectrum, and the tuning of its decisions, which
/// was set by ear on drum-heavy mixes. Powers of audio between 0 and full scale are meant where no
/// unit is named.
namespace verdel::internal {

// Geometry. A cell is one (bin, frame) pair.
inline constexpr std::size_t C14_FFT_SIZE = 2048;  ///< samples; also the shortest signal accepted
inline constexpr std::size_t C14_HOP = 256;        ///< samples between frames
inline constexpr std::size_t C14_BINS = C14_FFT_SIZE / 2 + 1;
static_assert(C14_FFT_SIZE % C14_HOP == 0, "overlap-add works in whole hops");

// The past that is consulted.
inline constexpr std::array<std::size_t, 9> C14_HISTORY_DELAYS = {4,  7,  11, 17, 26,
                                                                  40, 64, 96, 144};  ///< frames
inline constexpr double C14_HISTORY_TAU = 0.42;  ///< seconds in which the past fades to 1/e

// Scores.
inline constexpr double C14_SUPPORT_EXPONENT = 0.75;
inline constexpr std::size_t C14_SUPPORT_SMOOTH_FRAMES = 5;
inline constexpr std::size_t C14_COHERENCE_SMOOTH_FRAMES = 9;
inline constexpr float C14_COHERENCE_BASE = 0.05F, C14_COHERENCE_WEIGHT = 0.95F;
inline constexpr float C14_PRESENT_BASE = 0.2F, C14_PRESENT_WEIGHT = 0.8F;

// The tail gate: pairs of edges between which a test opens.
inline constexpr std::size_t C14_LATER_SUPPORT_FRAMES = 47;
inline constexpr double C14_BASS_FADE_LOW_HZ = 350.0, C14_BASS_FADE_HIGH_HZ = 700.0;
inline constexpr double C14_SHARE_GAIN_LOW = 0.025, C14_SHARE_GAIN_HIGH = 0.18;
inline constexpr double C14_TAIL_RATIO_LOW = 2.0, C14_TAIL_RATIO_HIGH = 8.0;
inline constexpr double C14_LATER_RATIO_LOW = 0.25, C14_LATER_RATIO_HIGH = 0.9;
inline constexpr double C14_DOMINANCE_LOW = 0.6, C14_DOMINANCE_HIGH = 0.88;
inline constexpr double C14_TRANSIENT_SHARE_LOW = 0.2, C14_TRANSIENT_SHARE_HIGH = 0.7;
inline constexpr double C14_TAIL_STRENGTH = 0.8;  ///< the largest value of the gate

// Onsets.
inline constexpr std::size_t C14_ONSET_BASELINE_FRAMES = 39;
inline constexpr double C14_ONSET_RATIO_LOW = 1.8, C14_ONSET_RATIO_HIGH = 5.0;
inline constexpr double C14_FLATNESS_LOW = 0.04, C14_FLATNESS_HIGH = 0.22;
inline constexpr double C14_FLATNESS_FLOOR = 1e-6;  ///< relative to the band's mean
inline constexpr double C14_TRANSIENT_BAND_LOW_HZ = 500.0, C14_TRANSIENT_BAND_HIGH_HZ = 12000.0;

// Guards.
inline constexpr double C14_POWER_FLOOR = 1e-30;
inline constexpr double C14_SCORE_FLOOR = 1e-25;
inline constexpr double C14_CONSERVATION_TOLERANCE = 2e-6;  ///< of the larger of 1.0 and the peak

// Intervals of a long span.
inline constexpr std::size_t C14_CONTEXT_BEFORE_HOPS = 256, C14_CONTEXT_AFTER_HOPS = 128;
inline constexpr double C14_INTERVAL_SECONDS = 20.0, C14_INTERVAL_MIN_SECONDS = 60.0;
// Everything that a sample depends on lies inside the context: the longest delay behind a full
// onset baseline, and the frames looked ahead, each with moving averages and overlapping frames.
static_assert(C14_HISTORY_DELAYS.back() + C14_ONSET_BASELINE_FRAMES + 40 < C14_CONTEXT_BEFORE_HOPS);
static_assert(C14_LATER_SUPPORT_FRAMES + 40 < C14_CONTEXT_AFTER_HOPS);

// Budgets, in bytes and samples.
inline constexpr std::uint64_t C14_DISK_MARGIN = 2147483648;    ///< kept free on the volume
inline constexpr std::uint64_t C14_LARGE_MEMORY = 51539607552;  ///< lifts C14_LONG_FRAMES
inline constexpr std::size_t C14_LONG_FRAMES = 2500000;

inline constexpr std::size_t C14_STEPS_PER_STEM = 6;  ///< progress steps: one a phase

}  // namespace verdel::internal
