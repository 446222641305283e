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

std::map<FileIdentity, std::string> inputs_by_identity(const Plans& plans) {
  std::map<FileIdentity, std::string> inputs;
  const auto add = [&](const StemInput& input) {
    for (const std::string& file : input.files) {
      if (const auto entry = entry_at(file)) inputs.emplace(identity_of(*entry), file);
    }
  };
  add(plans.mix);
  for (const StemInput& stem : plans.stems) add(stem);
  return inputs;
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
void refuse_target(const std::string& target, const std::string& name,
                   const std::map<FileIdentity, std::string>& inputs,
                   std::map<std::string, std::string>& written) {
  const auto entry = entry_at(target);
  if (!entry) return;
  if (S_ISDIR(entry->st_mode)) {
    throw ValueError(
        fmt::format("{} is a folder, but {} is to be written there. Move the folder, or pass "
                    "another --out.",
                    quoted_path(target), quoted_path(name)));
  }
  const auto input = inputs.find(identity_of(*entry));
  if (input != inputs.end()) {
    throw ValueError(fmt::format(
        "{} would be overwritten: it is the same file as the input {}. Pass another --out.",
        quoted_path(target), quoted_path(input->second)));
  }
  const auto [other, is_first] = written.emplace(std::filesystem::canonical(target), target);
  if (is_first) return;
  throw ValueError(fmt::format(
      "{} and {} are one file by way of a link. Remove the link, or pass another --out.",
      quoted_path(other->second), quoted_path(target)));
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

  const auto out = entry_at(*options.out);
  if (out && !S_ISDIR(out->st_mode)) {
    throw ValueError(fmt::format(
        "“{}” is a file, but the stems are to be written into a folder of that name. Pass another "
        "--out.",
        *options.out));
  }
  std::vector<std::string> names;
  for (const StemInput& stem : plans->stems) names.push_back(stem.name);
  if (options.write_null) names.emplace_back(kNullResidualName);
  const auto inputs = inputs_by_identity(*plans);
  std::vector<std::string> targets;
  std::map<std::string, std::string> written;
  for (const std::string& name : names) {
    targets.push_back(join(*options.out, name + ".wav"));
    refuse_target(targets.back(), name, inputs, written);
  }
  if (all_are_there(*plans)) require_usable_place(*options.out, targets);
}

}  // namespace verdel::internal
