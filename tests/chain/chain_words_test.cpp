#include "chain/chain_words.hpp"

#include <gmock/gmock.h>

namespace verdel::internal {
namespace {

const std::vector<std::string> kTaps = {"Drums", "Bass", "Piano", "Organ", "Choir", "Hiss"};

struct Case {
  std::vector<CurveVote> votes;
  bool used;
  std::vector<std::string> lines;
};

// What six taps vote, and how much the curve changes in each; a tap that it hardly touches, here
// the hiss, is never named.
TEST(ChainWords, NameTheTapsThatDidNotGoThroughTheCurveAndTheOneThatItWasMadeFor) {
  const CurveVote hiss = {-3.0, 0.001};
  const Case kCases[] = {
      {{{1.4, 100.0}, {-0.2, 5.0}, {0.1, 9.0}, {-1.0, 2.0}, {0.9, 1.0}, hiss},
       false,
       {"curve: an EQ fits, but Piano, Bass and Organ did not go through it: is Drums bounced "
        "without its own effects?"}},
      {{{1.4, 20.0}, {-0.2, 9.0}, {0.9, 9.0}, {0.9, 2.0}, {0.9, 1.0}, hiss},
       false,
       {"curve: an EQ fits, but Bass did not go through it"}},
      {{{0.9, 100.0}, {0.1, 9.0}, {0.1, 8.0}, {0.1, 7.0}, {0.1, 6.0}, {0.1, 5.0}},
       false,
       {"curve: an EQ fits, but Bass, Piano, Organ and 2 more did not go through it"}},
      {{{-1.0, 50.0}, {-1.0, 50.0}, {{}, 0.0}, {{}, 0.0}, {{}, 0.0}, {{}, 0.0}},
       false,
       {"curve: an EQ fits, but Drums and Bass did not go through it"}},
      {{{0.8, 60.0}, {0.95, 40.0}, {0.2, 2.0}, {1.1, 9.0}, {{}, 0.0}, hiss},
       true,
       {"curve: mid/side, takes 5.0 dB off what is left (-12.0 to -17.0 dB)",
        "       3 of 6 taps vote for it (0.80 to 1.10; 1 is a tap that went through it); Piano did "
        "not"}},
  };
  for (const Case& c : kCases) {
    ChainFinding finding;
    finding.curve.used = c.used;
    finding.curve.model = ChainModel::kMidSide;
    finding.curve.left_before = -12.0;
    finding.curve.left_after = -17.0;
    finding.curve.cross_validation = 20.0;
    finding.curve.against = c.used ? 0.02 : 0.2;
    finding.curve.votes = c.votes;
    EXPECT_EQ(chain_words(finding, {}, kTaps), c.lines);
  }
}

TEST(ChainWords, TellWhatTheChainDelaysAndWhatSingleTapsWentThrough) {
  ChainFinding finding;
  finding.curve.why_not = "no EQ found";
  finding.curve.lags = {64, 64};
  finding.curve.hz = {0.0};
  finding.tap_filters.filters.resize(2);
  finding.tap_filters.filters[0].is_effect = true;
  finding.tap_filters.filters[0].seconds = 0.83;
  finding.tap_filters.filters[1].tap = 1;
  finding.tap_filters.filters[1].cross_validation = 12.74;
  finding.gains.used.resize(2);
  finding.gains.used[0].in_bands = true;
  finding.gains.used[0].centres = {80.0, 160.0};
  finding.gains.used[1].factors.resize(2);
  finding.gains.left_before = -17.0;
  finding.gains.left_after = -30.0;
  std::vector<std::string> lines = {
      "curve: no EQ found", "       the chain delays by 64 samples",
      "taps:  Drums: a room of about 0.8 s stands in the master that the tap does not have",
      "       Bass: went through an EQ of its own (takes 12.7 dB off on passages it has not seen)",
      "gain:  2 bands of an octave, then one for all frequencies (left and right apart), takes "
      "13.0 dB off what is left (-17.0 to -30.0 dB)"};
  EXPECT_EQ(chain_words(finding, {}, kTaps), lines);
  lines.pop_back();
  lines[1] = "       all taps are late by 1 sample";
  finding.curve.lags = {-1, -1};
  EXPECT_EQ(chain_words(finding, {.gains = false}, kTaps), lines);
  finding.curve.lags = {-1, 0};
  EXPECT_EQ(chain_words(finding, {.gains = false}, kTaps).size(), lines.size() - 1);
}

}  // namespace
}  // namespace verdel::internal
