#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <filesystem>

#include "render/unfit_input.hpp"
#include "support/files.hpp"
#include "support/temporary_folder.hpp"
#include "verdel/verdel.hpp"

namespace verdel::internal {
namespace {

using Signal = std::vector<double>;

/// Two struck tones through a saturating master, the second tap 40 samples late.
class Embedding : public ::testing::Test {
 protected:
  static constexpr std::size_t kFrames = 24000;

  Embedding() : low_(kFrames), high_(kFrames), late_(kFrames), mix_(kFrames) {
    for (std::size_t i = 0; i < kFrames; ++i) {
      const auto t = static_cast<double>(i);
      low_[i] = 0.4 * std::sin(0.05 * t) * std::exp(-static_cast<double>(i % 4000) / 1500.0);
      high_[i] = 0.3 * std::sin(0.7 * t + 1e-5 * t * t) *
                 std::exp(-static_cast<double>((i + 1700) % 3100) / 400.0);
      if (i >= 40) late_[i] = high_[i - 40];
      mix_[i] = std::tanh(1.3 * (low_[i] + high_[i]));
    }
    request_.sample_rate = 2000;
    request_.mix = {mix_, mix_};
    request_.taps = {{"Low", {low_, low_}}, {"High", {late_, late_}}};
    request_.temporary_folder = scratch_.path();
  }

