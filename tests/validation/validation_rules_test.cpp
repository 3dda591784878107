#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "brisola/validation/validation.hpp"
#include "support/documents.hpp"
#include "validation/canonical_key_index.hpp"

namespace brisola {

// Readable failure output: one issue per line rather than bytes.
inline void PrintTo(const ValidationIssue& issue, std::ostream* out) {
  *out << "{" << issue.code << " | " << issue.message << " | " << issue.path << "}";
}

namespace {

// Issues written one per line as "code | message | path"; blank lines are skipped.
std::vector<ValidationIssue> issues(std::string_view table) {
  std::vector<ValidationIssue> result;
  while (!table.empty()) {
    std::string_view line = table.substr(0, table.find('\n'));
    table.remove_prefix(std::min(table.size(), line.size() + 1));
    line.remove_prefix(std::min(line.size(), line.find_first_not_of(' ')));
    if (line.empty()) continue;
    const auto first = line.find(" | "), second = line.rfind(" | ");
    result.push_back({std::string(line.substr(0, first)),
                      std::string(line.substr(first + 3, second - first - 3)),
                      std::string(line.substr(second + 3))});
  }
  return result;
}

std::vector<std::string> codes(const std::vector<ValidationIssue>& list) {
  std::vector<std::string> result;
  for (const auto& issue : list) result.push_back(issue.code);
  return result;
}

using testing::monitorEnd;
using testing::outputEnd;
using testing::sourceEnd;
using testing::stereoDevice;
using testing::wire;

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

ValidationResult validated(const ConfigSnapshot& snapshot) {
  return ConfigValidator{}.validate(snapshot);
}

ConfigSnapshot documentWith(std::vector<DeviceConfig> devices) {
  ConfigSnapshot snapshot = ConfigSnapshot::empty();
  snapshot.devices = std::move(devices);
  return snapshot;
}

SourceConfig source(std::string id, SourceType type, std::string name) {
  return testing::sourceOf(type, std::move(id), std::move(name));
}

TEST(ValidationRules, EmptyAndWellFormedDocumentsHaveNothingToReport) {
  EXPECT_EQ(validated(ConfigSnapshot::empty()), ValidationResult{});

  // Every record and source type, a nested device, a selected device: all fine apart from a
  // sample rate that the engine ignores.
  ValidationResult rich = validated(testing::richSnapshot());
  EXPECT_TRUE(rich.errors.empty());
  EXPECT_EQ(codes(rich.warnings), std::vector<std::string>{"device.unsupportedSampleRate"});
  EXPECT_EQ(rich.warnings[0].path, "devices[1].sampleRate");
}

// One document that trips most rules at once: every issue, in emission order.
ConfigSnapshot brokenStudio() {
  DeviceConfig first{.id = "a",
                     .name = " ",
                     .enabled = true,
                     .sampleRate = 44100,
                     .channelCount = 3,
                     .volume = 2.5,
                     .channelGains = std::vector<double>{1.0, 3.0, -0.0, kNaN},
                     .uid = "dup.uid"};
  SourceConfig passThru = source("s", SourceType::passThru, "Pass");
  passThru.muteWhenCapturing = true;
  SourceConfig application = source("s", SourceType::application, "\t\n");
  application.channelCount = 0;
  application.gain = kInfinity;
  application.channelGains = std::vector<double>{0.5};
  SourceConfig hardware = testing::hardwareSource("", "", 1);
  first.sources = {passThru, application, hardware};

  MonitorConfig speakers = testing::monitor("m", "  ");
  speakers.gain = -0.5;
  speakers.channelGains = std::vector<double>{2.0, 2.0000001};
  MonitorConfig unnamed = testing::monitor("m", "Out", 0);
  unnamed.name = "";
  first.monitors = {speakers, unnamed};

  first.wires = {
      // "s" is found as the first source bearing it (two channels), and channel 3 is the
      // device's last channel: nothing to report.
      wire("w", sourceEnd("s", 2), outputEnd("a", 3)),
      wire("w", monitorEnd("ghost", 0), sourceEnd("ghost", 1)),
      wire("", outputEnd("b", 4), monitorEnd("m", 3)),
      wire("w3", outputEnd("a", 1), monitorEnd("nope", 1)),
      wire("w4", sourceEnd("", 1), outputEnd("a", -1)),
  };

  DeviceConfig second{.id = "a",
                      .name = "Second",
                      .sampleRate = 0,
                      .channelCount = 66,
                      .volume = -0.0,
                      .uid = "dup.uid"};
  second.sources = {source("v", SourceType::virtualDevice, "Feed")};

  DeviceConfig third{
      .id = "", .name = "Third", .sampleRate = 48000, .channelCount = 64, .uid = " "};
  SourceConfig loop = source("n", SourceType::virtualDevice, "Loop");
  loop.metadata.sourceDeviceID = "zzz";
  third.sources = {loop};

  DeviceConfig fourth{.id = "", .name = "", .sampleRate = 48000, .channelCount = 2};

  // Names and UIDs are blank by Unicode's white space; identifiers only when empty. Metadata
  // of another source type is not consulted.
  DeviceConfig fifth{.id = "e",
                     .name = "\u00A0\u2028\r\n",
                     .sampleRate = kNaN,
                     .channelCount = 0,
                     .uid = "\u3000"};
  fifth.sources = {source(" ", SourceType::application, "Blank id"),
                   source("p", SourceType::application, "Process object"),
                   source("y", SourceType::system, "System"),
                   testing::hardwareSource("h", " "),
                   testing::hardwareSource("h2", "Mic"),
                   source("h3", SourceType::hardwareInput, "Only nested"),
                   testing::nestedSource("v2", "")};
  fifth.sources[0].metadata.bundleIdentifier = "";
  fifth.sources[1].metadata.processObjectID = 7;
  fifth.sources[2].muteWhenCapturing = fifth.sources[4].muteWhenCapturing = true;
  fifth.sources[5].metadata.sourceDeviceID = "d";
  fifth.monitors = {testing::monitor("", "Out")};
  DeviceConfig sixth{.id = "f",
                     .name = "\u200B",  // a format character, not white space
                     .sampleRate = 48000.5,
                     .channelCount = 2,
                     .volume = 2.0};
  sixth.sources = {testing::passThruSource("pt", 0), testing::nestedSource("self", "f")};

  ConfigSnapshot snapshot = documentWith({first, second, third, fourth, fifth, sixth});
  snapshot.schemaVersion = 3;
  snapshot.ui.selectedDeviceID = "missing";
  return snapshot;
}

TEST(ValidationRules, BrokenDocumentReportsEveryIssueInOrder) {
  const ConfigSnapshot snapshot = brokenStudio();
  const ValidationResult result = validated(snapshot);
  // clang-format off
  EXPECT_EQ(result.errors, issues(R"(
    schema.unsupported | Unsupported schema version 3. | schemaVersion
    device.duplicateID | Duplicate ID 'a' found. | devices
    device.duplicateUID | Duplicate ID 'dup.uid' found. | devices
    device.emptyName | Device name must not be empty. | devices[0].name
    device.invalidVolume | Device volume must be finite and between 0.0 and 2.0. | devices[0].volume
    device.tooManyChannelGains | Channel gain count must not exceed the channel count. | devices[0].channelGains
    device.invalidChannelGain | Channel gain must be finite and between 0.0 and 2.0. | devices[0].channelGains[1]
    device.invalidChannelGain | Channel gain must be finite and between 0.0 and 2.0. | devices[0].channelGains[3]
    device.invalidChannelCount | Channel count must be even and between 2 and 64. | devices[0].channelCount
    source.duplicateID | Duplicate ID 's' found. | devices[0].sources
    monitor.duplicateID | Duplicate ID 'm' found. | devices[0].monitors
    wire.duplicateID | Duplicate ID 'w' found. | devices[0].wires
    source.emptyName | Source name must not be empty. | devices[0].sources[1].name
    source.invalidChannelCount | Source channel count must be positive. | devices[0].sources[1].channelCount
    source.invalidGain | Gain must be finite and between 0.0 and 2.0. | devices[0].sources[1].gain
    source.tooManyChannelGains | Channel gain count must not exceed the channel count. | devices[0].sources[1].channelGains
    source.emptyID | Source ID must not be empty. | devices[0].sources[2].id
    monitor.invalidGain | Gain must be finite and between 0.0 and 2.0. | devices[0].monitors[0].gain
    monitor.invalidChannelGain | Channel gain must be finite and between 0.0 and 2.0. | devices[0].monitors[0].channelGains[1]
    monitor.emptyName | Monitor name must not be empty. | devices[0].monitors[1].name
    monitor.invalidChannelCount | Monitor channel count must be positive. | devices[0].monitors[1].channelCount
    wire.emptyID | Wire ID must not be empty. | devices[0].wires[2].id
    device.invalidSampleRate | Sample rate must be positive. | devices[1].sampleRate
    device.invalidChannelCount | Channel count must be even and between 2 and 64. | devices[1].channelCount
    device.emptyID | Device ID must not be empty. | devices[2].id
    device.emptyUID | Device UID must not be empty. | devices[2].uid
    device.emptyID | Device ID must not be empty. | devices[3].id
    device.emptyName | Device name must not be empty. | devices[3].name
    device.emptyName | Device name must not be empty. | devices[4].name
    device.emptyUID | Device UID must not be empty. | devices[4].uid
    device.invalidSampleRate | Sample rate must be positive. | devices[4].sampleRate
    device.invalidChannelCount | Channel count must be even and between 2 and 64. | devices[4].channelCount
    monitor.emptyID | Monitor ID must not be empty. | devices[4].monitors[0].id
    source.invalidChannelCount | Source channel count must be positive. | devices[5].sources[0].channelCount
    device.nestedDeviceCycle | Nested device sources form a cycle involving device 'f'. | devices
  )"));
  EXPECT_EQ(result.warnings, issues(R"(
    device.unsupportedSampleRate | The engine runs at 48 kHz; this sample rate is ignored. | devices[0].sampleRate
    source.passThruChannelMismatch | Pass-Thru source channel count should match the virtual device channel count. | devices[0].sources[0].channelCount
    source.muteWhenCapturingUnsupported | Mute-when-capturing only applies to application and system audio sources. | devices[0].sources[0].muteWhenCapturing
    source.applicationMissingIdentity | Application source has no bundle identifier, PID, or process object ID. | devices[0].sources[1].metadata
    source.hardwareInputMissingDevice | Hardware input source has no Core Audio device UID. | devices[0].sources[2].metadata.deviceUID
    monitor.missingDeviceUID | Monitor has no Core Audio output device UID. | devices[0].monitors[0].deviceUID
    wire.invalidDirection | Wire direction must be source-to-deviceOutput or deviceOutput-to-monitor. | devices[0].wires[1]
    wire.from.invalidChannel | Wire endpoint channels are one-based and must be positive. | devices[0].wires[1].from.channel
    wire.to.missingSource | Wire endpoint refers to a missing source. | devices[0].wires[1].to.ownerID
    wire.from.wrongDeviceOutputOwner | Device output endpoint must refer to the containing device. | devices[0].wires[2].from.ownerID
    wire.from.deviceChannelOutOfRange | Wire endpoint channel exceeds the device channel count. | devices[0].wires[2].from.channel
    wire.to.monitorChannelOutOfRange | Wire endpoint channel exceeds the monitor channel count. | devices[0].wires[2].to.channel
    wire.to.missingMonitor | Wire endpoint refers to a missing monitor. | devices[0].wires[3].to.ownerID
    wire.to.invalidChannel | Wire endpoint channels are one-based and must be positive. | devices[0].wires[4].to.channel
    source.virtualDeviceMissingDevice | Nested device source has no source device ID. | devices[1].sources[0].metadata.sourceDeviceID
    source.muteWhenCapturingUnsupported | Mute-when-capturing only applies to application and system audio sources. | devices[4].sources[4].muteWhenCapturing
    source.hardwareInputMissingDevice | Hardware input source has no Core Audio device UID. | devices[4].sources[5].metadata.deviceUID
    source.virtualDeviceMissingDevice | Nested device source has no source device ID. | devices[4].sources[6].metadata.sourceDeviceID
    device.unsupportedSampleRate | The engine runs at 48 kHz; this sample rate is ignored. | devices[5].sampleRate
    source.passThruChannelMismatch | Pass-Thru source channel count should match the virtual device channel count. | devices[5].sources[0].channelCount
    ui.selectedDeviceMissing | Selected device ID does not refer to a configured device. | ui.selectedDeviceID
    source.virtualDeviceUnknownDevice | Nested device source 'Loop' refers to a device that does not exist. | devices[2]
  )"));
  // clang-format on
  EXPECT_FALSE(result.isValid());
  EXPECT_EQ(validated(snapshot), result);
}

TEST(ValidationRules, DuplicateAndEmptyIdentifiersAndPathsOfLaterElements) {
  std::vector<DeviceConfig> devices;
  for (std::string id : {"a", "a", "", "", "a", "A", " a"}) {
    devices.push_back(DeviceConfig{.id = id, .name = "N", .sampleRate = 48000, .channelCount = 2});
  }
  devices[1].uid = "X";
  devices[2].uid = "X";
  devices[3].uid = "";  // blank, so reported as empty and not as a duplicate
  devices[4].uid = "";
  // Indices of two digits in the paths.
  while (devices.size() < 12) {
    devices.push_back(stereoDevice("d" + std::to_string(devices.size()), "D"));
  }
  for (int j = 0; j < 11; ++j) {
    devices.back().sources.push_back(testing::passThruSource(std::to_string(j)));
  }
  devices.back().sources.back().name = "";
  EXPECT_EQ(validated(documentWith(devices)).errors, issues(R"(
    device.duplicateID | Duplicate ID 'a' found. | devices
    device.duplicateID | Duplicate ID 'a' found. | devices
    device.duplicateUID | Duplicate ID 'X' found. | devices
    device.emptyID | Device ID must not be empty. | devices[2].id
    device.emptyID | Device ID must not be empty. | devices[3].id
    device.emptyUID | Device UID must not be empty. | devices[3].uid
    device.emptyUID | Device UID must not be empty. | devices[4].uid
    source.emptyName | Source name must not be empty. | devices[11].sources[11].name
  )"));
}

TEST(ValidationRules, CanonicallyEquivalentIdentifiersAreEqual) {
  const std::string precomposed = "caf\u00E9";
  const std::string decomposed = "cafe\u0301";
  const std::string kelvin = "\u212A";  // canonically equivalent to the ASCII letter "K"

  DeviceConfig first = stereoDevice(precomposed, "First");
  first.sources.push_back(testing::passThruSource(kelvin));
  first.sources.push_back(testing::passThruSource("K"));
  first.monitors = {testing::monitor(decomposed, "Out")};
  first.wires.push_back(
      wire("via-decomposed", sourceEnd(first.id + "-pt", 1), outputEnd(decomposed, 1)));
  first.wires.push_back(wire("to-monitor", outputEnd(precomposed, 1), monitorEnd(precomposed, 1)));
  DeviceConfig second = stereoDevice(decomposed, "Second");
  second.uid = "u2";

  ConfigSnapshot snapshot = documentWith({first, second});
  snapshot.ui.selectedDeviceID = decomposed;
  ValidationResult result = validated(snapshot);
  EXPECT_EQ(result.errors,
            (std::vector<ValidationIssue>{
                {"device.duplicateID", "Duplicate ID '" + decomposed + "' found.", "devices"},
                {"source.duplicateID", "Duplicate ID 'K' found.", "devices[0].sources"},
            }));
  EXPECT_TRUE(result.warnings.empty());
}

TEST(ValidationRules, SelectedDeviceAndSchemaVersion) {
  struct Row {
    std::vector<std::string> deviceIDs;
    std::optional<std::string> selected;
    bool warned;
  };
  for (const Row& row : {Row{{}, std::nullopt, false}, Row{{}, "a", true},
                         Row{{"a", "b"}, "b", false}, Row{{"a", ""}, "", false},
                         Row{{"a"}, "", true}, Row{{"k"}, "K", true}, Row{{"k"}, " k", true}}) {
    SCOPED_TRACE(row.selected.value_or("(none)"));
    std::vector<DeviceConfig> devices;
    for (const auto& id : row.deviceIDs) devices.push_back(stereoDevice(id, "N"));
    ConfigSnapshot snapshot = documentWith(devices);
    snapshot.ui.selectedDeviceID = row.selected;
    EXPECT_EQ(codes(validated(snapshot).warnings),
              std::vector<std::string>(row.warned ? 1 : 0, "ui.selectedDeviceMissing"));
  }
  for (std::int64_t version : {std::int64_t{1}, std::int64_t{2}, std::int64_t{0}, std::int64_t{3},
                               std::numeric_limits<std::int64_t>::min()}) {
    ConfigSnapshot snapshot = ConfigSnapshot::empty();
    snapshot.schemaVersion = version;
    EXPECT_EQ(codes(validated(snapshot).errors),
              std::vector<std::string>(version == 1 || version == 2 ? 0 : 1, "schema.unsupported"))
        << version;
  }
}

// A device and the devices its nested sources name, in source order (nullopt: no reference).
struct Node {
  std::string id;
  std::vector<std::optional<std::string>> targets;
};

ConfigSnapshot graph(const std::vector<Node>& nodes) {
  ConfigSnapshot snapshot = ConfigSnapshot::empty();
  for (const auto& node : nodes) {
    DeviceConfig device{.id = node.id, .name = "Mix", .sampleRate = 48000, .channelCount = 2};
    device.uid = "uid." + std::to_string(snapshot.devices.size());
    for (std::size_t j = 0; j < node.targets.size(); ++j) {
      auto& source = device.sources.emplace_back(
          testing::nestedSource("feed" + std::to_string(j), "", "Feed " + std::to_string(j)));
      source.metadata.sourceDeviceID = node.targets[j];
    }
    snapshot.devices.push_back(std::move(device));
  }
  return snapshot;
}

// Code, path and the identifier the message quotes: "device.nestedDeviceCycle devices 'a'".
std::vector<std::string> brief(const std::vector<ValidationIssue>& issues) {
  std::vector<std::string> result;
  for (const auto& issue : issues) {
    const auto open = issue.message.find('\''), close = issue.message.rfind('\'');
    result.push_back(issue.code + " " + issue.path +
                     (open == close ? "" : " " + issue.message.substr(open, close - open + 1)));
  }
  return result;
}

std::string cycle(const std::string& device) {
  return "device.nestedDeviceCycle devices '" + device + "'";
}

TEST(NestedDeviceGraph, SmallGraphs) {
  struct Row {
    std::string label;
    std::vector<Node> nodes;
    std::vector<std::string> errors, warnings;
  };
  const std::string unknown = "source.virtualDeviceUnknownDevice devices[";
  const std::string missing = "source.virtualDeviceMissingDevice devices[0].sources[";
  const std::vector<Row> rows{
      {"self-nesting", {{"a", {"a"}}}, {cycle("a")}},
      {"two-device loop starting at a", {{"a", {"b"}}, {"b", {"a"}}}, {cycle("a")}},
      {"two-device loop starting at b", {{"b", {"a"}}, {"a", {"b"}}}, {cycle("b")}},
      {"entered from x", {{"x", {"a"}}, {"a", {"b"}}, {"b", {"c"}}, {"c", {"a"}}}, {cycle("a")}},
      {"diamond", {{"a", {"b", "c"}}, {"b", {"d"}}, {"c", {"d"}}, {"d", {}}}},
      {"one device named twice", {{"a", {"b", "b"}}, {"b", {}}}},
      {"two edges closing a cycle", {{"a", {"b"}}, {"b", {"a", "a"}}}, {cycle("a"), cycle("a")}},
      {"two cycles and an edge into a finished one",
       {{"a", {"b"}}, {"b", {"a"}}, {"c", {"c"}}, {"d", {"a", "c"}}},
       {cycle("a"), cycle("c")}},
      // Devices sharing an identifier are one node: the cycle runs through both "a" devices.
      {"shared identifier merges edges",
       {{"a", {}}, {"b", {"a"}}, {"a", {"b"}}},
       {"device.duplicateID devices 'a'", cycle("b")}},
      {"unknown device", {{"a", {}}, {"b", {"a", "zzz"}}}, {}, {unknown + "1] 'Feed 1'"}},
      // Already reported by the source rules; the graph adds nothing.
      {"empty and absent references",
       {{"a", {"", std::nullopt}}},
       {},
       {missing + "0].metadata.sourceDeviceID", missing + "1].metadata.sourceDeviceID"}},
      {"unknown and a cycle", {{"a", {"nowhere", "a"}}}, {cycle("a")}, {unknown + "0] 'Feed 0'"}},
      // The source names its device in decomposed form; the two are the same identifier, and
      // the message quotes the reference as written.
      {"reference in another normal form", {{"caf\u00E9", {"cafe\u0301"}}}, {cycle("cafe\u0301")}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const ConfigSnapshot snapshot = graph(row.nodes);
    const ValidationResult result = ConfigValidator{}.validate(snapshot);
    EXPECT_EQ(brief(result.errors), row.errors);
    EXPECT_EQ(brief(result.warnings), row.warnings);
    EXPECT_EQ(ConfigValidator{}.validate(snapshot), result);
  }
}

// Ten thousand devices, each nesting the next: the search goes ten thousand deep.
TEST(NestedDeviceGraph, LongChainsNeedNoCallStack) {
  constexpr int count = 10'000;
  std::vector<Node> nodes;
  for (int i = 0; i < count; ++i) {
    std::vector<std::optional<std::string>> next;
    if (i + 1 < count) next.push_back("d" + std::to_string(i + 1));
    nodes.push_back({"d" + std::to_string(i), next});
  }
  ConfigSnapshot chain = graph(nodes);
  EXPECT_EQ(ConfigValidator{}.validate(chain), ValidationResult{});

  chain.devices.back().sources.push_back(chain.devices.front().sources.front());
  chain.devices.back().sources.back().metadata.sourceDeviceID = "d0";
  EXPECT_EQ(brief(ConfigValidator{}.validate(chain).errors), std::vector<std::string>{cycle("d0")});
}

TEST(CanonicalKeyIndex, FirstOfEquivalentIdentifiersWinsAndResetForgets) {
  CanonicalKeyIndex<int> index;
  index.reset(4);
  EXPECT_EQ(index.insert("K", 1), std::make_pair(1, true));
  EXPECT_EQ(index.insert("\u212A", 2), std::make_pair(1, false));  // Kelvin sign
  {
    // A normalised key is owned by the index, not by the caller's text.
    std::string decomposed = "cafe\u0301";
    EXPECT_EQ(index.insert(decomposed, 3), std::make_pair(3, true));
  }
  EXPECT_EQ(index.insert("caf\u00E9", 4), std::make_pair(3, false));
  EXPECT_EQ(index.insert("", 5), std::make_pair(5, true));
  EXPECT_EQ(index.insert("k", 6), std::make_pair(6, true));
  EXPECT_EQ(index.size(), 4u);

  ASSERT_NE(index.find("\u212A"), nullptr);
  EXPECT_EQ(*index.find("\u212A"), 1);
  EXPECT_EQ(*index.find("cafe\u0301"), 3);
  EXPECT_EQ(*index.find(""), 5);
  EXPECT_EQ(index.find(" K"), nullptr);
  EXPECT_EQ(index.find("caf"), nullptr);

  // Reset forgets, and more keys than announced still fit. Keys that need no normalising stay
  // the caller's: the texts outlive the index.
  std::vector<std::string> ids;
  for (int i = 0; i < 1000; ++i) ids.push_back("id-" + std::to_string(i));
  index.reset(3);
  EXPECT_EQ(index.find("K"), nullptr);
  for (int i = 0; i < 1000; ++i) ASSERT_TRUE(index.insert(ids[i], i).second) << i;
  for (int i = 0; i < 1000; ++i) {
    ASSERT_NE(index.find(ids[i]), nullptr) << i;
    EXPECT_EQ(*index.find(ids[i]), i);
  }
  index.reset(1);
  EXPECT_EQ(index.size(), 0u);
  EXPECT_EQ(index.find("id-7"), nullptr);
  EXPECT_EQ(CanonicalKeyIndex<int>{}.find("a"), nullptr);  // never reset
}

}  // namespace
}  // namespace brisola
