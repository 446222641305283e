#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "delivery/audio_file_writing.hpp"
#include "handover/delivery_names.hpp"
#include "handover/integer_stems.hpp"
#include "handover/manifest.hpp"
#include "inputs/input_planning.hpp"
#include "support/stop_token.hpp"

namespace verdel::internal {

struct DeliveryFormat {
  FileType type = FileType::kWav;
  SampleType samples = SampleType::kInteger24;

  bool is_integer() const { return samples != SampleType::kFloat32; }
  IntegerGrid grid() const { return {static_cast<int>(8 * bytes_of(samples))}; }
  std::string bits() const;       ///< as the command line spells them
  std::string extension() const;  ///< with its dot
};

/// What is handed over, and where to.
struct Handover {
  StemInput mix;
  std::vector<StemInput> stems;
  std::string to;  ///< the folder
  DeliveryFormat format;
  std::size_t workers = 1;  ///< threads; no sample and no line depends on it
  StopToken stop = {};
  /// Told of what is done of "write" and "prove"; may be empty. Called on the calling thread.
  std::function<void(std::string_view phase, std::size_t done, std::size_t total)> progress = {};
};

/// What the headers of a mix and its stems say, and what becomes of them.
struct HandoverPlan {
  int sr = 0;  ///< Hz
  std::size_t channels = 0, frames = 0;
  std::optional<int> mix_bits;  ///< of the mix's integers; absent for floating point
  bool rounds_mix = false;      ///< a mix rounded to the format is delivered too
  DeliveryNames names;
};

/// Opens all inputs, decodes none that tells its length, and names the files.
///
/// Errors: ValueError for stems of another rate, channel count or length than the mix, for a format
/// that cannot hold them, and those of delivery_names; those of open_audio_input.
HandoverPlan plan_handover(const Handover& job, const std::string& name_template);

struct HandedOver {
  MixRounding mix_rounding;                  ///< all zero where the mix is integers already
  std::vector<StemRounding> stem_roundings;  ///< by stem; empty for floats
  double null_peak = -999.0;                 ///< dBFS of mix minus stems, from the written files
  Manifest manifest;
};

/// Rounds and writes the stems, reads them back, proves their sum, and gives them their names only
/// then, the manifest last. Reads mix and stems twice, block by block: memory does not grow with
/// their length. The folder and its parents are made if need be; unfinished files that a killed run
/// has left in it are removed.
///
/// Floats are written as they are, and proved to `threshold` dBFS as a render is; integers exactly.
///
/// Errors: ValueError for a mix beyond full scale, stems that miss it, samples that are no numbers;
/// RuntimeError for files that do not hold what was written; OSError; Cancelled. After any of them
/// nothing of the delivery is there, unless the system refuses a name when others are taken.
HandedOver hand_over(const Handover& job, const HandoverPlan& plan, double threshold);

/// "sample 44100 (1.000 s) of channel 1".
std::string place_text(std::size_t frame, std::size_t channel, int sr);

}  // namespace verdel::internal