  testing::TemporaryFolder scratch_;
  Signal low_, high_, late_, mix_;
  RenderRequest request_;
};

TEST_F(Embedding, StemsAddUpAndProgressRises) {
  std::vector<double> seen;
  request_.progress = [&](double done) {
    seen.push_back(done);
    return true;
  };
  const RenderResult result = render(request_);
  ASSERT_EQ(result.stems.size(), 2U);
  EXPECT_EQ(result.stems[1].name, "High");
  EXPECT_LT(result.null_peak, -140.0);
  ASSERT_EQ(result.moved.size(), 1U);
  EXPECT_EQ(result.moved[0].name, "High");
  EXPECT_EQ(result.moved[0].samples, -40);
  for (std::size_t i = 0; i < kFrames; ++i) {
    const double sum = static_cast<double>(result.stems[0].channels[0][i]) +
                       static_cast<double>(result.stems[1].channels[0][i]);
    ASSERT_NEAR(sum, mix_[i], 1e-7);
  }
  EXPECT_TRUE(std::ranges::is_sorted(seen));
  EXPECT_EQ(seen.front(), 0.0);
  EXPECT_EQ(seen.back(), 1.0);
  EXPECT_GT(seen.size(), 20U);

  request_.start = 9000;
  request_.stop = 9500;
  request_.processors = 1;
  const RenderResult part = render(request_);
  ASSERT_EQ(part.stems[0].channels[1].size(), 500U);
  EXPECT_NEAR(part.stems[1].channels[0][0], result.stems[1].channels[0][9000], 1e-6F);
}

TEST_F(Embedding, ChecksTapsFromArrays) {
  const Signal silent(kFrames);
  CheckRequest request{.sample_rate = 2000,
                       .mix = {mix_, mix_},
                       .taps = {{"Low", {low_, low_}}, {"High", {high_, silent}}}};
  const auto findings = check(request);
  ASSERT_FALSE(findings.empty());
  EXPECT_EQ(findings.front().kind, "sides");
  EXPECT_EQ(findings.front().severity, "fix");
  EXPECT_EQ(findings.front().taps, std::vector<std::string>{"High"});
  request.taps.front().channels.pop_back();
  EXPECT_THAT(testing::failure_of<RenderError>([&] { check(request); }),
              "tap “Low”: channels and length must be those of the mix");
}

TEST_F(Embedding, DeliveredIntegersAreTheMix) {
  const RenderResult rendered = render(request_);
  DeliverRequest request{.bits = 16, .mix = request_.mix, .stems = {}};
  for (const RenderedStem& stem : rendered.stems) {
    request.stems.push_back({stem.name, {stem.channels[0], stem.channels[1]}});
  }
  const DeliverResult result = deliver(request);
  for (std::size_t i = 0; i < kFrames; ++i) {
    const auto sum = result.stems[0].channels[1][i] + result.stems[1].channels[1][i];
    ASSERT_EQ(sum, result.mix[1][i]);
    ASSERT_EQ(sum, static_cast<std::int32_t>(std::nearbyint(mix_[i] * 32768.0)));
  }
  EXPECT_EQ(result.stems[0].largest_departure, 1);
  EXPECT_GT(result.stems[0].rms_departure, 0.0);
  request.stems.pop_back();
  EXPECT_THAT(testing::failure_of<RenderError>([&] { deliver(request); }),
              ::testing::StartsWith("the stems miss the mix at sample "));
  request.stems.front().channels.pop_back();
  EXPECT_THAT(testing::failure_of<RenderError>([&] { deliver(request); }),
              "stem “Low”: channels and length must be those of the mix");
}

// The master turns the high tap down, and both came 12 samples early.
TEST_F(Embedding, HearsTheChainFirstWhereThatIsWished) {
  Signal low(kFrames), high(kFrames);
  for (std::size_t i = 13; i < kFrames; ++i) {
    const double fade = i < kFrames - 1000 ? 1.0 : 0.0;
    low[i - 12] = low_[i] * fade;
    high[i - 12] = high_[i] * fade + 0.01 * std::sin(static_cast<double>(i * i % 7919));
    const auto before = [&](std::size_t k) { return low[i - k] + high[i - k]; };
    mix_[i] = 0.7 * before(12) + 0.3 * before(13);
  }
  std::fill_n(mix_.begin(), 13, 0.0);
  request_.taps = {{"Low", {low, low}}, {"High", {high, high}}};
  const RenderResult plain = render(request_);
  EXPECT_FALSE(plain.chain);
  std::vector<double> seen;
  request_.progress = [&](double done) {
    seen.push_back(done);
    return true;
  };
  request_.chain = true;
  const RenderResult result = render(request_);
  ASSERT_TRUE(result.chain);
  const ChainResult& chain = *result.chain;
  EXPECT_TRUE(chain.curve_used) << ::testing::PrintToString(chain.sentences);
  EXPECT_THAT(chain.sentences.front(), ::testing::StartsWith("curve: one curve, takes "));
  ASSERT_EQ(chain.curve.curves.size(), 1U);
  EXPECT_EQ(chain.curve.curves[0].db.size(), chain.curve.hz.size());
  EXPECT_EQ(chain.votes.size(), 2U);
  ASSERT_EQ(result.moved.size(), 2U);
  EXPECT_EQ(result.moved[0].samples, 12);
  EXPECT_LT(result.null_peak, -140.0);
  EXPECT_TRUE(std::ranges::is_sorted(seen));
  EXPECT_EQ(seen.back(), 1.0);
}

TEST_F(Embedding, EndsWhenTheCallerWantsNoMore) {
  std::size_t calls = 0;
  request_.progress = [&](double) { return ++calls < 5; };
  EXPECT_THROW(render(request_), RenderCancelled);
  EXPECT_LT(calls, 8U);
  EXPECT_TRUE(std::filesystem::is_empty(scratch_.path()));
}

TEST_F(Embedding, LeavesTapsWhereTheyAreAndTheSystemsFolderAloneIfAskedTo) {
  setenv("TMPDIR", "/nowhere/at/all", 1);
  request_.align = false;
  EXPECT_TRUE(render(request_).moved.empty());
  unsetenv("TMPDIR");
}

TEST_F(Embedding, RefusesWhatDoesNotFit) {
  Signal broken = high_, loud = mix_;
  broken[77] = std::nan("");
  for (double& sample : loud) sample *= 8.0;
  const struct {
    const char* says;
    std::function<void(RenderRequest&)> spoil;
  } kCases[] = {
      {"tap “High”: must have as many channels",
       [](RenderRequest& r) { r.taps[1].channels.pop_back(); }},
      {"mix: channels and mix must have one length",
       [](RenderRequest& r) { r.mix[1] = r.mix[1].first(100); }},
      {"range to deliver is empty", [](RenderRequest& r) { r.start = kFrames; }},
      {"at least one tap", [](RenderRequest& r) { r.taps.clear(); }},
      {"“Low” and “LOW” would print with the same stem name",
       [](RenderRequest& r) { r.taps[1].name = "LOW"; }},
      {"\ntap “High”: sample 77 of channel 1 is not a finite number",
       [&](RenderRequest& r) { r.taps[1].channels[1] = broken; }},
      {"\nmix: sample 77 of channel 0", [&](RenderRequest& r) { r.mix[0] = broken; }},
      {"the stems miss the mix by -13",
       [&](RenderRequest& r) {
         r.mix = {loud, loud};
       }},
      {"free", [](RenderRequest& r) { r.temporary_folder = "/nowhere/at/all"; }},
  };
  for (const auto& [says, spoil] : kCases) {
    RenderRequest request = request_;
    spoil(request);
    EXPECT_THAT(testing::failure_of<RenderError>([&] { render(request); }),
                ::testing::HasSubstr(says));
  }
}

// Alignment moves no such tap as it stands; should it ever, the place is that in the caller's tap.
TEST_F(Embedding, CountsABadSampleFromWhereTheTapBeganBeforeItWasMoved) {
  const AudioArray mix = AudioArray::zeros(2, 100);
  StemMap taps;
  taps.push_back({"Moved", StemArray::zeros(2, 100)});
  taps[0].audio.row(1)[50] = NAN;
  for (const std::ptrdiff_t lag : {20, -20}) {
    const auto unfit = unfit_input(mix.view(), taps, {{"Fine", 7}, {"Moved", lag}});
    EXPECT_EQ(unfit->sample, 50 - lag);
    EXPECT_EQ(unfit->channel, 1U);
  }
}

}  // namespace
}  // namespace verdel::internal
