#include "delivery/verification.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>

#include "delivery/delivery_files.hpp"
#include "support/errors.hpp"

namespace verdel::internal {
namespace {

constexpr int kRate = 22050;

// Two stems, longer than is read at once, and their sum.
class Verification : public ::testing::Test {
 protected:
  static constexpr std::size_t kFrames = 20011;

  Verification() : mix_(AudioArray::zeros(2, kFrames)) {
    for (const char* name : {"Drums", "Voice"}) {
      auto stem = Array2D<float>::zeros(2, kFrames);
      for (std::size_t i = 0; i < stem.size(); ++i) {
        stem.flat()[i] = static_cast<float>(i % 1013) / (name[0] == 'D' ? 4000.0f : -3000.0f);
        mix_.flat()[i] += static_cast<double>(stem.flat()[i]);
      }
      stems_.push_back({name, folder_.path(std::string(name) + ".wav")});
      write_audio<float>(stems_.back().path, kRate, stem.view());
      audio_.push_back(std::move(stem));
    }
  }

  AudioArray residual() const { return written_residual(stems_, mix_.view(), kRate); }

  testing::TemporaryFolder folder_;
  AudioArray mix_;
  std::vector<WrittenStem> stems_;
  std::vector<Array2D<float>> audio_;
};

TEST_F(Verification, GivesWhatTheFilesLeaveOfTheMix) {
  mix_.row(1)[kFrames - 1] += 0x1p-20;
  mix_.row(0)[5] -= 0x1p-21;
  audio_[1].row(0)[7] = std::numeric_limits<float>::quiet_NaN();
  write_audio<float>(stems_[1].path, kRate, audio_[1].view());
  const auto left = residual();
  for (std::size_t i = 0; i < kFrames; ++i) {
    if (i == 7) continue;
    ASSERT_EQ(left.row(0)[i], i == 5 ? -0x1p-21 : 0.0);
    ASSERT_EQ(left.row(1)[i], i == kFrames - 1 ? 0x1p-20 : 0.0);
  }
  EXPECT_TRUE(std::isnan(left.row(0)[7]));
}

TEST_F(Verification, FindsEveryChangeOfAFile) {
  const std::string path = stems_[1].path, good = testing::bytes_of(path);
  const std::string changed = "written stem verification failed for Voice";
  const auto view = audio_[1].view();
  const std::pair<std::string, std::function<void()>> kCases[] = {
      {changed, [&] { write_audio<float>(path, 44100, view); }},
      {changed, [&] { write_audio<float>(path, kRate, view.column_range(1, kFrames)); }},
      {changed,
       [&] {
         write_audio<float>(path, kRate, {view.data(), 1, kFrames, kFrames});
       }},
      {path, [&] { testing::write_bytes(path, good.substr(0, good.size() - 9)); }},
      {path, [&] { testing::write_bytes(path, "not audio"); }},
      {"No such file or directory", [&] { std::filesystem::remove(path); }}};
  for (const auto& [message, change] : kCases) {
    change();
    EXPECT_THAT(testing::failure_of<std::runtime_error>([&] { residual(); }),
                ::testing::HasSubstr(message));
  }
  std::string flipped = good;
  flipped[flipped.size() - 2] = static_cast<char>(flipped[flipped.size() - 2] ^ 1);
  testing::write_bytes(path, flipped);
  EXPECT_NE(residual().row(1)[kFrames - 1], 0.0);
}

}  // namespace
}  // namespace verdel::internal
