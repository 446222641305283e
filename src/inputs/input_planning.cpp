#include "inputs/input_planning.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <string_view>
#include <tuple>

#include "inputs/folder.hpp"
#include "inputs/path_text.hpp"
#include "support/errors.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal {
namespace {

using Paths = std::vector<std::string>;

// The two sides of a pair as they were found in a folder.
struct Sides {
  std::string name;
  Paths left, right;

  void add(const std::string& path, const std::pair<std::string, char>& parsed) {
    if (parsed.second == 'l') name = parsed.first;
    (parsed.second == 'l' ? left : right).push_back(path);
  }
};

// Names that differ in their Unicode form only have equal keys; their bytes then decide, since a
// listing has no order of its own.
void sort_by_name(Paths& names) {
  using Key = std::tuple<std::pair<std::string, std::string>, std::string>;
  std::vector<Key> keys;
  keys.reserve(names.size());
  for (std::string& name : names) {
    auto key = _audio_filename_sort_key(name);
    keys.emplace_back(std::move(key), std::move(name));
  }
  std::sort(keys.begin(), keys.end());
  std::transform(keys.begin(), keys.end(), names.begin(),
                 [](Key& key) { return std::move(std::get<1>(key)); });
}

bool is_hidden(const std::string& name) {
  return name.starts_with('.');
}

bool is_audio_name(const std::string& name) {
  return has_audio_extension(split_extension(name).extension);
}

// Only the file's own name becomes a stem's; the folders before it may be called anything.
void require_utf8(const std::string& path) {
  if (is_valid_utf8(basename(path))) return;
  throw ValueError(quoted_path(path) + " has a name that is not valid UTF-8. Rename it.");
}

Paths sorted_names(const Paths& files) {
  Paths names;
  names.reserve(files.size());
  for (const std::string& file : files) names.push_back(basename(file));
  sort_by_name(names);
  return names;
}

// A line of its own that tells names apart which differ in their Unicode form only and so look the
// same; nothing where there are none.
std::string tell_lookalikes_apart(const Paths& files) {
  const Paths names = sorted_names(files);
  Paths alike;
  for (const std::string& name : names) {
    const bool has_double = std::ranges::any_of(
        names, [&](const std::string& other) { return other != name && nfc(other) == nfc(name); });
    if (has_double) alike.push_back(spelt_out(name));
  }
  if (alike.empty()) return "";
  return fmt::format("\nThey look the same, but their letters are coded differently: {}.",
                     fmt::join(alike, " and "));
}

[[noreturn]] void refuse_files(const Paths& files, const std::string& reason) {
  throw ValueError(_quoted_files(files) + " " + reason + tell_lookalikes_apart(files));
}

// `kind` is what the messages call the name, "mix " or nothing.
void require_single_sides(const Sides& sides, std::string_view kind) {
  const auto require = [&](const Paths& paths, std::string_view side) {
    if (paths.size() < 2) return;
    refuse_files(
        paths, fmt::format("are duplicate {} sides for {}{}. Keep exactly one .L and one .R file.",
                           side, kind, quoted_path(sides.name)));
  };
  require(sides.left, "left");
  require(sides.right, "right");
}

// `selected` stands in where neither side was found.
[[noreturn]] void fail_missing_side(const Sides& sides, std::string_view kind,
                                    const std::string& selected) {
  const std::string& present = !sides.left.empty()    ? sides.left.front()
                               : !sides.right.empty() ? sides.right.front()
                                                      : selected;
  throw ValueError(fmt::format("{} is missing its matching {} mono {}file for {}.",
                               quoted_path(basename(present)), sides.left.empty() ? ".L" : ".R",
                               kind, quoted_path(sides.name)));
}

// A folder's audio files by what their names make of them, under their keys.
struct SortedFolder {
  std::map<std::string, Paths> standalone;
  std::map<std::string, Sides> pairs;
};

SortedFolder sort_folder(const std::string& folder) {
  Paths entries = list_folder(folder);
  std::erase_if(entries,
                [](const std::string& entry) { return is_hidden(entry) || !is_audio_name(entry); });
  std::sort(entries.begin(), entries.end());
  std::for_each(entries.begin(), entries.end(), require_utf8);
  sort_by_name(entries);

  SortedFolder sorted;
  for (const std::string& entry : entries) {
    const std::string path = join(folder, entry);
    const auto parsed = _terminal_side(entry);
    if (!parsed) {
      sorted.standalone[_normalized_stem_name(split_extension(entry).stem)].push_back(path);
      continue;
    }
    if (parsed->first.empty()) {
      throw ValueError(quoted_path(entry) + " has no stem name before its .L or .R suffix.");
    }
    auto [pair, created] = sorted.pairs.try_emplace(_normalized_stem_name(parsed->first));
    if (created) pair->second.name = parsed->first;
    pair->second.add(path, *parsed);
  }
  return sorted;
}

// Key by key, every fault of one before the next is looked at, so that the same folder always
// draws the same message.
void refuse_clashes(const SortedFolder& sorted) {
  for (const auto& [key, sides] : sorted.pairs) {
    require_single_sides(sides, "");
    if (sides.left.empty() || sides.right.empty()) fail_missing_side(sides, "", "");
    const auto standalone = sorted.standalone.find(key);
    if (standalone == sorted.standalone.end()) continue;
    Paths files = standalone->second;
    files.insert(files.end(), {sides.left.front(), sides.right.front()});
    refuse_files(files, fmt::format("would all use the logical stem name {}. Rename the standalone "
                                    "file or the .L/.R pair.",
                                    quoted_path(sides.name)));
  }
  for (const auto& [key, paths] : sorted.standalone) {
    if (paths.size() < 2) continue;
    refuse_files(
        paths,
        "would print with the same stem name. Rename one so every source stem has a unique "
        "name.");
  }
}

}  // namespace

