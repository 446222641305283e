#include "driver/overwrite_guard.hpp"

#include <fmt/format.h>
#include <sys/stat.h>

#include <exception>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "inputs/input_planning.hpp"
#include "inputs/path_text.hpp"
#include "support/errors.hpp"

namespace verdel::internal {
namespace {

constexpr const char* kNullResidualName = "_NULL_RESIDUAL";

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
  for (const std::string& name : names) {
    const std::string target = join(*options.out, name + ".wav");
    const auto entry = entry_at(target);
    if (!entry) continue;
    if (S_ISDIR(entry->st_mode)) {
      throw ValueError(
          fmt::format("“{}” is a folder, but “{}” is to be written there. Move the folder, or pass "
                      "another --out.",
                      target, name));
    }
    const auto input = inputs.find(identity_of(*entry));
    if (input != inputs.end()) {
      throw ValueError(fmt::format(
          "“{}” would be overwritten: it is the same file as the input “{}”. Pass another --out.",
          target, input->second));
    }
  }
}

}  // namespace verdel::internal
