#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <tuple>

#include "brisola/runtime/control_store.hpp"
#include "brisola/runtime/runtime_controls.hpp"
#include "support/documents.hpp"

namespace brisola {
namespace {

using ::testing::ElementsAre;
using testing::outputEnd;
using testing::sourceEnd;
using testing::wire;
using R = RuntimeChannelRoute;

constexpr float nan = std::numeric_limits<float>::quiet_NaN();
constexpr float inf = std::numeric_limits<float>::infinity();

RuntimeDeviceControls make(std::int64_t channelCount, float deviceGain = 1.0f,
                           std::vector<float> gains = {}, std::vector<R> routes = {}) {
  return RuntimeDeviceControls("uid", "name", "icon", channelCount, true, deviceGain,
                               std::move(gains), true, false, deviceGain, std::move(routes));
}

TEST(RuntimeDeviceControls, ChannelCountIsMadeEvenTowardZeroThenClamped) {
  constexpr auto min = std::numeric_limits<std::int64_t>::min();
  constexpr auto max = std::numeric_limits<std::int64_t>::max();
  const std::vector<std::pair<std::int64_t, std::int64_t>> rows{
      {5, 4},   {-5, 2},  {1, 2},     {0, 2},   {63, 62},
      {64, 64}, {65, 64}, {1000, 64}, {min, 2}, {max, 64}};
  for (auto [given, expected] : rows) EXPECT_EQ(make(given).channelCount, expected) << given;
}

TEST(RuntimeDeviceControls, GainsAreSanitisedAndListsCutOrPadded) {
  const std::vector<std::pair<float, float>> rows{{nan, 1.0f},   {-inf, 1.0f}, {-1.0f, 0.0f},
                                                  {-0.0f, 0.0f}, {2.0f, 2.0f}, {2.5f, 2.0f}};
  for (auto [given, expected] : rows) {
    SCOPED_TRACE(given);
    auto controls = make(2, given, {given});
    EXPECT_EQ(std::tuple(controls.deviceGain, controls.sourceGain, controls.channelGains[0]),
              std::tuple(expected, expected, expected));
    EXPECT_FALSE(std::signbit(controls.deviceGain)) << "a negative zero survived";
  }
  std::vector<float> padded(64, 1.0f);
  padded[0] = 0.5f, padded[1] = 2.0f;
  EXPECT_EQ(make(2, 1.0f, {0.5f, 3.0f}).channelGains, padded);
  std::vector<float> long_(70, 0.25f);
  long_[64] = 0.75f;
  EXPECT_EQ(make(2, 1.0f, long_).channelGains, std::vector<float>(64, 0.25f));

  std::vector<R> routes;
  for (int j = 0; j < 130; ++j) routes.push_back({j + 1, -j});
  // The first 128, with their values untouched, negative ones included.
  EXPECT_EQ(make(2, 1.0f, {}, routes).routes, std::vector<R>(routes.begin(), routes.begin() + 128));
}

TEST(RuntimeDeviceControls, DecodingKeepsValuesAsTheyStand) {
  auto decoded = decodeJSON<RuntimeDeviceControls>(R"({"uid":"u","name":"n","icon":"i",
      "channelCount":3,"deviceEnabled":false,"deviceGain":5,"channelGains":[-1,-1e300],
      "sourceEnabled":true,"muted":true,"sourceGain":-2,
      "routes":[{"sourceChannel":0,"outputChannel":-4}]})");
  EXPECT_EQ(std::tuple(decoded.channelCount, decoded.deviceGain, decoded.sourceGain, decoded.muted),
            std::tuple(3, 5.0f, -2.0f, true));
  EXPECT_THAT(decoded.channelGains, ElementsAre(-1.0f, -inf));
  EXPECT_THAT(decoded.routes, ElementsAre(R{0, -4}));
}

// Derivation from the document.

DeviceConfig plainDevice(std::string id) {
  return DeviceConfig{.id = id, .name = "Device " + id, .enabled = true, .channelCount = 2};
}

TEST(RuntimeControls, OneRecordPerDeviceAtMost16InDocumentOrderDisabledIncluded) {
  ConfigSnapshot snapshot;
  for (int i = 0; i < 20; ++i) snapshot.devices.push_back(plainDevice("d" + std::to_string(i)));
  snapshot.devices[3].enabled = false;
  auto controls = RuntimeDeviceControls::forDocument(snapshot);
  ASSERT_EQ(controls.size(), 16u);
  for (std::size_t i = 0; i < controls.size(); ++i) {
    EXPECT_EQ(controls[i].uid, snapshot.devices[i].uid);
    EXPECT_EQ(controls[i].name, snapshot.devices[i].name);
  }
  EXPECT_FALSE(controls[3].deviceEnabled);
  EXPECT_TRUE(controls[4].deviceEnabled);
  EXPECT_TRUE(RuntimeDeviceControls::forDocument(ConfigSnapshot::empty()).empty());
}

TEST(RuntimeControls, PassThruSourceDecidesSourceFieldsAndRoutes) {
  // No pass-thru source at all: defaults and the stereo map.
  DeviceConfig none = plainDevice("none");
  none.sources.push_back(testing::hardwareSource("mic", "in"));
  none.wires.push_back(wire("w", sourceEnd("mic", 1), outputEnd("none", 1)));
  auto noneControls = RuntimeDeviceControls::of(none);
  EXPECT_EQ(std::tuple(noneControls.sourceEnabled, noneControls.muted, noneControls.sourceGain),
            std::tuple(true, false, 1.0f));
  EXPECT_THAT(noneControls.routes, ElementsAre(R{1, 1}, R{2, 2}));

  // A pass-thru source without wires into the output: no routes, not the stereo map.
  DeviceConfig unwired = plainDevice("unwired");
  unwired.sources.push_back(testing::passThruSource("pt"));
  EXPECT_TRUE(RuntimeDeviceControls::of(unwired).routes.empty());

  // Two pass-thru sources: the first in source order counts.
  DeviceConfig two = plainDevice("two");
  two.sources = {testing::hardwareSource("mic", "in"), testing::passThruSource("first"),
                 testing::passThruSource("second")};
  two.sources[1].enabled = false;
  two.sources[1].muted = true;
  two.sources[1].gain = 0.5;
  two.wires = {wire("a", sourceEnd("second", 1), outputEnd("two", 1)),
               wire("b", sourceEnd("first", 2), outputEnd("two", 1))};
  auto twoControls = RuntimeDeviceControls::of(two);
  EXPECT_EQ(std::tuple(twoControls.sourceEnabled, twoControls.muted, twoControls.sourceGain),
            std::tuple(false, true, 0.5f));
  EXPECT_THAT(twoControls.routes, ElementsAre(R{2, 1}));
}

TEST(RuntimeControls, RouteBoundIsTheConfiguredChannelCountNotThePublishedOne) {
  DeviceConfig odd = plainDevice("odd");
  odd.channelCount = 3;
  odd.sources.push_back(testing::passThruSource("pt"));
  odd.wires = {wire("w3", sourceEnd("pt", 1), outputEnd("odd", 3)),
               wire("w4", sourceEnd("pt", 1), outputEnd("odd", 4))};
  auto controls = RuntimeDeviceControls::of(odd);
  EXPECT_EQ(controls.channelCount, 2);
  EXPECT_THAT(controls.routes, ElementsAre(R{1, 3}));
}

TEST(RuntimeControls, VolumeAndChannelGainsAreNarrowedThenSanitised) {
  // Beyond the float range is infinite, hence unity; not clamped to 2 or 0.
  const std::vector<std::pair<double, float>> rows{
      {3.0, 2.0f}, {1e300, 1.0f}, {-1e300, 1.0f}, {3.5e38, 1.0f}, {0.1, 0.1f}};
  for (auto [volume, expected] : rows) {
    SCOPED_TRACE(volume);
    DeviceConfig device = plainDevice("d");
    device.volume = volume;
    device.channelGains = std::vector<double>{volume};
    device.sources.push_back(testing::passThruSource("pt"));
    device.sources[0].gain = volume;
    auto controls = RuntimeDeviceControls::of(device);
    EXPECT_EQ(std::tuple(controls.deviceGain, controls.channelGains[0], controls.sourceGain),
              std::tuple(expected, expected, expected));
  }
  EXPECT_EQ(RuntimeDeviceControls::of(plainDevice("d")).channelGains, std::vector<float>(64, 1.0f));
}

}  // namespace
}  // namespace brisola
