#pragma once

#include <string>
#include <utility>
#include <vector>

namespace verdel::internal {

/// What a finding asks for: mend it before a render; look whether it is meant; nothing, but know
/// it.
enum class Severity { kFix, kLook, kNote };

/// "fix", "look", "note".
constexpr const char* name_of(Severity severity) {
  return severity == Severity::kFix ? "fix" : severity == Severity::kLook ? "look" : "note";
}

/// A part of the song in seconds.
struct Stretch {
  double from = 0.0, to = 0.0;
};

/// Something that is wrong with taps, or may be.
struct Finding {
  std::string kind;               ///< one word, the same for every finding of its sort
  std::vector<std::string> taps;  ///< whom it is about; empty for the mix itself
  Severity severity = Severity::kNote;
  std::string text;                                     ///< what, the evidence, and what to do
  std::vector<Stretch> where;                           ///< empty: all of it
  std::vector<std::pair<std::string, double>> figures;  ///< the evidence
};

}  // namespace verdel::internal
