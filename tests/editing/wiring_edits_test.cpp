#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <variant>

#include "editing/edit_expectations.hpp"
#include "support/documents.hpp"

namespace brisola {
namespace {

using testing::monitorEnd;
using testing::outputEnd;
using testing::sourceEnd;
namespace Editor = ConfigEditor;

// "dev-1": two channels, a pass-thru source "dev-1-pt" wired straight, a mono hardware
// source "mic", a mono monitor "spk". "dev-2" also has a source called "mic", with 8 channels.
ConfigSnapshot wiringDocument() {
  ConfigSnapshot document;
  DeviceConfig device = testing::stereoDevice("dev-1", "One");
  device.sources.push_back(testing::hardwareSource("mic", "uid", 1));
  device.sources.push_back(testing::hardwareSource("mic", "uid", 4));
  device.monitors.push_back(testing::monitor("spk", "out", 1));
  DeviceConfig other = testing::stereoDevice("dev-2", "Two");
  other.sources.push_back(testing::hardwareSource("mic", "uid", 8));
  document.devices = {device, other};
  return document;
}

TEST(ConnectWire, AppendsANewWireOnceAndReturnsTheExistingOneAfterwards) {
  ConfigSnapshot document = wiringDocument();
  Wire crossed = Editor::connectWire("dev-1", sourceEnd("mic", 1), outputEnd("dev-1", 2), document);
  Wire played = Editor::connectWire("dev-1", outputEnd("dev-1", 2), monitorEnd("spk", 1), document);
  // Shares one endpoint with the first: allowed.
  Wire fanned = Editor::connectWire("dev-1", sourceEnd("mic", 1), outputEnd("dev-1", 1), document);
  EXPECT_THAT(crossed.id, testing::upperCaseUUID);
  EXPECT_NE(crossed.id, fanned.id);
  EXPECT_EQ(crossed, testing::wire(crossed.id, sourceEnd("mic", 1), outputEnd("dev-1", 2)));
  EXPECT_THAT(document.devices[0].wires,
              ::testing::ElementsAre(::testing::_, ::testing::_, crossed, played, fanned));

  const ConfigSnapshot settled = document;
  EXPECT_EQ(Editor::connectWire("dev-1", sourceEnd("mic", 1), outputEnd("dev-1", 2), document),
            crossed);
  // Passing endpoints that live in the document's own wire list.
  const Wire& stored = document.devices[0].wires[0];
  EXPECT_EQ(Editor::connectWire("dev-1", stored.from, stored.to, document),
            settled.devices[0].wires[0]);
  EXPECT_EQ(document, settled);

  // Of several wires with the same endpoints the first is returned.
  document.devices[0].wires.push_back(
      testing::wire("late", sourceEnd("mic", 1), outputEnd("dev-1", 2)));
  EXPECT_EQ(Editor::connectWire("dev-1", sourceEnd("mic", 1), outputEnd("dev-1", 2), document),
            crossed);
}

TEST(ConnectWire, RejectsInOrderDeviceThenDirectionThenFromThenTo) {
  enum Bad { device, direction, from, to };
  struct Row {
    std::string device;
    WireEndpoint from, to;
    Bad bad;
  };
  const Row rows[] = {
      {"dev-9", monitorEnd("x", 0), sourceEnd("y", 0), device},
      {"dev-1", monitorEnd("nobody", 1), outputEnd("dev-1", 1), direction},
      {"dev-1", sourceEnd("mic", 1), monitorEnd("spk", 1), direction},
      {"dev-1", outputEnd("dev-1", 1), outputEnd("dev-1", 2), direction},
      {"dev-1", sourceEnd("mic", 0), outputEnd("dev-1", 9), from},
      // The first "mic" of the device is mono; neither the second nor dev-2's counts.
      {"dev-1", sourceEnd("mic", 2), outputEnd("dev-1", 1), from},
      {"dev-1", sourceEnd("dev-2-pt", 1), outputEnd("dev-1", 1), from},
      {"dev-1", sourceEnd("mic", 1), outputEnd("dev-2", 1), to},
      {"dev-1", sourceEnd("mic", 1), outputEnd("dev-1", 3), to},
      {"dev-1", outputEnd("dev-1", 1), monitorEnd("hdmi", 1), to},
      {"dev-1", outputEnd("dev-1", 1), monitorEnd("spk", 2), to},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(::testing::Message() << "row " << &row - rows);
    const ConfigEditError expected[] = {ConfigEditError::deviceNotFound(row.device),
                                        ConfigEditError::invalidWireDirection(),
                                        ConfigEditError::invalidWireEndpoint(row.from),
                                        ConfigEditError::invalidWireEndpoint(row.to)};
    testing::expectRejected(
        wiringDocument(),
        [&](ConfigSnapshot& d) { Editor::connectWire(row.device, row.from, row.to, d); },
        expected[row.bad]);
  }
}

// Each removes every element with the id, and with it the element's wires, in the given device
// only. The ids are views of the removed elements' own ids, which the removal moves away.
TEST(DeleteWireSourceAndMonitor, RemoveEveryElementWithTheIdAndItsWiresOnlyInThatDevice) {
  ConfigSnapshot document = wiringDocument();
  Editor::connectWire("dev-1", sourceEnd("mic", 1), outputEnd("dev-1", 2), document);
  Editor::connectWire("dev-1", outputEnd("dev-1", 1), monitorEnd("spk", 1), document);
  Editor::connectWire("dev-2", sourceEnd("mic", 1), outputEnd("dev-2", 1), document);
  auto& wires = document.devices[0].wires;
  wires.push_back(testing::wire("dev-1-w1", sourceEnd("mic", 1), outputEnd("dev-1", 1)));

  ConfigSnapshot expected = document;
  DeviceConfig& one = expected.devices[0];
  one.wires.erase(one.wires.begin() + 4);
  one.wires.erase(one.wires.begin());
  EXPECT_EQ(Editor::deleteWire("dev-1", wires[0].id, document), one);
  EXPECT_EQ(document, expected);
  one.sources.resize(1);  // both sources called "mic" go
  one.wires.erase(one.wires.begin() + 1);
  EXPECT_EQ(Editor::deleteSource("dev-1", document.devices[0].sources[1].id, document), one);
  EXPECT_EQ(document, expected);
  one.monitors.clear();
  one.wires.pop_back();
  EXPECT_EQ(Editor::deleteMonitor("dev-1", "spk", document), one);
  EXPECT_EQ(document, expected);
}

// Devices whose virtualDevice sources name the given ids, in order.
DeviceConfig nesting(std::string id, std::vector<std::string> nested) {
  DeviceConfig device = testing::stereoDevice(id, id);
  for (auto& target : nested)
    device.sources.push_back(testing::nestedSource(id + "-" + target, target, target));
  return device;
}

TEST(WouldCreateNestedDeviceCycle, FollowsNestedSourcesThroughChains) {
  ConfigSnapshot document;
  document.devices = {nesting("a", {"b"}), nesting("b", {"c"}), nesting("c", {}),
                      nesting("d", {"missing", "", "x"}),
                      // A second "x" adds to the list of the first: x reaches y and z.
                      nesting("x", {"y"}), nesting("x", {"z"}), nesting("y", {"y2"}),
                      nesting("y2", {"y"}), nesting("z", {})};
  // Sources that are not nested devices, and empty names, are no edges.
  document.devices[2].sources.push_back(testing::hardwareSource("hw", "a"));
  document.devices[2].sources.back().metadata.sourceDeviceID = "a";

  struct Row {
    const char* parent;
    const char* nested;
    bool cycle;
  };
  const Row rows[] = {
      {"a", "a", true},        {"unknown", "unknown", true},
      {"b", "a", true},        {"c", "a", true},
      {"c", "b", true},        {"a", "c", false},
      {"d", "a", false},       {"missing", "d", true},
      {"", "d", false},        {"z", "x", true},
      {"d", "x", false},       {"y2", "x", true},
      {"a", "unknown", false}, {"c", "hw", false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.parent) + " <- " + row.nested);
    EXPECT_EQ(Editor::wouldCreateNestedDeviceCycle(row.parent, row.nested, document), row.cycle);
  }
}

TEST(AddVirtualDeviceSource, BuildsTheSourceAndStraightWiresFromTheFactoryInOrder) {
  struct Row {
    std::int64_t nestedChannels, receiverChannels, expectedWires;
  };
  for (const Row row : {Row{6, 2, 2}, Row{2, 6, 2}, Row{0, 2, 1}, Row{2, 0, 1}, Row{-1, 2, 1}}) {
    SCOPED_TRACE(::testing::Message() << row.nestedChannels << " into " << row.receiverChannels);
    ConfigSnapshot document{.devices = {testing::stereoDevice("recv", "Receiver"),
                                        testing::stereoDevice("inner", "Inner Name")}};
    document.devices[0].channelCount = row.receiverChannels;
    document.devices[1].channelCount = row.nestedChannels;
    ConfigSnapshot expected = document;
    DeviceConfig& receiver = expected.devices[0];
    receiver.sources.push_back(testing::nestedSource("n1", "inner", "Inner Name"));
    receiver.sources.back().channelCount = row.nestedChannels;
    for (std::int64_t c = 1; c <= row.expectedWires; ++c) {
      receiver.wires.push_back(
          testing::wire("n" + std::to_string(c + 1), sourceEnd("n1", c), outputEnd("recv", c)));
    }
    testing::CountingIdFactory factory{.prefix = "n"};
    EXPECT_EQ(Editor::addVirtualDeviceSource("recv", "inner", document, std::ref(factory)),
              receiver.sources.back());
    EXPECT_EQ(factory.calls, 1 + row.expectedWires);
    EXPECT_EQ(document, expected);
  }

  // A factory that throws midway leaves the document alone.
  ConfigSnapshot document{.devices = {nesting("a", {}), nesting("c", {})}};
  const ConfigSnapshot before = document;
  auto failOnThird = [calls = 0]() mutable -> std::string {
    if (++calls == 3) throw std::runtime_error("out of ids");
    return "id" + std::to_string(calls);
  };
  EXPECT_THROW(Editor::addVirtualDeviceSource("a", "c", document, failOnThird), std::runtime_error);
  EXPECT_EQ(document, before);
}

// dev-1 has four channels here, so that wires follow the smaller count either way.
TEST(AddSourceAndMonitor, FillInWhatIsNotGivenThenWireChannelForChannelWithIdsInOrder) {
  using Editor::NewMonitor;
  using Editor::NewSource;
  const ApplicationSourceCandidate running{
      .displayName = "Sketchpad", .bundleIdentifier = "com.sk", .pid = 9, .processObjectID = 90};
  const AudioDeviceInfo mic{.uid = "hw", .name = "Studio Mic", .channelCount = 6};
  const AudioDeviceInfo desk{.name = "Desk", .channelCount = 1};
  const SourceMetadata none, byPID{.pid = 42}, byUID{.deviceUID = "hw"};
  const SourceMetadata byBundle{.bundleIdentifier = "com.b"};
  const SourceMetadata completed{.bundleIdentifier = "com.sk", .pid = 42, .processObjectID = 90};
  constexpr auto app = SourceType::application, input = SourceType::hardwareInput;
  struct Row {
    std::variant<NewSource, NewMonitor> request;
    bool wired;
    std::string name;
    std::int64_t channels, wires;
    SourceMetadata metadata;
  };
  const Row rows[] = {
      // The running application fills in only what is missing.
      {NewSource{.type = app, .metadata = byPID, .application = running}, true, "Sketchpad", 2, 2,
       completed},
      {NewSource{.type = app, .metadata = byBundle}, true, "com.b", 2, 2, byBundle},
      {NewSource{.type = app, .metadata = byPID}, true, "Application 42", 2, 2, byPID},
      // Hardware found for another type is ignored.
      {NewSource{.channelCount = 1, .application = running, .input = mic}, true, "System Audio", 1,
       1, none},
      {NewSource{.type = input, .metadata = byUID, .input = mic}, true, "Studio Mic", 6, 4, byUID},
      {NewSource{.type = input, .name = "Mine", .channelCount = 3, .metadata = byUID, .input = mic},
       false, "Mine", 3, 0, byUID},
      {NewSource{.type = input, .metadata = byUID}, true, "hw", 2, 2, byUID},
      {NewMonitor{.deviceUID = "out", .output = desk}, true, "Desk", 1, 1, none},
      {NewMonitor{.deviceUID = "out", .name = "Mine", .channelCount = 8, .output = mic}, false,
       "Mine", 8, 0, none},
      {NewMonitor{.deviceUID = "out", .output = AudioDeviceInfo{}}, true, "", 2, 2, none},
      {NewMonitor{.deviceUID = "out"}, true, "out", 2, 2, none},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(::testing::Message() << row.name << " " << row.channels);
    ConfigSnapshot document = wiringDocument();
    document.devices[0].channelCount = 4;
    ConfigSnapshot expected = document;
    DeviceConfig& device = expected.devices[0];
    const auto* source = std::get_if<NewSource>(&row.request);
    for (std::int64_t c = 1; c <= row.wires; ++c) {
      const std::string id = "n" + std::to_string(c + 1);
      device.wires.push_back(source
                                 ? testing::wire(id, sourceEnd("n1", c), outputEnd("dev-1", c))
                                 : testing::wire(id, outputEnd("dev-1", c), monitorEnd("n1", c)));
    }
    testing::CountingIdFactory factory{.prefix = "n"};
    // The id is a view of the device's own id, which the change moves.
    const std::string_view id = document.devices[0].id;
    if (source) {
      device.sources.push_back(
          testing::sourceOf(source->type, "n1", row.name, row.metadata, row.channels));
      EXPECT_EQ(Editor::addSource(id, *source, row.wired, document, std::ref(factory)),
                device.sources.back());
    } else {
      device.monitors.push_back(testing::monitor("n1", "out", row.channels));
      device.monitors.back().name = row.name;
      EXPECT_EQ(Editor::addMonitor(id, std::get<NewMonitor>(row.request), row.wired, document,
                                   std::ref(factory)),
                device.monitors.back());
    }
    EXPECT_EQ(factory.calls, 1 + row.wires);
    EXPECT_EQ(document, expected);
  }
}

}  // namespace
}  // namespace brisola
