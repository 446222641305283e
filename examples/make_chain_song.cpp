#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "chain_songs.hpp"
#include "project_files.hpp"

// Makes a project whose true stems are known: OUT/taps and OUT/mix as for any project, and
// OUT/true/NAME.wav, what each tap alone became in the very chain that made the mix.
namespace demo {
namespace {

namespace fs = std::filesystem;

constexpr const char* kUsage =
    "usage: make_chain_song SONG OUT [--seconds S]\n"
    "       make_chain_song --list\n";
constexpr double kCeiling = 0.97;
constexpr double kLateSeconds = 0.007;

std::size_t frames_of(const ChainSong& song) {
  return static_cast<std::size_t>(std::lround(song.seconds * song.rate));
}

Stem play_tap(const ChainSong& song, const Tap& tap, std::uint64_t seed) {
  Stem stem{tap.name, Stereo(frames_of(song))};
  const double level = std::pow(10.0, tap.db / 20.0);
  for (const auto& [instrument, variation] : tap.voices) {
    Random random(seed++);
    const auto notes = part_of(instrument, song.seconds, song.arrangement, random);
    const Stereo voice = play(instrument, variation, notes, song.arrangement.seconds_per_beat(),
                              stem.sound.frames(), song.rate, random);
    for (std::size_t i = 0; i < voice.frames(); ++i) {
      stem.sound.left[i] += level * voice.left[i];
      stem.sound.right[i] += level * voice.right[i];
    }
  }
  return stem;
}

void make_song(const ChainSong& song, const fs::path& out) {
  // A tap of another song among these would be heard as one of theirs.
  make_folders(out, "name another folder");
  fs::create_directories(out / "true");
  const FileForm form{.sr = song.rate};
  std::vector<Stem> stems;
  for (const Tap& tap : taps_of(song)) {
    stems.push_back(play_tap(song, tap, song.seed * 1000003u + 10 * stems.size()));
    keep_below(stems.back().sound, kCeiling);
    if (tap.name == song.unbounced) continue;
    const double late = tap.name == song.late ? kLateSeconds : 0.0;
    write_wav(out / "taps" / (tap.name + ".wav"), stems.back().sound, form,
              static_cast<std::size_t>(std::lround(late * song.rate)));
  }
  play_through(song.chain, stems, song.rate);
  Stereo mix = sum_of(stems);
  const double gain = keep_below(mix, kCeiling);
  for (Stem& stem : stems) {
    for (auto* side : {&stem.sound.left, &stem.sound.right}) {
      for (double& value : *side) value *= gain;
    }
    if (stem.name == song.unbounced) continue;
    write_wav(out / "true" / (stem.name + ".wav"), stem.sound,
              {.sr = song.rate, .format = SampleFormat::kFloat32});
  }
  write_wav(out / "mix" / "mix.wav", mix, form);
}

struct Options {
  std::string song;
  fs::path out;
  double seconds = 0.0;  // 0: as long as the song is
};

Options parse(const std::vector<std::string>& words) {
  Options options;
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (words[i] == "--seconds" && i + 1 < words.size()) {
      options.seconds = std::atof(words[++i].c_str());
      if (!(options.seconds >= 1.0)) throw std::invalid_argument("--seconds takes 1 and more");
    } else if (words[i].starts_with("-") || !options.out.empty()) {
      throw std::invalid_argument("“" + words[i] + "” is not understood");
    } else if (options.song.empty()) {
      options.song = words[i];
    } else {
      options.out = words[i];
    }
  }
  if (options.out.empty()) throw std::invalid_argument("a song and a folder are needed");
  return options;
}

void run(const std::vector<std::string>& words) {
  const std::vector<ChainSong> songs = chain_songs();
  if (words == std::vector<std::string>{"--list"}) {
    for (const auto& song : songs) std::printf("%s\t%s\n", song.name.c_str(), song.what.c_str());
    return;
  }
  const Options options = parse(words);
  const auto found = std::ranges::find(songs, options.song, &ChainSong::name);
  if (found == songs.end()) throw std::invalid_argument("no song “" + options.song + "”");
  ChainSong song = *found;
  if (options.seconds > 0.0) song.seconds = options.seconds;
  make_song(song, options.out);
  std::printf("%s: %s\n", options.out.c_str(), song.what.c_str());
}

}  // namespace
}  // namespace demo

int main(int argc, char** argv) {
  try {
    demo::run({argv + 1, argv + argc});
    return EXIT_SUCCESS;
  } catch (const std::invalid_argument& misuse) {
    std::fprintf(stderr, "%smake_chain_song: %s; see --list\n", demo::kUsage, misuse.what());
    return 2;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "make_chain_song: %s\n", failure.what());
    return EXIT_FAILURE;
  }
}
