#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

/// What the inputs of a run are, decided from file names alone: mono pairs are grouped, every input
/// has one name, and names that clash are refused with a ValueError that says what to rename.
namespace verdel::internal {

/// One logical input.
struct StemInput {
  std::string name;                ///< as the file spells it; what the delivered stem is called
  std::vector<std::string> files;  ///< one whole file, or the left and the right mono file
};

/// The form under which two names count as the same: lower case, one Unicode form.
std::string _normalized_stem_name(const std::string& name);

/// The order of files: by key, then by the name itself in one Unicode form.
std::pair<std::string, std::string> _audio_filename_sort_key(const std::string& filename);

/// The files' names for a message, sorted: “a.wav” and “b.wav”.
std::string _quoted_files(const std::vector<std::string>& paths);

/// A mono file's stem name and its side, 'l' or 'r'; nothing if the name has no such ending.
std::optional<std::pair<std::string, char>> _terminal_side(const std::string& path);

/// The mix that the file belongs to: itself, or the pair that it is one side of. A pair is looked
/// up in its folder (OSError if that cannot be listed) and comes with absolute paths.
StemInput plan_mix_input(const std::string& selected_path);

/// The stems of a folder in stem order, by key; empty if it has no audio files. Hidden files are
/// skipped. Throws OSError if the folder cannot be listed.
std::vector<StemInput> plan_stem_inputs(const std::string& folder);

}  // namespace verdel::internal
