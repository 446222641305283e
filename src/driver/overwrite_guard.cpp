#include "driver/overwrite_guard.hpp"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "delivery/output_place.hpp"
#include "delivery/verification.hpp"
#include "inputs/input_planning.hpp"
#include "inputs/path_text.hpp"
#include "support/errors.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

/// What tells files apart whatever they are called.
using FileIdentity = std::pair<dev_t, ino_t>;

std::optional<struct stat> entry_at(const std::string& path) {
  struct stat entry {};
  if (stat(path.c_str(), &entry) != 0) return std::nullopt;
  return entry;
}

FileIdentity identity_of(const struct stat& entry) {
  return {entry.st_dev, entry.st_ino};
}

struct Plans {
  StemInput mix;
  std::vector<StemInput> stems;
};

std::optional<Plans> plan(const Options& options) {
  try {
    return Plans{plan_mix_input(*options.mix), plan_stem_inputs(*options.taps)};
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::vector<StemInput> inputs_of(const Plans& plans) {
  std::vector<StemInput> inputs = plans.stems;
  inputs.insert(inputs.begin(), plans.mix);
  return inputs;
}

std::map<FileIdentity, std::string> by_identity(const std::vector<StemInput>& inputs) {
  std::map<FileIdentity, std::string> identities;
  for (const StemInput& input : inputs) {
    for (const std::string& file : input.files) {
      if (const auto entry = entry_at(file)) identities.emplace(identity_of(*entry), file);
    }
  }
  return identities;
}

void refuse_null_residual_as_stem(const Plans& plans) {
  for (const StemInput& stem : plans.stems) {
    if (_normalized_stem_name(stem.name) != _normalized_stem_name(kNullResidualName)) continue;
    throw ValueError(
        fmt::format("--write-null would write the null residual over the stem “{}” of “{}”. Rename "
                    "the tap, or leave out --write-null.",
                    stem.name, stem.files.front()));
  }
}

/// Looks at what stands under an output's name. `written` holds the files of the outputs before it,
/// behind all links: those are written through, and no file can hold two stems.
void refuse_target(const std::string& target, const std::string& name, const std::string& option,
                   const std::map<FileIdentity, std::string>& inputs,
                   std::map<std::string, std::string>& written) {
  const auto entry = entry_at(target);
  if (!entry) return;
  if (S_ISDIR(entry->st_mode)) {
    throw ValueError(
        fmt::format("{} is a folder, but {} is to be written there. Move the folder, or pass "
                    "another {}.",
                    quoted_path(target), quoted_path(name), option));
  }
  const auto input = inputs.find(identity_of(*entry));
  if (input != inputs.end()) {
    throw ValueError(fmt::format(
        "{} would be overwritten: it is the same file as the input {}. Pass another {}.",
        quoted_path(target), quoted_path(input->second), option));
  }
  const auto [other, is_first] = written.emplace(std::filesystem::canonical(target), target);
  if (is_first) return;
  throw ValueError(
      fmt::format("{} and {} are one file by way of a link. Remove the link, or pass another {}.",
                  quoted_path(other->second), quoted_path(target), option));
}

/// What is missing is told in its turn, before a place that cannot be used.
bool all_are_there(const Plans& plans) {
  const auto is_there = [](const StemInput& input) {
    return std::ranges::all_of(input.files,
                               [](const auto& file) { return entry_at(file).has_value(); });
  };
  return !plans.stems.empty() && is_there(plans.mix) && std::ranges::all_of(plans.stems, is_there);
}

}  // namespace

void refuse_overwriting(const Options& options) {
  const auto plans = plan(options);
  if (!plans) return;
  if (options.write_null) refuse_null_residual_as_stem(*plans);

  OutputFiles outputs{.folder = *options.out, .option = "--out", .names = {}, .paths = {}};
  for (const StemInput& stem : plans->stems) outputs.names.push_back(stem.name);
  if (options.write_null) outputs.names.emplace_back(kNullResidualName);
  for (const std::string& name : outputs.names) {
    outputs.paths.push_back(join(outputs.folder, name + ".wav"));
  }
  refuse_overwriting(outputs, inputs_of(*plans));
  if (all_are_there(*plans)) require_usable_place(outputs.folder, outputs.paths);
}

void refuse_overwriting(const OutputFiles& outputs, const std::vector<StemInput>& inputs) {
  const auto folder = entry_at(outputs.folder);
  if (folder && !S_ISDIR(folder->st_mode)) {
    throw ValueError(fmt::format(
        "“{}” is a file, but the stems are to be written into a folder of that name. Pass another "
        "{}.",
        outputs.folder, outputs.option));
  }
  const auto identities = by_identity(inputs);
  std::map<std::string, std::string> written;
  for (std::size_t i = 0; i < outputs.paths.size(); ++i) {
    refuse_target(outputs.paths[i], outputs.names[i], outputs.option, identities, written);
  }
}

}  // namespace verdel::internal
