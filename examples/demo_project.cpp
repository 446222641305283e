#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "instruments.hpp"
#include "master_chain.hpp"
#include "project_files.hpp"
#include "song.hpp"

// Makes a project to render: OUT/taps with one file a stem, and OUT/mix/mix.wav, the same taps
// through a master chain. The same arguments give the same files.
namespace demo {
namespace {

constexpr const char* kUsage =
    "usage: demo_project OUT [--seconds S] [--stems N] [--channels 1|2] [--rate HZ] [--seed K] "
    "[--no-late] [--master-eq] [--replace]\n"
    "  --master-eq begins the master with an EQ, whose response goes to OUT/master-eq.csv.\n"
    "  --replace lets OUT hold a project already, whose files it writes over.\n"
    "  Without options: 30 s, 6 stems, stereo, 44100 Hz, the snare's tap bounced 7 ms late.\n";

constexpr double kLateSeconds = 0.007;

struct Options {
  std::filesystem::path out;
  double seconds = 30.0;
  int stems = 6;
  int channels = 2;
  int rate = 44100;
  std::uint64_t seed = 1;
  bool late = true;
  bool master_eq = false;
  bool replace = false;
};

/// A number between the two bounds, or a failure that names the option.
double number(const std::string& option, const std::string& text, double low, double high) {
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || !(value >= low && value <= high)) {
    throw std::invalid_argument(option + " does not take “" + text + "”");
  }
  return value;
}

Options parse(const std::vector<std::string>& arguments) {
  Options options;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& word = arguments[i];
    const auto value = [&](double low, double high) {
      if (++i == arguments.size()) throw std::invalid_argument(word + " needs a value");
      return number(word, arguments[i], low, high);
    };
    if (word == "--seconds") {
      options.seconds = value(0.1, 36000.0);
    } else if (word == "--stems") {
      options.stems = static_cast<int>(value(1, 999));
    } else if (word == "--channels") {
      options.channels = static_cast<int>(value(1, 2));
    } else if (word == "--rate") {
      options.rate = static_cast<int>(value(8000, 384000));
    } else if (word == "--seed") {
      options.seed = static_cast<std::uint64_t>(value(0, 4294967295.0));
    } else if (word == "--no-late") {
      options.late = false;
    } else if (word == "--master-eq") {
      options.master_eq = true;
    } else if (word == "--replace") {
      options.replace = true;
    } else if (options.out.empty() && !word.empty() && word[0] != '-') {
      options.out = word;
    } else {
      throw std::invalid_argument("“" + word + "” is not understood");
    }
  }
  if (options.out.empty()) throw std::invalid_argument("the project's folder is missing");
  return options;
}

void write_response(const std::filesystem::path& path, const Equaliser& eq, double sr) {
  std::ofstream file(path);
  file << "hz,db\n";
  for (double hz = 20.0; hz < std::min(20000.0, 0.5 * sr); hz *= std::exp2(1.0 / 24.0)) {
    file << hz << ',' << eq.response_db(hz, sr) << '\n';
  }
  if (!file.flush()) throw std::runtime_error(path.string() + " cannot be written");
}

void make_project(const Options& options) {
  if (options.replace) {
    make_folders(options.out);
  } else {
    make_folders(options.out, "see --replace");
  }
  const FileForm form{.sr = options.rate, .channels = options.channels};
  const Arrangement arrangement;

  const double sr = options.rate;
  const auto frames = static_cast<std::size_t>(std::lround(options.seconds * sr));
  const auto late = static_cast<std::size_t>(std::lround(kLateSeconds * sr));
  // More than one of each instrument and the bus would drown in the compressor.
  const double level = std::sqrt(std::min(1.0, 6.0 / options.stems));

  std::vector<Stem> bus{{"Mix", Stereo(frames)}};
  Stereo& sum = bus.front().sound;
  for (int stem = 0; stem < options.stems; ++stem) {
    const auto index = static_cast<std::size_t>(stem);
    const auto instrument = static_cast<Instrument>(index % kInstruments);
    const std::size_t variation = index / kInstruments;
    Random random(options.seed * 1000003u + index);
    const auto notes = part_of(instrument, options.seconds, arrangement, random);
    Stereo tap =
        play(instrument, variation, notes, arrangement.seconds_per_beat(), frames, sr, random);
    for (std::size_t i = 0; i < frames; ++i) {
      sum.left[i] += (tap.left[i] *= level);
      sum.right[i] += (tap.right[i] *= level);
    }
    std::string name = name_of(instrument);
    if (variation > 0) name.append(" ").append(std::to_string(variation + 1));
    const bool is_late = options.late && stem == static_cast<int>(Instrument::kSnare);
    write_wav(options.out / "taps" / (name + ".wav"), tap, form, is_late ? late : 0);
  }
  Chain chain = demo_master();
  if (options.master_eq) {
    const Equaliser eq = demo_equaliser();
    chain.insert(chain.begin(), {eq});
    write_response(options.out / "master-eq.csv", eq, sr);
  }
  play_through(chain, bus, sr);
  write_wav(options.out / "mix" / "mix.wav", sum, form);
}

}  // namespace
}  // namespace demo

int main(int argc, char** argv) {
  try {
    const demo::Options options = demo::parse({argv + 1, argv + argc});
    demo::make_project(options);
    std::printf("%s: %d taps and a mix of %g s\n", options.out.c_str(), options.stems,
                options.seconds);
    return EXIT_SUCCESS;
  } catch (const std::invalid_argument& failure) {
    std::fprintf(stderr, "%sdemo_project: %s\n", demo::kUsage, failure.what());
    return 2;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "demo_project: %s\n", failure.what());
    return EXIT_FAILURE;
  }
}
