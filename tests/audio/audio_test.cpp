// The pieces of the audio programs that need no server: the hand-over of controls to the audio
// thread, the helpers' environment texts and the gain stage.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <thread>

#include "common/gain_stage.hpp"
#include "common/newest_value.hpp"

namespace brisola::audio {
namespace {

TEST(NewestValue, TheAudioThreadNeverSeesATornOrAnOlderValue) {
  struct Value {
    std::uint64_t sequence = 0;
    std::array<std::uint64_t, 128> copies{};
  };
  NewestValue<Value> latest;
  constexpr std::uint64_t writes = 200'000;
  std::thread writer([&] {
    Value value;
    for (std::uint64_t n = 1; n <= writes; ++n) {
      value.sequence = n;
      value.copies.fill(n);
      latest.write(value);
    }
  });
  std::uint64_t last = 0, torn = 0, backwards = 0;
  while (last < writes) {
    const Value& value = latest.read();
    for (auto copy : value.copies) torn += copy != value.sequence;
    backwards += value.sequence < last;
    last = value.sequence;
  }
  writer.join();
  EXPECT_EQ(torn, 0u);
  EXPECT_EQ(backwards, 0u);
}

TEST(HelperTexts, RoutesAndGainsParseExactlyOrNotAtAll) {
  using Routes = std::vector<RuntimeChannelRoute>;
  EXPECT_EQ(parseRoutes(""), Routes{});
  EXPECT_EQ(parseRoutes("2:1,1:2,1:2"), (Routes{{2, 1}, {1, 2}, {1, 2}}));
  for (const char* bad : {"1:1,", ",1:1", "1", "1:", ":1", "a:1", "1:1;2:2", " 1:1", "1:1 "}) {
    EXPECT_EQ(parseRoutes(bad), std::nullopt) << bad;
  }
  EXPECT_EQ(parseGains(""), std::vector<float>{});
  EXPECT_EQ(parseGains("1.0,0.5,1e-05"), (std::vector<float>{1.0f, 0.5f, 1e-05f}));
  for (const char* bad : {"1.0,", "x", "1.0,,0.5", "0.5dB"}) {
    EXPECT_EQ(parseGains(bad), std::nullopt) << bad;
  }
}

TEST(GainStage, RoutesGainsAndTheAddedSignalMeetAsWritten) {
  GainStage stage;
  stage.gain = 0.5f;
  stage.inputGains[1] = 0.25f;
  stage.outputGains[0] = 2.0f;
  // Channel 0 and 65 do not exist: left out rather than read out of bounds.
  const std::vector<RuntimeChannelRoute> routes{{1, 2}, {2, 1}, {2, 2}, {0, 1}, {65, 1}, {1, 65}};
  stage.setRoutes(routes);
  EXPECT_EQ(stage.routeCount, 3u);
  EXPECT_EQ(stage.inputChannelsUsed(), 2u);

  const float left[] = {1.0f, -1.0f};
  const float right[] = {4.0f, 8.0f};
  const float extra[] = {0.5f, 0.5f};
  float out0[2], out1[2];
  const float* in[] = {left, right};
  const float* add[] = {extra, nullptr};  // a port without a buffer is silence
  float* out[] = {out0, out1};
  render(stage, in, add, out, 2);
  // out0 = 2 · (0.5 · 0.25 · right + extra); out1 = 0.5 · left + 0.5 · 0.25 · right
  EXPECT_THAT(out0, ::testing::ElementsAre(2.0f, 3.0f));
  EXPECT_THAT(out1, ::testing::ElementsAre(1.0f, 0.5f));
}

// The meter works on blocks of eight samples and then on the rest: a peak in either part, on
// either sign, counts; a missing channel buffer is silence.
TEST(LevelMeter, LevelIsTheRootMeanSquareAndPeakTheLargestMagnitude) {
  for (const std::uint32_t frames : {1u, 8u, 1027u}) {
    for (const std::uint32_t at : {0u, frames / 2, frames - 1}) {
      std::vector<float> samples(frames, 0.5f);
      samples[at] = -0.75f;
      const float* channels[] = {samples.data(), nullptr};
      LevelMeter meter;
      meter.measure(channels, frames);
      float levels[2], peaks[2];
      meter.read(levels, peaks);
      const double squares = 0.25 * (frames - 1) + 0.5625;
      EXPECT_NEAR(levels[0], std::sqrt(squares / frames), 1e-6) << frames << " " << at;
      EXPECT_EQ(peaks[0], 0.75f) << frames << " " << at;
      EXPECT_EQ(levels[1], 0.0f);
      EXPECT_EQ(peaks[1], 0.0f);
    }
  }
}

}  // namespace
}  // namespace brisola::audio
