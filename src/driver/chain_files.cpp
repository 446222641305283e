#include "driver/chain_files.hpp"

#include <fmt/format.h>

#include <exception>
#include <filesystem>
#include <map>
#include <system_error>

#include "delivery/audio_file_writing.hpp"
#include "delivery/output_place.hpp"
#include "delivery/text_file_writing.hpp"
#include "delivery/unfinished_file.hpp"
#include "delivery/verification.hpp"
#include "driver/chain_json.hpp"
#include "driver/chain_picture.hpp"
#include "driver/input_stage.hpp"
#include "inputs/input_planning.hpp"
#include "inputs/path_text.hpp"
#include "support/errors.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

namespace fs = std::filesystem;

void require_free(const std::string& path) {
  std::error_code error;
  if (!fs::exists(fs::symlink_status(path, error))) return;
  throw OSError(quoted_path(path) + " is there already. Move it, or name another place.");
}

std::string audio_file(const std::string& folder, const std::string& name) {
  return join(folder, name + ".wav");
}

std::string folder_of(const std::string& file) {
  const std::string folder = dirname(file);
  return folder.empty() ? "." : folder;
}

/// One spelling for each place, whether anything is there or not.
std::string place_of(const std::string& path) {
  std::error_code error;
  const fs::path place = fs::weakly_canonical(fs::absolute(path), error);
  return error ? path : place.string();
}

std::vector<std::string> planned_names(const std::string& taps) {
  std::vector<std::string> names;
  try {
    for (const StemInput& stem : plan_stem_inputs(taps)) names.push_back(stem.name);
  } catch (const std::exception&) {
    return {};
  }
  return names;
}

/// The files of a run, each with the option that asks for it.
class Places {
 public:
  void take(const std::string& file, const std::string& option) {
    const auto [other, is_new] = options_.emplace(place_of(file), option);
    if (is_new) return;
    throw ValueError(fmt::format("{} and {} would both write {}. Name another place.",
                                 other->second, option, quoted_path(file)));
  }

 private:
  std::map<std::string, std::string> options_;
};

void require_heard_place(const std::string& folder, const std::string& taps,
                         const std::vector<std::string>& names, Places& places) {
  if (place_of(folder) == place_of(taps)) {
    throw ValueError(fmt::format(
        "{} is the folder of the taps, which has no room for others. Pass another --taps-to.",
        quoted_path(folder)));
  }
  std::vector<std::string> files;
  for (const std::string& name : names) {
    files.push_back(audio_file(folder, name));
    places.take(files.back(), "--taps-to");
    require_free(files.back());
  }
  require_usable_place(folder, files);
}

void require_file_place(const std::string& file, const std::string& option, Places& places) {
  places.take(file, option);
  require_free(file);
  require_usable_place(folder_of(file), {file});
}

/// What a killed run has left in the folder goes.
void prepare(const std::string& folder, const std::vector<std::string>& files) {
  make_folder(folder);
  sweep_unfinished_files(folder, files);
}

void write_heard(const std::string& folder, const StemMap& taps, int sr, const StopToken& stop) {
  std::vector<std::string> files;
  for (const auto& tap : taps) files.push_back(audio_file(folder, tap.name));
  prepare(folder, files);
  for (std::size_t i = 0; i < taps.size(); ++i) {
    const StemView audio = taps[i].audio.view();
    require_free(files[i]);
    AudioFileWriter writer(files[i],
                           {.sr = sr, .channels = audio.rows(), .frames = audio.columns()});
    writer.write(audio, stop);
    writer.commit();
  }
}

void write_bytes(const std::string& file, const std::string& bytes) {
  prepare(folder_of(file), {file});
  require_free(file);
  write_text_file(file, bytes);
}

}  // namespace

void require_chain_places(const ChainOptions& chain, const Options& render) {
  const auto names = planned_names(*render.taps);
  Places places;
  if (!chain.look) {
    for (const std::string& name : names) places.take(audio_file(*render.out, name), "--out");
    if (render.write_null) places.take(audio_file(*render.out, kNullResidualName), "--write-null");
  }
  if (chain.json) require_file_place(*chain.json, "--json", places);
  if (chain.picture) require_file_place(*chain.picture, "--picture", places);
  if (chain.taps_to) require_heard_place(*chain.taps_to, *render.taps, names, places);
}

void write_chain_files(const ChainOptions& chain, const ChainFinding& finding, const StemMap& taps,
                       int sr, const StopToken& stop) {
  const auto names = names_of(taps);
  if (chain.taps_to) write_heard(*chain.taps_to, taps, sr, stop);
  if (chain.json) write_bytes(*chain.json, chain_json(finding, names, sr));
  if (chain.picture) {
    write_bytes(*chain.picture,
                chain_picture(finding, names, sr, *picture_format_of(*chain.picture)));
  }
}

}  // namespace verdel::internal
