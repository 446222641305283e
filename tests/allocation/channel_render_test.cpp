#include "allocation/channel_render.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <functional>
#include <limits>

#include "allocation/interval_rendering.hpp"
#include "allocation/phase_runner.hpp"
#include "reference_allocation.hpp"
#include "support/errors.hpp"
#include "support/machines.hpp"
#include "support/temporary_folder.hpp"
#include "test_song.hpp"

namespace verdel::internal {
namespace {

using testing::Cells;
using testing::machine_with;
using testing::render_full;
using testing::test_song;
using testing::TestSong;

double decibels(double value) {
  return value > 0.0 ? 20.0 * std::log10(value) : -999.0;
}

Array2D<double> render(const ChannelJob& job) {
  return render_full(job, machine_with(2));
}

double largest_difference(std::span<const double> a, std::span<const double> b) {
  EXPECT_EQ(a.size(), b.size());
  double largest = 0.0;
  for (std::size_t i = 0; i < a.size(); ++i) largest = std::max(largest, std::abs(a[i] - b[i]));
  return largest;
}

// Largest deviation of a stored array from the definition, in units of what is tolerated of the
// value of a cell.
double deviation(
    const CellGrid& grid, std::span<const float> stored, const Cells& expected,
    const std::function<double(double value, std::size_t k, std::size_t t)>& tolerated) {
  double largest = 0.0;
  for (std::size_t k = 0; k < C14_BINS; ++k) {
    for (std::size_t t = 0; t < grid.frames(); ++t) {
      const double value = expected.at(k, t);
      const double error = std::abs(static_cast<double>(stored[grid.index(k, t)]) - value);
      largest = std::max(largest, error / tolerated(value, k, t));
    }
  }
  return largest;
}

double largest_gate_difference(const ChannelRender& state, const Cells& expected) {
  double largest = 0.0;
  for (std::size_t k = 0; k < C14_BINS; ++k) {
    for (std::size_t t = 0; t < state.grid.frames(); ++t) {
      largest = std::max(largest, std::abs(state.gate[state.grid.index(k, t)] - expected.at(k, t)));
    }
  }
  return largest;
}

class AgainstDefinition : public ::testing::TestWithParam<std::size_t> {};

TEST_P(AgainstDefinition, EveryPhaseAndTheStemsAgree) {
  const TestSong song = test_song(GetParam(), 22050);
  const auto expected = testing::reference_render(song.models, song.residual, song.sr);
  const ChannelJob job = song.job();
  const SpectralTransform transform;
  const StopToken stop;
  RenderScratch scratch(machine_with(1), 3, song.residual.size(), 1);
  ChannelRender state(job, transform, scratch, stop);
  PhaseRunner phases(state, 1, machine_with(1));
  // Below 1e-8 of full scale cells hold nothing but the transforms' rounding.
  const auto rounding = [](double value, std::size_t, std::size_t) { return 1e-5 * value + 1e-13; };
  const auto compare = [&](const char* what, MappedArray& stored, const std::vector<Cells>& cells,
                           auto tolerated) {
    for (std::size_t s = 0; s < 3; ++s) {
      EXPECT_LT(deviation(state.grid, stored.row(s), cells[s], tolerated), 1.0)
          << what << " of stem " << s;
    }
  };
  phases.prepare_residual();
  phases.score_sources();
  compare("support", state.support_scores, expected.support, rounding);
  compare("lagged", state.scores09, expected.lagged, rounding);
  compare("persistent", state.scores10, expected.persistent, rounding);
  phases.render_all_endpoints();
  phases.project_stems();
  // One float32 step of an endpoint counts the more, the less residual there is in a cell.
  const auto last_bit = [&](double value, std::size_t k, std::size_t t) {
    return 1e-5 * value + (1.0 + value) * 2e-9 / (expected.allocated.at(k, t) + 1e-15);
  };
  compare("projection 09", state.scores09, expected.projection09, last_bit);
  compare("projection 10", state.scores10, expected.projection10, last_bit);
  phases.find_all_onsets();
  phases.build_whole_gate();
  EXPECT_LT(largest_gate_difference(state, expected.gate), 1e-3);
  auto rendered = AudioArray::zeros(3, song.residual.size());
  phases.blend(rendered.view());
  for (std::size_t s = 0; s < 3; ++s) {
    EXPECT_LT(decibels(largest_difference(rendered.row(s), expected.rendered[s])), -140.0) << s;
  }
  if (GetParam() > 20000) {
    EXPECT_GT(*std::max_element(expected.gate.values.begin(), expected.gate.values.end()), 0.3)
        << "the song must open the gate, or it proves nothing about it";
  }
}

// Shorter than the longest delays, on and off the hop, and long enough for onsets and tails.
INSTANTIATE_TEST_SUITE_P(Lengths, AgainstDefinition, ::testing::Values(2048, 2300, 12345, 40960));

TEST(ChannelRender, NoResidualLeavesTheModels) {
  TestSong song = test_song(9000, 48000);
  std::fill(song.residual.begin(), song.residual.end(), 0.0);
  for (auto& model : song.models) {
    for (double& value : model) value = static_cast<double>(static_cast<float>(value));
  }
  const auto rendered = render(song.job());
  for (std::size_t s = 0; s < 3; ++s) {
    EXPECT_EQ(largest_difference(rendered.row(s), song.models[s]), 0.0);
  }
}

TEST(ChannelRender, WorkersAndUsedScratchChangeNoBit) {
  const TestSong song = test_song(30000, 44100, 7);
  const auto expected = render(song.job());
  for (const std::size_t workers : {2U, 3U, 6U}) {
    ChannelJob job = song.job();
    job.workers = workers;
    RenderScratch scratch(machine_with(8), 7, 34000, 4);
    auto rendered = AudioArray::zeros(7, 30000);
    for (int run = 0; run < 2; ++run) {
      _render_transient_release_tail_channel_full(job, machine_with(8), scratch, rendered.view());
      EXPECT_EQ(largest_difference(rendered.flat(), expected.flat()), 0.0) << workers;
    }
  }
}

TEST(ChannelRender, RefusesWhatDoesNotFit) {
  const TestSong song = test_song(4096, 44100);
  const auto failure = [&](auto change) -> std::string {
    TestSong copy = song;
    ChannelJob job = copy.job();
    change(copy, job);
    try {
      render_transient_release_tail_channel(job, machine_with(2));
    } catch (const std::exception& error) {
      return error.what();
    }
    return "";
  };
  const std::string invalid = "invalid candidate-14 allocation inputs or interval";
  const std::string unfit = "candidate-14 models must match the finite residual";
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double infinity = std::numeric_limits<double>::infinity();
  EXPECT_EQ(failure([](auto&, auto& job) { job.start = job.stop; }), invalid);
  EXPECT_EQ(failure([](auto&, auto& job) { ++job.stop; }), invalid);
  EXPECT_EQ(failure([](auto&, auto& job) { job.source_models.clear(); }), invalid);
  EXPECT_EQ(failure([=](auto& s, auto&) { s.residual[5] = nan, s.models[0][0] = nan; }),
            "non-finite candidate-14 residual");
  EXPECT_EQ(failure([=](auto& s, auto&) { s.models[2][4095] = infinity; }), unfit);
  EXPECT_EQ(failure([](auto& s, auto& job) {
              job.source_models[1] = std::span(s.models[1]).first(4095);
            }),
            unfit);
}

TEST(ChannelRender, LeavesNoDirectoryBehindOnAnyRoad) {
  const testing::TemporaryFolder folder;
  Machine machine = machine_with(2);
  machine.temporary_folder = [&] { return folder.path(); };
  machine.physical_memory = [] { return std::uint64_t{1} << 20U; };  // scratch is written back
  const TestSong song = test_song(4096, 44100);
  ChannelJob job = song.job();
  std::size_t directories = 0;
  job.progress = [&](std::size_t, std::size_t) {
    for (const auto& entry : std::filesystem::directory_iterator(folder.path())) {
      ++directories;
      EXPECT_EQ(entry.path().filename().string().rfind("verdel-c14-", 0), 0U);
      EXPECT_EQ(std::filesystem::status(entry).permissions(), std::filesystem::perms::owner_all);
      EXPECT_TRUE(std::filesystem::is_empty(entry)) << "its files have no names";
    }
  };
  render_full(job, machine);
  EXPECT_EQ(directories, 19U);
  EXPECT_TRUE(std::filesystem::is_empty(folder.path()));

  for (const std::size_t moment : {0U, 3U, 8U, 11U, 17U}) {
    job.progress = [&](std::size_t done, std::size_t) {
      if (done == moment) throw RuntimeError("stop here");
    };
    EXPECT_THROW(render_full(job, machine), RuntimeError);
    EXPECT_TRUE(std::filesystem::is_empty(folder.path())) << moment;

    std::atomic<bool> stopped{false};
    job.progress = [&](std::size_t done, std::size_t) { stopped = done >= moment; };
    EXPECT_THROW(render_full(job, machine, StopToken(stopped)), Cancelled);
    EXPECT_TRUE(std::filesystem::is_empty(folder.path())) << moment;
  }
}

}  // namespace
}  // namespace verdel::internal
