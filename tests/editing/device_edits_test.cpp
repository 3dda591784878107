#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <set>

#include "editing/edit_expectations.hpp"
#include "support/documents.hpp"

namespace brisola {
namespace {

using testing::outputEnd;
using testing::sourceEnd;
using Gains = std::optional<std::vector<double>>;
namespace Editor = ConfigEditor;

// Checks run before the first id is taken.
std::string noIds() {
  ADD_FAILURE() << "an id was taken";
  return {};
}

// Every operation that looks an element up, and every one that builds wires or gains for a
// channel count: counts far beyond any device, given or found in a hostile document, are
// refused before anything is built (they used to take minutes and gigabytes, or bad_alloc).
// Rejections never take an id and change nothing.
TEST(ConfigEditorRejections, MissingElementsAndAbsurdChannelCountsChangeNothing) {
  using E = ConfigEditError;
  using Edit = std::function<void(ConfigSnapshot&)>;
  ConfigSnapshot document = testing::richSnapshot();
  document.devices.push_back(testing::stereoDevice("big", "Big"));
  document.devices.back().channelCount = std::int64_t{1} << 53;
  document.devices.push_back(document.devices.back());
  document.devices.back().id = "big2";
  const auto huge = E::channelCountOutOfRange(std::int64_t{1} << 53);
  const auto ghost = E::deviceNotFound("ghost");
  const auto cycle = E::nestedDeviceCycle("nest");
  const std::pair<Edit, E> rows[] = {
      {[](auto& d) { Editor::renameDevice("Studio", "x", d); }, E::deviceNotFound("Studio")},
      {[](auto& d) { Editor::deleteDevice("ghost", d); }, ghost},
      // "feed" exists, but in another device: lookups never leave the device.
      {[](auto& d) { Editor::setSourceControls("studio", "feed", true, true, 0.5, d); },
       E::sourceNotFound("feed")},
      {[](auto& d) { Editor::setSourceChannelGain("nest", "mic", 1, 0.5, d); },
       E::sourceNotFound("mic")},
      // The device is looked up first.
      {[](auto& d) { Editor::setMonitorChannelGain("ghost", "spk", 1, 0.5, d); }, ghost},
      {[](auto& d) { Editor::setMonitorControls("nest", "spk", true, true, 0.5, d); },
       E::monitorNotFound("spk")},
      {[](auto& d) { Editor::addSource("ghost", {}, false, d, noIds); }, ghost},
      {[](auto& d) { Editor::addMonitor("ghost", {}, false, d, noIds); }, ghost},
      // Wires are looked up in the given device only.
      {[](auto& d) { Editor::deleteWire("studio", "nest-w1", d); }, E::wireNotFound("nest-w1")},
      {[](auto& d) { Editor::deleteWire("ghost", "studio-w1", d); }, ghost},
      {[](auto& d) { Editor::deleteSource("studio", "spk", d); }, E::sourceNotFound("spk")},
      {[](auto& d) { Editor::deleteMonitor("studio", "mic", d); }, E::monitorNotFound("mic")},
      {[](auto& d) { Editor::deleteMonitor("ghost", "spk", d); }, ghost},
      // The receiving device is looked up before the nested one, and "nest" already takes in
      // "studio".
      {[](auto& d) { Editor::addVirtualDeviceSource("ghost", "phantom", d, noIds); }, ghost},
      {[](auto& d) { Editor::addVirtualDeviceSource("studio", "ghost", d, noIds); }, ghost},
      {[](auto& d) { Editor::addVirtualDeviceSource("nest", "nest", d, noIds); }, cycle},
      {[](auto& d) { Editor::addVirtualDeviceSource("studio", "nest", d, noIds); }, cycle},
      {[](auto& d) { Editor::setDeviceChannelCount("studio", 4097, d); },
       E::channelCountOutOfRange(4097)},
      {[](auto& d) { Editor::setDeviceChannelGain("big", 1, 0.5, d); }, huge},
      {[](auto& d) { Editor::addVirtualDeviceSource("big", "big2", d, [] { return "x"; }); }, huge},
      {[](auto& d) { Editor::addSource("big", {.channelCount = 5000}, true, d, noIds); },
       E::channelCountOutOfRange(5000)},
      {[](auto& d) { Editor::addMonitor("big", {.channelCount = 1 << 30}, true, d, noIds); },
       E::channelCountOutOfRange(1 << 30)},
  };
  for (const auto& [edit, expected] : rows) {
    SCOPED_TRACE(expected.what());
    testing::expectRejected(document, edit, expected);
  }
  // The largest count is built; unwired, a new element builds nothing for its channels.
  Editor::setDeviceChannelCount("studio", 4096, document);
  EXPECT_EQ(document.devices[0].wires.size(), 4097u);
  EXPECT_EQ(Editor::addSource("big", {.channelCount = 5000}, false, document, [] { return "x"; })
                .channelCount,
            5000);
}

// Of several elements with one id the first is changed: a second "nest" and a second "sys" stay
// as they are.
TEST(ConfigEditorDeviceEdits, StoreValuesAsGivenInTheFirstElementWithTheIdAndReturnIt) {
  ConfigSnapshot document = testing::richSnapshot();
  document.devices.push_back(document.devices[1]);
  document.devices[0].sources.push_back(document.devices[0].sources[2]);
  ConfigSnapshot expected = document;
  expected.ui.selectedDeviceID = "studio";
  expected.devices[1].name = "";     // not trimmed
  expected.devices[0].volume = 5.0;  // not clamped
  auto& sys = expected.devices[0].sources[2];
  sys.enabled = true, sys.muted = true, sys.gain = 3.0;
  expected.devices[0].sources[0].muteWhenCapturing = true;  // even on a pass-thru source
  auto& spk = expected.devices[0].monitors[0];
  spk.enabled = false, spk.muted = true, spk.gain = -1.0;

  const auto& studio = document.devices[0];
  EXPECT_EQ(Editor::requireDeviceIndex("nest", document), 1u);
  EXPECT_EQ(Editor::selectDevice("studio", document).id, "studio");
  EXPECT_EQ(Editor::renameDevice("nest", "", document), document.devices[1]);
  EXPECT_EQ(Editor::setDeviceVolume("studio", 5.0, document), studio);
  EXPECT_EQ(Editor::setSourceControls("studio", "sys", true, true, 3.0, document),
            studio.sources[2]);
  EXPECT_EQ(Editor::setSourceMuteWhenCapturing("studio", "studio-pt", true, document),
            studio.sources[0]);
  EXPECT_EQ(Editor::setMonitorControls("studio", "spk", false, true, -1.0, document),
            studio.monitors[0]);
  EXPECT_EQ(document, expected);
}

TEST(UpdatedChannelGains, PadsNeverCutsAndCollapsesToAbsentAtUnity) {
  struct Row {
    Gains gains;
    std::int64_t count, channel;
    double gain;
    Gains expected;
  };
  using V = std::vector<double>;
  const Row rows[] = {
      {std::nullopt, 4, 5, 0.5, std::nullopt},
      {V{0.5}, 2, 2, 1.0, V{0.5, 1.0}},
      {V{0.5, 1.0, 1.0}, 2, 3, 0.7, V{0.5, 1.0, 0.7}},
      {std::nullopt, 2, 2, 0.5, V{1.0, 0.5}},
      {V{0.5, 1.0}, 2, 1, 1.0, std::nullopt},
      // Out of range: the gains come back exactly as given, without the padding.
      {V{0.5}, 3, 4, 0.1, V{0.5}},
      {V{0.5}, 3, 0, 0.1, V{0.5}},
      {V{0.5, 0.25}, -3, 2, 0.1, V{0.5, 0.1}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(::testing::Message() << "count " << row.count << " channel " << row.channel);
    EXPECT_EQ(Editor::updatedChannelGains(row.gains, row.count, row.channel, row.gain),
              row.expected);
  }
}

TEST(ConfigEditorChannelGains, EachOwnerUsesItsOwnChannelCountAndCollapsesBackToAbsent) {
  ConfigSnapshot document{.devices = {testing::stereoDevice("d", "D")}};
  document.devices[0].sources.push_back(testing::hardwareSource("mono", "uid", 1));
  document.devices[0].monitors.push_back(testing::monitor("six", "out", 6));
  const ConfigSnapshot before = document;

  EXPECT_EQ(Editor::setDeviceChannelGain("d", 2, 0.5, document).channelGains,
            Gains(std::vector{1.0, 0.5}));
  EXPECT_EQ(Editor::setDeviceChannelGain("d", 2, 1.0, document).channelGains, std::nullopt);
  EXPECT_EQ(Editor::setSourceChannelGain("d", "mono", 2, 0.5, document).channelGains, std::nullopt);
  EXPECT_EQ(Editor::setMonitorChannelGain("d", "six", 6, 0.0, document).channelGains,
            Gains(std::vector{1.0, 1.0, 1.0, 1.0, 1.0, 0.0}));
  EXPECT_EQ(Editor::setMonitorChannelGain("d", "six", 6, 1.0, document).channelGains, std::nullopt);
  EXPECT_EQ(document, before);
}

// A pass-thru source "pt" with its straight wire, a stale crossed wire, a wire into another
// device's output, and wires that do not belong to the pass-thru source at all.
ConfigSnapshot channelCountDocument() {
  DeviceConfig device{.id = "d", .name = "D", .enabled = true, .channelCount = 2};
  device.sources = {testing::hardwareSource("mic", "uid"), testing::passThruSource("pt"),
                    testing::passThruSource("pt2")};
  device.wires = {
      testing::wire("a", sourceEnd("mic", 1), outputEnd("d", 1)),
      testing::wire("pt1", sourceEnd("pt", 1), outputEnd("d", 1)),
      testing::wire("cross", sourceEnd("pt", 2), outputEnd("d", 1)),
      testing::wire("elsewhere", sourceEnd("pt", 1), outputEnd("other", 1)),
      testing::wire("pt2-1", sourceEnd("pt2", 1), outputEnd("d", 1)),
  };
  return ConfigSnapshot{.devices = {device}};
}

TEST(SetDeviceChannelCount, RewiresTheFirstPassThruSourceAfterTheOtherWires) {
  for (std::int64_t count : {6, 0}) {
    SCOPED_TRACE(count);
    ConfigSnapshot document = channelCountDocument();
    // Only the first pass-thru source is rewired.
    DeviceConfig expected = document.devices[0];
    expected.channelCount = expected.sources[1].channelCount = count;
    expected.wires = {expected.wires[0], expected.wires[3], expected.wires[4]};
    DeviceConfig result = Editor::setDeviceChannelCount("d", count, document);
    ASSERT_EQ(result.wires.size(), 3u + static_cast<std::size_t>(count));
    std::set<std::string> ids;
    for (std::int64_t c = 1; c <= count; ++c) {
      const std::string& id = result.wires[static_cast<std::size_t>(2 + c)].id;
      EXPECT_THAT(id, testing::upperCaseUUID);
      ids.insert(id);
      expected.wires.push_back(testing::wire(id, sourceEnd("pt", c), outputEnd("d", c)));
    }
    EXPECT_EQ(ids.size(), static_cast<std::size_t>(count));
    EXPECT_EQ(result, expected);
    EXPECT_EQ(document.devices[0], expected);
  }

  // Without a pass-thru source only the count changes.
  ConfigSnapshot document = channelCountDocument();
  document.devices[0].sources[1].type = SourceType::system;
  document.devices[0].sources[2].type = SourceType::application;
  ConfigSnapshot expected = document;
  expected.devices[0].channelCount = 6;
  Editor::setDeviceChannelCount("d", 6, document);
  EXPECT_EQ(document, expected);
}

TEST(DeleteDevice, RemovesEveryDeviceWithTheIdAndMovesOnlyItsSelection) {
  struct Row {
    const char* name;
    std::vector<std::string> ids;
    std::string target;
    std::optional<std::string> selected;
    std::vector<std::string> remaining;
    std::optional<std::string> selectedAfter;
  };
  const Row rows[] = {
      {"selected first", {"a", "b", "c"}, "a", "a", {"b", "c"}, "b"},
      {"selected middle", {"a", "b", "c"}, "b", "b", {"a", "c"}, "a"},
      {"nothing selected", {"a", "b"}, "b", std::nullopt, {"a"}, std::nullopt},
      {"last device", {"a"}, "a", "a", {}, std::nullopt},
      {"shared id", {"a", "b", "a", "c", "a"}, "a", "a", {"b", "c"}, "b"},
      {"shared id, selected elsewhere", {"c", "a", "b", "a"}, "a", "b", {"c", "b"}, "b"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    ConfigSnapshot document;
    for (const auto& id : row.ids) document.devices.push_back(testing::stereoDevice(id, id));
    document.ui.selectedDeviceID = row.selected;
    EXPECT_EQ(Editor::deleteDevice(row.target, document), document);
    std::vector<std::string> remaining;
    for (const auto& device : document.devices) remaining.push_back(device.id);
    EXPECT_EQ(remaining, row.remaining);
    EXPECT_EQ(document.ui.selectedDeviceID, row.selectedAfter);
  }

  // References to the device stay, and the id may be a view of the string the removal destroys.
  ConfigSnapshot document = testing::richSnapshot();
  document.ui.selectedDeviceID = "studio";
  Editor::deleteDevice(document.devices[0].id, document);
  EXPECT_EQ(document.devices, std::vector{testing::richSnapshot().devices[1]});
  EXPECT_EQ(document.ui.selectedDeviceID, "nest");
}

}  // namespace
}  // namespace brisola
