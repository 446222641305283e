#include "allocation/interval_rendering.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "allocation/channels.hpp"
#include "support/errors.hpp"
#include "support/machines.hpp"
#include "test_song.hpp"

namespace verdel::internal {
namespace {

using testing::render_full;
using testing::test_song;
using testing::TestSong;

Machine roomy(std::size_t processors) {
  return testing::machine_with(processors, std::uint64_t{64} << 30U, std::uint64_t{64} << 30U);
}

bool same_bits(const Array2D<double>& a, const Array2D<double>& b) {
  return std::equal(a.flat().begin(), a.flat().end(), b.flat().begin(), b.flat().end());
}

TEST(Intervals, AbutBitForBitAsOneRender) {
  const int sr = 8000;
  const TestSong song = test_song(static_cast<std::size_t>(sr) * 62 + 77, sr);
  ChannelJob job = song.job();
  const auto whole = render_full(job, roomy(1));
  for (const std::size_t processors : {1U, 2U, 8U}) {
    job.workers = processors;
    EXPECT_TRUE(same_bits(render_transient_release_tail_channel(job, roomy(processors)), whole))
        << processors << " processors";
  }
}

// The stems of one interval replace models that its neighbours' renders still look at.
TEST(Intervals, OfAllChannelsTakeTheModelsPlaceBitForBit) {
  const int sr = 8000;
  const TestSong song = test_song(static_cast<std::size_t>(sr) * 62 + 77, sr);
  ChannelJob reversed = song.job();
  std::ranges::reverse(reversed.source_models);
  const AudioArray expected[] = {render_full(song.job(), roomy(1)),
                                 render_full(reversed, roomy(1))};
  for (const std::size_t processors : {1U, 2U, 8U}) {
    Model model{.sources = {}, .residual = AudioArray::zeros(2, song.residual.size())};
    for (std::size_t channel = 0; channel < 2; ++channel) {
      std::ranges::copy(song.residual, model.residual.row(channel).begin());
    }
    for (std::size_t s = 0; s < 3; ++s) {
      model.sources.push_back({std::to_string(s), AudioArray::zeros(2, song.residual.size())});
      std::ranges::copy(song.models[s], model.sources[s].audio.row(0).begin());
      std::ranges::copy(song.models[2 - s], model.sources[s].audio.row(1).begin());
    }
    const ChannelsJob job{.sr = sr, .stop = song.residual.size()};
    const StemMap stems = render_channels(std::move(model), job, roomy(processors));
    for (std::size_t s = 0; s < 3; ++s) {
      for (std::size_t channel = 0; channel < 2; ++channel) {
        EXPECT_TRUE(std::ranges::equal(stems[s].audio.row(channel), expected[channel].row(s)))
            << "stem " << s << ", channel " << channel << ", " << processors << " processors";
      }
    }
  }
}

TEST(Intervals, AnExcerptIsTheWholeRendersCut) {
  const TestSong song = test_song(400000, 8000);
  const auto whole = render_full(song.job(), roomy(1));
  for (const auto& [start, stop] :
       {std::pair<std::size_t, std::size_t>{0, 3000}, {150001, 171234}, {399990, 400000}}) {
    ChannelJob job = song.job();
    job.start = start;
    job.stop = stop;
    const auto part = render_transient_release_tail_channel(job, roomy(2));
    for (std::size_t s = 0; s < part.rows(); ++s) {
      const auto expected = whole.row(s).subspan(start, stop - start);
      EXPECT_TRUE(std::equal(expected.begin(), expected.end(), part.row(s).begin())) << start;
    }
  }
}

struct Counts {
  std::mutex lock;
  std::vector<std::size_t> seen;
};

Counts& count_into(Counts& counts, ChannelJob& job) {
  job.progress = [&counts](std::size_t done, std::size_t total) {
    const std::lock_guard guard(counts.lock);
    counts.seen.push_back(done);
    EXPECT_EQ(total, 18U);
  };
  return counts;
}

// The shortest span that is split has exactly a minute.
TEST(Intervals, SplitFromAMinuteOn) {
  const int sr = 1000;
  const TestSong song = test_song(60001, sr);
  for (const auto& [length, reports] :
       {std::pair<std::size_t, std::size_t>{59999, 19}, {60000, 3 * 19 + 1}, {60001, 4 * 19 + 1}}) {
    for (const std::size_t processors : {1U, 4U}) {
      ChannelJob job = song.job();
      job.start = 60001 - length;
      Counts counts;
      count_into(counts, job);
      render_transient_release_tail_channel(job, roomy(processors));
      EXPECT_EQ(counts.seen.size(), reports) << length;
      EXPECT_TRUE(std::is_sorted(counts.seen.begin(), counts.seen.end()));
      EXPECT_EQ(counts.seen.front(), 0U);
      EXPECT_EQ(counts.seen.back(), 18U);
    }
  }
}

TEST(Intervals, RefusesASignalShorterThanAFrame) {
  const TestSong song = test_song(2047, 44100);
  try {
    render_transient_release_tail_channel(song.job(), roomy(1));
    FAIL() << "accepted";
  } catch (const ValueError& error) {
    EXPECT_STREQ(error.what(), "Candidate 14 needs at least 2048 audio frames");
  }
}

TEST(Intervals, AFailureOrAStopEndsAllOfThem) {
  const TestSong song = test_song(62000, 1000);
  for (const std::size_t processors : {1U, 4U}) {
    ChannelJob job = song.job();
    job.progress = [](std::size_t done, std::size_t) {
      if (done == 5) throw RuntimeError("stop here");
    };
    EXPECT_THROW(render_transient_release_tail_channel(job, roomy(processors)), RuntimeError);
    std::atomic<bool> stopped{false};
    job.progress = [&](std::size_t done, std::size_t) { stopped = done >= 2; };
    EXPECT_THROW(render_transient_release_tail_channel(job, roomy(processors), StopToken(stopped)),
                 Cancelled);
  }
}

}  // namespace
}  // namespace verdel::internal