std::string _normalized_stem_name(const std::string& name) {
  return lower(nfc(name));
}

std::pair<std::string, std::string> _audio_filename_sort_key(const std::string& filename) {
  std::string normalized = nfc(filename);
  std::string key = lower(normalized);
  return {std::move(key), std::move(normalized)};
}

std::string _quoted_files(const std::vector<std::string>& paths) {
  Paths names = sorted_names(paths);
  for (std::string& name : names) name = quoted_path(name);
  return fmt::format("{}", fmt::join(names, " and "));
}

std::optional<std::pair<std::string, char>> _terminal_side(const std::string& path) {
  const auto [stem, extension] = split_extension(basename(path));
  if (!has_audio_extension(extension) || stem.size() < 2) return std::nullopt;
  // Only these letters themselves have "l" and "r" as their lower case.
  const std::string_view suffix = std::string_view(stem).substr(stem.size() - 2);
  const bool is_left = suffix == ".l" || suffix == ".L";
  if (!is_left && suffix != ".r" && suffix != ".R") return std::nullopt;
  return std::pair(stem.substr(0, stem.size() - 2), is_left ? 'l' : 'r');
}

StemInput plan_mix_input(const std::string& selected_path) {
  require_utf8(selected_path);
  const auto selected = _terminal_side(selected_path);
  const std::string selected_name = basename(selected_path);
  if (!selected) return {split_extension(selected_name).stem, {selected_path}};
  if (selected->first.empty()) {
    throw ValueError(quoted_path(selected_name) + " has no mix name before its .L or .R suffix.");
  }

  const std::string key = _normalized_stem_name(selected->first);
  const std::string folder = dirname(absolute(selected_path));
  Paths entries = list_folder(folder);
  std::erase_if(entries, [](const std::string& entry) {
    return is_hidden(entry) || !_terminal_side(entry) || !is_valid_utf8(entry);
  });
  sort_by_name(entries);
  Sides sides{selected->first, {}, {}};
  for (const std::string& entry : entries) {
    const auto parsed = _terminal_side(entry);
    if (_normalized_stem_name(parsed->first) == key) sides.add(join(folder, entry), *parsed);
  }
  require_single_sides(sides, "mix ");
  if (sides.left.empty() || sides.right.empty()) fail_missing_side(sides, "mix ", selected_path);
  return {sides.name, {sides.left.front(), sides.right.front()}};
}

std::vector<StemInput> plan_stem_inputs(const std::string& folder) {
  const SortedFolder sorted = sort_folder(folder);
  refuse_clashes(sorted);
  // Keys are unique now, so a map's order is the order of the stems.
  std::map<std::string, StemInput> stems;
  for (const auto& [key, paths] : sorted.standalone) {
    stems[key] = {split_extension(basename(paths.front())).stem, paths};
  }
  for (const auto& [key, sides] : sorted.pairs) {
    stems[key] = {sides.name, {sides.left.front(), sides.right.front()}};
  }
  std::vector<StemInput> plan;
  plan.reserve(stems.size());
  for (auto& [key, stem] : stems) plan.push_back(std::move(stem));
  return plan;
}

}  // namespace verdel::internal
