#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <set>

#include "fuzz/fuzzing.hpp"
#include "inputs/input_planning.hpp"
#include "inputs/path_text.hpp"
#include "inputs/project_resolution.hpp"
#include "support/temporary_folder.hpp"
#include "support/unicode_text.hpp"

namespace verdel::internal::fuzzing {
namespace {

using Names = std::vector<std::string>;
using Plan = std::vector<StemInput>;

// A project in which a folder of taps, which is the folder of the mix as well, holds empty files.
class Project {
 public:
  // Returns the names that the file system took.
  Names fill(const Names& names) {
    ::mkdir(taps().c_str(), 0700);
    Names taken;
    for (const std::string& name : names) {
      const int file = ::open(join(taps(), name).c_str(), O_CREAT | O_EXCL | O_WRONLY, 0600);
      if (file < 0) continue;
      ::close(file);
      taken.push_back(name);
    }
    return taken;
  }
  void empty(const Names& names) {
    for (const std::string& name : names) ::unlink(join(taps(), name).c_str());
  }
  std::string path() const { return folder_.path(); }
  std::string taps() const { return folder_.path("mix"); }

 private:
  testing::TemporaryFolder folder_;
};

// A plan, or the message that there is none for, without the folder's path.
struct Outcome {
  std::optional<Plan> plan;
  std::string message;
};

template <class Action>
Outcome outcome_of(Action action) {
  Outcome outcome;
  outcome.plan = attempt(action, &outcome.message);
  return outcome;
}

bool same(const Outcome& one, const Outcome& other) {
  const auto same_input = [](const StemInput& a, const StemInput& b) {
    return a.name == b.name &&
           std::equal(a.files.begin(), a.files.end(), b.files.begin(), b.files.end(),
                      [](const auto& x, const auto& y) { return basename(x) == basename(y); });
  };
  if (!one.plan || !other.plan) return !one.plan && !other.plan && one.message == other.message;
  return std::equal(one.plan->begin(), one.plan->end(), other.plan->begin(), other.plan->end(),
                    same_input);
}

bool is_tap(const std::string& name) {
  return !name.starts_with('.') && has_audio_extension(split_extension(name).extension);
}

// Every audio file is part of exactly one stem, and every stem is written to a file of its own
// inside the output folder.
void require_sound(const Plan& plan, const Names& names, const std::string& folder) {
  std::multiset<std::string> expected, used;
  for (const std::string& name : names) {
    if (is_tap(name)) expected.insert(join(folder, name));
  }
  const std::string out = "/out";
  std::string last_key;
  for (const StemInput& stem : plan) {
    used.insert(stem.files.begin(), stem.files.end());
    require(stem.files.size() == 1 || stem.files.size() == 2, "one file or a pair");
    require(is_valid_utf8(stem.name), "a stem's name is valid UTF-8");
    const std::string key = _normalized_stem_name(stem.name);
    require(&stem == plan.data() || last_key < key, "stems have keys of their own, in order");
    require(_normalized_stem_name(key) == key, "a key is its own key");
    last_key = key;
    const std::string target = absolute(join(out, stem.name + ".wav"));
    require(dirname(target) == out && basename(target) == stem.name + ".wav",
            "a stem is written inside the output folder");
    require(!stem.name.empty() && basename(target).size() <= 255 && !target.ends_with("/.wav"),
            "a stem's file has a name that a file can have");
  }
  require(used == expected, "every tap is part of one stem");
}

// A mix is planned as the taps of its folder are, where those have a plan.
void require_sound_mix(const Project& project, const std::string& name, const Outcome& taps) {
  const std::string path = join(project.taps(), name);
  const auto mix = attempt([&] { return plan_mix_input(path); });
  if (!taps.plan || !is_tap(name)) return;
  require(mix.has_value(), "a mix among taps that have a plan has one");
  require(std::any_of(taps.plan->begin(), taps.plan->end(),
                      [&](const StemInput& stem) {
                        return stem.name == mix->name && stem.files == mix->files;
                      }),
          "a mix is planned like a tap");
}

void require_sound_resolution(const Project& project, const Names& names) {
  ProjectPaths paths{.project = project.path(), .taps = project.taps()};
  const auto lines = attempt([&] { return resolve(paths); });
  const auto count = std::count_if(names.begin(), names.end(), ends_like_audio);
  require(lines.has_value() == (count == 1), "a mix is found where there is one");
  if (!lines) return;
  require(lines->size() == 4 && std::all_of(lines->begin(), lines->end(), is_valid_utf8),
          "lines that can be printed");
  require(dirname(*paths.mix) == project.taps() && *paths.out == join(project.path(), "out"),
          "paths inside the project");
}

}  // namespace
}  // namespace verdel::internal::fuzzing

// The input is a list of names, separated by slashes; no file can have one in its name.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace verdel::internal;
  using namespace verdel::internal::fuzzing;
  constexpr std::size_t kMostNames = 16;
  static Project project, mirror;

  Names names = split(text_of(data, size), '/');
  if (names.size() > kMostNames) names.resize(kMostNames);
  std::erase_if(names, [](const std::string& name) {
    return name.empty() || name.find('\0') != std::string::npos;
  });
  names = project.fill(names);
  mirror.fill({names.rbegin(), names.rend()});

  const Outcome outcome = outcome_of([] { return plan_stem_inputs(project.taps()); });
  require(same(outcome, outcome_of([] { return plan_stem_inputs(mirror.taps()); })),
          "a plan depends on the set of names alone");
  if (outcome.plan) require_sound(*outcome.plan, names, project.taps());
  if (!names.empty()) require_sound_mix(project, names.front(), outcome);
  require_sound_resolution(project, names);

  project.empty(names);
  mirror.empty(names);
  return 0;
}
