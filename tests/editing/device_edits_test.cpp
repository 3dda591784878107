#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <set>

#include "editing/edit_expectations.hpp"
#include "support/documents.hpp"

namespace brisola {
namespace {

using testing::expectRejected;
using testing::outputEnd;
using testing::sourceEnd;
using Gains = std::optional<std::vector<double>>;
namespace Editor = ConfigEditor;

TEST(ConfigEditError, DescriptionsAndEqualityFollowCaseAndPayload) {
  struct Row {
    ConfigEditError error;
    const char* description;
  };
  const Row rows[] = {
      {ConfigEditError::deviceNotFound("d/1"), "No device exists with ID 'd/1'."},
      {ConfigEditError::sourceNotFound("s"), "No source exists with ID 's'."},
      {ConfigEditError::monitorNotFound("m"), "No monitor exists with ID 'm'."},
      {ConfigEditError::wireNotFound("it's"), "No wire exists with ID 'it's'."},
      {ConfigEditError::invalidBenchmarkInput("input name must not be empty"),
       "Invalid benchmark input: input name must not be empty."},
      {ConfigEditError::invalidWireEndpoint(testing::monitorEnd("spk", -2)),
       "Wire endpoint monitor:spk:-2 is not valid for the device."},
      {ConfigEditError::nestedDeviceCycle("b"),
       "Adding device 'b' as a source would create a nested-device cycle."},
      {ConfigEditError::invalidWireDirection(),
       "Wire direction must be source-to-deviceOutput or deviceOutput-to-monitor."},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.description);
    EXPECT_STREQ(row.error.what(), row.description);
    EXPECT_EQ(row.error, row.error);
  }
  EXPECT_NE(ConfigEditError::deviceNotFound("x"), ConfigEditError::sourceNotFound("x"));
  EXPECT_NE(ConfigEditError::deviceNotFound("x"), ConfigEditError::deviceNotFound("y"));
  EXPECT_NE(ConfigEditError::invalidWireEndpoint(sourceEnd("a", 1)),
            ConfigEditError::invalidWireEndpoint(sourceEnd("a", 2)));
  EXPECT_EQ(ConfigEditError::invalidWireEndpoint(sourceEnd("a", 1)).endpoint(), sourceEnd("a", 1));
}

TEST(ConfigEditorLookups, MissingElementsFailWithTheLookedUpIdAndChangeNothing) {
  const ConfigSnapshot document = testing::richSnapshot();
  using Edit = std::function<void(ConfigSnapshot&)>;
  const std::pair<Edit, ConfigEditError> rows[] = {
      {[](auto& d) { Editor::selectDevice("ghost", d); }, ConfigEditError::deviceNotFound("ghost")},
      {[](auto& d) { Editor::renameDevice("Studio", "x", d); },
       ConfigEditError::deviceNotFound("Studio")},
      {[](auto& d) { Editor::setDeviceEnabled("", false, d); },
       ConfigEditError::deviceNotFound("")},
      {[](auto& d) { Editor::setDeviceChannelCount("ghost", 6, d); },
       ConfigEditError::deviceNotFound("ghost")},
      {[](auto& d) { Editor::setDeviceVolume("ghost", 0.5, d); },
       ConfigEditError::deviceNotFound("ghost")},
      {[](auto& d) { Editor::setDeviceIcon("ghost", "x", d); },
       ConfigEditError::deviceNotFound("ghost")},
      {[](auto& d) { Editor::setDeviceChannelGain("ghost", 1, 0.5, d); },
       ConfigEditError::deviceNotFound("ghost")},
      {[](auto& d) { Editor::deleteDevice("ghost", d); }, ConfigEditError::deviceNotFound("ghost")},
      {[](auto& d) { Editor::setSourceControls("ghost", "mic", true, true, 0.5, d); },
       ConfigEditError::deviceNotFound("ghost")},
      // "feed" exists, but in another device: lookups never leave the device.
      {[](auto& d) { Editor::setSourceControls("studio", "feed", true, true, 0.5, d); },
       ConfigEditError::sourceNotFound("feed")},
      {[](auto& d) { Editor::setSourceMuteWhenCapturing("studio", "nope", true, d); },
       ConfigEditError::sourceNotFound("nope")},
      {[](auto& d) { Editor::setSourceChannelGain("nest", "mic", 1, 0.5, d); },
       ConfigEditError::sourceNotFound("mic")},
      {[](auto& d) { Editor::setMonitorControls("nest", "spk", true, true, 0.5, d); },
       ConfigEditError::monitorNotFound("spk")},
      {[](auto& d) { Editor::setMonitorChannelGain("ghost", "spk", 1, 0.5, d); },
       ConfigEditError::deviceNotFound("ghost")},
      {[](auto& d) { Editor::setMonitorChannelGain("studio", "mic", 1, 0.5, d); },
       ConfigEditError::monitorNotFound("mic")},
  };
  for (const auto& [edit, expected] : rows) {
    SCOPED_TRACE(expected.what());
    expectRejected(document, edit, expected);
  }
}

TEST(ConfigEditorLookups, FirstElementWithTheIdIsTheOneChanged) {
  ConfigSnapshot document;
  document.devices = {testing::stereoDevice("dup", "First"),
                      testing::stereoDevice("dup", "Second")};
  document.devices[0].sources.push_back(testing::passThruSource("dup-pt"));

  EXPECT_EQ(Editor::requireDeviceIndex("dup", document), 0u);
  Editor::renameDevice("dup", "Renamed", document);
  SourceConfig changed = Editor::setSourceControls("dup", "dup-pt", false, true, 0.25, document);

  EXPECT_EQ(document.devices[0].name, "Renamed");
  EXPECT_EQ(document.devices[1].name, "Second");
  EXPECT_EQ(changed, document.devices[0].sources[0]);
  EXPECT_EQ(document.devices[0].sources[1], testing::passThruSource("dup-pt"));
  EXPECT_EQ(document.devices[1].sources[0], testing::passThruSource("dup-pt"));
}

TEST(ConfigEditorDeviceEdits, StoreValuesAsGivenAndReturnTheChangedElement) {
  struct Row {
    const char* name;
    std::function<void(ConfigSnapshot&)> edit;
    std::function<void(ConfigSnapshot&)> expectedChange;
  };
  const Row rows[] = {
      {"select", [](auto& d) { EXPECT_EQ(Editor::selectDevice("studio", d).id, "studio"); },
       [](auto& d) { d.ui.selectedDeviceID = "studio"; }},
      {"empty name is kept, not trimmed",
       [](auto& d) { EXPECT_EQ(Editor::renameDevice("nest", "", d), d.devices[1]); },
       [](auto& d) { d.devices[1].name = ""; }},
      {"volume is not clamped",
       [](auto& d) { EXPECT_EQ(Editor::setDeviceVolume("studio", 5.0, d).volume, 5.0); },
       [](auto& d) { d.devices[0].volume = 5.0; }},
      {"source controls",
       [](auto& d) {
         EXPECT_EQ(Editor::setSourceControls("studio", "sys", true, true, 3.0, d),
                   d.devices[0].sources[2]);
       },
       [](auto& d) {
         auto& s = d.devices[0].sources[2];
         s.enabled = true, s.muted = true, s.gain = 3.0;
       }},
      {"mute when capturing on a pass-thru source",
       [](auto& d) { Editor::setSourceMuteWhenCapturing("studio", "studio-pt", true, d); },
       [](auto& d) { d.devices[0].sources[0].muteWhenCapturing = true; }},
      {"monitor controls",
       [](auto& d) {
         EXPECT_EQ(Editor::setMonitorControls("studio", "spk", false, true, -1.0, d),
                   d.devices[0].monitors[0]);
       },
       [](auto& d) {
         auto& m = d.devices[0].monitors[0];
         m.enabled = false, m.muted = true, m.gain = -1.0;
       }},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    ConfigSnapshot document = testing::richSnapshot();
    ConfigSnapshot expected = document;
    row.expectedChange(expected);
    row.edit(document);
    EXPECT_EQ(document, expected);
  }
}

TEST(UpdatedChannelGains, PadsNeverCutsAndCollapsesToAbsentAtUnity) {
  struct Row {
    Gains gains;
    std::int64_t count, channel;
    double gain;
    Gains expected;
  };
  const Row rows[] = {
      {std::vector{1.0, 1.0}, 2, 1, 1.0, std::nullopt},
      {std::nullopt, 4, 5, 0.5, std::nullopt},
      {std::vector{0.5}, 2, 2, 1.0, std::vector{0.5, 1.0}},
      {std::vector{0.5, 1.0, 1.0}, 2, 3, 0.7, std::vector{0.5, 1.0, 0.7}},
      {std::nullopt, 2, 2, 0.5, std::vector{1.0, 0.5}},
      {std::vector{0.5, 2.0}, 2, 1, 1.0, std::vector{1.0, 2.0}},
      {std::vector{0.5, 1.0}, 2, 1, 1.0, std::nullopt},
      // Out of range: the gains come back exactly as given, without the padding.
      {std::vector{0.5}, 3, 4, 0.1, std::vector{0.5}},
      {std::vector{0.5}, 3, 0, 0.1, std::vector{0.5}},
      {std::vector<double>{}, 0, 1, 0.1, std::vector<double>{}},
      {std::nullopt, -3, 1, 0.1, std::nullopt},
      {std::vector{0.5, 0.25}, -3, 2, 0.1, std::vector{0.5, 0.1}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(::testing::Message()
                 << "count " << row.count << " channel " << row.channel << " gain " << row.gain);
    EXPECT_EQ(Editor::updatedChannelGains(row.gains, row.count, row.channel, row.gain),
              row.expected);
  }
}

TEST(ConfigEditorChannelGains, EachOwnerUsesItsOwnChannelCountAndCollapsesBackToAbsent) {
  ConfigSnapshot document;
  document.devices = {testing::stereoDevice("d", "D")};
  document.devices[0].sources.push_back(testing::hardwareSource("mono", "uid", 1));
  document.devices[0].monitors.push_back(testing::monitor("six", "out", 6));

  EXPECT_EQ(Editor::setDeviceChannelGain("d", 2, 0.5, document).channelGains,
            Gains(std::vector{1.0, 0.5}));
  EXPECT_EQ(Editor::setDeviceChannelGain("d", 2, 1.0, document).channelGains, std::nullopt);
  EXPECT_EQ(Editor::setSourceChannelGain("d", "mono", 2, 0.5, document).channelGains, std::nullopt);
  EXPECT_EQ(Editor::setMonitorChannelGain("d", "six", 6, 0.0, document).channelGains,
            Gains(std::vector{1.0, 1.0, 1.0, 1.0, 1.0, 0.0}));
  EXPECT_EQ(Editor::setMonitorChannelGain("d", "six", 6, 1.0, document).channelGains, std::nullopt);

  ConfigSnapshot expected;
  expected.devices = {testing::stereoDevice("d", "D")};
  expected.devices[0].sources.push_back(testing::hardwareSource("mono", "uid", 1));
  expected.devices[0].monitors.push_back(testing::monitor("six", "out", 6));
  EXPECT_EQ(document, expected);
}

class SetDeviceChannelCount : public ::testing::Test {
 protected:
  // A pass-thru source "pt" with its straight wires, a stale crossed wire, a wire into another
  // device's output, and wires that do not belong to the pass-thru source at all.
  void SetUp() override {
    DeviceConfig device{.id = "d", .name = "D", .enabled = true, .channelCount = 2};
    device.sources = {testing::hardwareSource("mic", "uid"), testing::passThruSource("pt"),
                      testing::passThruSource("pt2")};
    device.monitors = {testing::monitor("spk", "out")};
    device.wires = {
        testing::wire("a", sourceEnd("mic", 1), outputEnd("d", 1)),
        testing::wire("pt1", sourceEnd("pt", 1), outputEnd("d", 1)),
        testing::wire("b", outputEnd("d", 1), testing::monitorEnd("spk", 1)),
        testing::wire("cross", sourceEnd("pt", 2), outputEnd("d", 1)),
        testing::wire("elsewhere", sourceEnd("pt", 1), outputEnd("other", 1)),
        testing::wire("pt2-1", sourceEnd("pt2", 1), outputEnd("d", 1)),
    };
    document.devices = {device};
  }
  ConfigSnapshot document;
};

TEST_F(SetDeviceChannelCount, RewiresTheFirstPassThruSourceAfterTheOtherWires) {
  const ConfigSnapshot before = document;
  DeviceConfig result = Editor::setDeviceChannelCount("d", 6, document);
  ASSERT_EQ(result, document.devices[0]);

  EXPECT_EQ(result.channelCount, 6);
  EXPECT_EQ(result.sources[1].channelCount, 6);
  EXPECT_EQ(result.sources[2], before.devices[0].sources[2]) << "only the first is rewired";
  const auto& old = before.devices[0].wires;
  ASSERT_EQ(result.wires.size(), 10u);
  EXPECT_THAT(std::vector(result.wires.begin(), result.wires.begin() + 4),
              ::testing::ElementsAre(old[0], old[2], old[4], old[5]));
  std::set<std::string> ids;
  for (std::int64_t c = 1; c <= 6; ++c) {
    const Wire& added = result.wires[static_cast<std::size_t>(3 + c)];
    SCOPED_TRACE(added.id);
    EXPECT_EQ(added.from, sourceEnd("pt", c));
    EXPECT_EQ(added.to, outputEnd("d", c));
    EXPECT_TRUE(testing::isUpperCaseUUID(added.id));
    ids.insert(added.id);
  }
  EXPECT_EQ(ids.size(), 6u);
}

TEST_F(SetDeviceChannelCount, ZeroRemovesThePassThruWiresAndAddsNone) {
  const ConfigSnapshot before = document;
  DeviceConfig result = Editor::setDeviceChannelCount("d", 0, document);
  EXPECT_EQ(result.sources[1].channelCount, 0);
  std::vector<Wire> kept;
  for (std::size_t i : {0, 2, 4, 5}) kept.push_back(before.devices[0].wires[i]);
  EXPECT_EQ(result.wires, kept);
}

TEST_F(SetDeviceChannelCount, WithoutAPassThruSourceOnlyTheCountChanges) {
  auto& sources = document.devices[0].sources;
  sources[1].type = SourceType::system;
  sources[2].type = SourceType::application;
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
      {"unselected", {"a", "b", "c"}, "a", "c", {"b", "c"}, "c"},
      {"nothing selected", {"a", "b"}, "b", std::nullopt, {"a"}, std::nullopt},
      {"last device", {"a"}, "a", "a", {}, std::nullopt},
      {"shared id", {"a", "b", "a", "c", "a"}, "a", "a", {"b", "c"}, "b"},
      {"shared id, selected elsewhere", {"c", "a", "b", "a"}, "a", "b", {"c", "b"}, "b"},
      {"shared id, all", {"a", "a"}, "a", "a", {}, std::nullopt},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    ConfigSnapshot document;
    for (const auto& id : row.ids) document.devices.push_back(testing::stereoDevice(id, id));
    document.ui.selectedDeviceID = row.selected;
    ConfigSnapshot result = Editor::deleteDevice(row.target, document);
    EXPECT_EQ(result, document);
    std::vector<std::string> remaining;
    for (const auto& device : document.devices) remaining.push_back(device.id);
    EXPECT_EQ(remaining, row.remaining);
    EXPECT_EQ(document.ui.selectedDeviceID, row.selectedAfter);
  }
}

TEST(DeleteDevice, KeepsNestedReferencesAndAcceptsTheIdOfTheDocumentItself) {
  ConfigSnapshot document = testing::richSnapshot();
  document.ui.selectedDeviceID = "studio";
  // The id is a view of the very string that the removal destroys.
  Editor::deleteDevice(document.devices[0].id, document);
  ASSERT_EQ(document.devices.size(), 1u);
  EXPECT_EQ(document.ui.selectedDeviceID, "nest");
  EXPECT_EQ(document.devices[0].sources.back().metadata.sourceDeviceID, "studio");
}

}  // namespace
}  // namespace brisola
