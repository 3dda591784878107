#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>

#include "editing/edit_expectations.hpp"
#include "support/documents.hpp"

namespace brisola {
namespace {

using testing::monitorEnd;
using testing::outputEnd;
using testing::sourceEnd;
using testing::wire;
namespace Editor = ConfigEditor;

const std::string kDevice = "brisola-benchmark-device";
const std::string kSource = "brisola-benchmark-source";
const std::string kMonitor = "brisola-benchmark-monitor";

// Two adjacent input channels from the first one, cut to the input; a mono monitor takes both
// device channels on its one channel; a blank back end is stored as absent.
TEST(BenchmarkDevice, WiresFollowTheInputAndMonitorWidths) {
  struct Row {
    std::int64_t inputChannels, first, wire1, wire2;
    std::optional<std::int64_t> monitorChannels, monitorWire2;
    std::optional<std::string> backend, storedBackend;
  };
  const Row rows[] = {
      {8, 3, 3, 4},
      {8, 8, 8, 8},
      {INT64_MAX, INT64_MAX, INT64_MAX, INT64_MAX},  // found by fuzzing: no overflow
      {1, 1, 1, 1},
      {2, 2, 2, 2, 1, 1},
      {2, 1, 1, 2, 2, 2, "   "},
      {2, 1, 1, 2, 6, 2, "\n\u3000"},
      {2, 1, 1, 2, 2, 2, " core ", "core"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(::testing::Message() << row.inputChannels << " channels from " << row.first
                                      << ", monitor " << row.monitorChannels.value_or(0));
    ConfigSnapshot document;
    const DeviceConfig device = row.monitorChannels
                                    ? Editor::prepareHardwareInputMonitorBenchmarkDevice(
                                          "in", "In", row.inputChannels, "out", "Out",
                                          *row.monitorChannels, row.first, row.backend, document)
                                    : Editor::prepareHardwareInputBenchmarkDevice(
                                          "in", "In", row.inputChannels, row.first, document);
    EXPECT_EQ(device.sources.at(0).channelCount, row.inputChannels);
    EXPECT_EQ(device.sources.at(0).metadata.inputBackend, row.storedBackend);
    std::vector<Wire> expected{
        wire("brisola-benchmark-wire-1", sourceEnd(kSource, row.wire1), outputEnd(kDevice, 1)),
        wire("brisola-benchmark-wire-2", sourceEnd(kSource, row.wire2), outputEnd(kDevice, 2))};
    if (row.monitorChannels) {
      expected.push_back(
          wire("brisola-benchmark-monitor-wire-1", outputEnd(kDevice, 1), monitorEnd(kMonitor, 1)));
      expected.push_back(wire("brisola-benchmark-monitor-wire-2", outputEnd(kDevice, 2),
                              monitorEnd(kMonitor, *row.monitorWire2)));
    }
    EXPECT_EQ(device.wires, expected);
    EXPECT_EQ(device.monitors.size(), row.monitorChannels ? 1u : 0u);
  }
}

// Rows without a monitor UID take the variant without a monitor.
TEST(BenchmarkDevice, ChecksRunInOrderAndTheFirstFailureDecides) {
  struct Row {
    const char *uid, *name;
    std::int64_t count, first;
    const char *monitorUID = nullptr, *monitorName = "";
    std::int64_t monitorCount = 0;
  };
  const std::string within = "source first channel must be within the input channel count";
  const std::pair<Row, std::string> rows[] = {
      {{"  ", " ", 0, 0}, "input UID must not be empty"},
      {{"", "", 0, 0, ""}, "input UID must not be empty"},
      {{"in", "\n\t", 0, 0}, "input name must not be empty"},
      {{"in", "In", 0, 1}, "input channel count must be positive"},
      {{"in", "In", 8, 0}, within},
      {{"in", "In", 8, 9}, within},
      {{"in", "In", 1, 2, " "}, within},
      {{"in", "In", 1, 1, " \u2029"}, "monitor UID must not be empty"},
      {{"in", "In", 1, 1, "out", "\u00A0"}, "monitor name must not be empty"},
      {{"in", "In", 1, 1, "out", "Out"}, "monitor channel count must be positive"},
  };
  ConfigSnapshot document = testing::richSnapshot();
  document.devices.push_back(testing::stereoDevice(kDevice, "Old benchmark"));
  for (const auto& [r, reason] : rows) {
    SCOPED_TRACE(reason);
    testing::expectRejected(
        document,
        [&](ConfigSnapshot& d) {
          r.monitorUID
              ? Editor::prepareHardwareInputMonitorBenchmarkDevice(
                    r.uid, r.name, r.count, r.monitorUID, r.monitorName, r.monitorCount, r.first,
                    std::nullopt, d)
              : Editor::prepareHardwareInputBenchmarkDevice(r.uid, r.name, r.count, r.first, d);
        },
        ConfigEditError::invalidBenchmarkInput(reason));
  }
}

// The device is fixed but for the trimmed inputs, replaces every earlier one wherever it was,
// and is appended and selected.
TEST(BenchmarkDevice, ReplacesEveryEarlierBenchmarkDeviceWithTheFixedOneAtTheEnd) {
  ConfigSnapshot document;
  DeviceConfig old = testing::stereoDevice(kDevice, "Tweaked");
  old.volume = 0.2;
  old.channelGains = std::vector{0.5, 0.5};
  DeviceConfig a = testing::stereoDevice("a", "A");
  DeviceConfig b = testing::stereoDevice("b", "B");
  // A nested reference to the benchmark device survives the replacement.
  b.sources.push_back(testing::nestedSource("feed", kDevice));
  document.devices = {old, a, old, b};
  document.ui.selectedDeviceID = "a";

  DeviceConfig expected{.id = kDevice,
                        .name = "Brisola Benchmark",
                        .enabled = true,
                        .sampleRate = 48000.0,
                        .channelCount = 2};
  expected.sources = {testing::hardwareSource(kSource, "USB-Mic:1", 4)};
  expected.sources[0].name = "Desk Mic";
  expected.sources[0].metadata.inputBackend = "core";
  expected.monitors = {testing::monitor(kMonitor, "Speakers-UID")};
  expected.monitors[0].name = "Big Speakers";
  expected.wires = {
      wire("brisola-benchmark-wire-1", sourceEnd(kSource, 2), outputEnd(kDevice, 1)),
      wire("brisola-benchmark-wire-2", sourceEnd(kSource, 3), outputEnd(kDevice, 2)),
      wire("brisola-benchmark-monitor-wire-1", outputEnd(kDevice, 1), monitorEnd(kMonitor, 1)),
      wire("brisola-benchmark-monitor-wire-2", outputEnd(kDevice, 2), monitorEnd(kMonitor, 2))};
  EXPECT_EQ(Editor::prepareHardwareInputMonitorBenchmarkDevice(
                "\t USB-Mic:1 \n", "\u00A0Desk Mic\u2028", 4, " Speakers-UID ", "\r\nBig Speakers ",
                2, 2, std::string(" core "), document),
            expected);
  EXPECT_THAT(document.devices, ::testing::ElementsAre(a, b, expected));
  EXPECT_EQ(document.ui.selectedDeviceID, kDevice);

  // Running again, now without a monitor, replaces the device wholesale; a repeat changes nothing.
  document.ui.selectedDeviceID = "b";
  DeviceConfig second = Editor::prepareHardwareInputBenchmarkDevice("in", "In", 2, 1, document);
  EXPECT_EQ(Editor::prepareHardwareInputBenchmarkDevice("in", "In", 2, 1, document), second);
  EXPECT_THAT(document.devices, ::testing::ElementsAre(a, b, second));
  EXPECT_EQ(document.ui.selectedDeviceID, kDevice);
  EXPECT_TRUE(second.monitors.empty());
}

}  // namespace
}  // namespace brisola
