#include <gtest/gtest.h>

#include <limits>
#include <optional>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "brisola/validation/validation.hpp"
#include "support/documents.hpp"

namespace brisola {

// Readable failure output: one issue per line rather than bytes.
inline void PrintTo(const ValidationIssue& issue, std::ostream* out) {
  *out << "{" << issue.code << " | " << issue.message << " | " << issue.path << "}";
}

namespace {

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

using testing::monitorEnd;
using testing::outputEnd;
using testing::sourceEnd;
using testing::sourceOf;
using testing::stereoDevice;
using testing::wire;

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

const auto validated = [](const ConfigSnapshot& s) { return ConfigValidator{}.validate(s); };

DeviceConfig device(std::string id, std::string name, double sampleRate, std::int64_t channels) {
  return {.id = id, .name = std::move(name), .sampleRate = sampleRate, .channelCount = channels};
}

// Every record and source type, a nested device, a selected device: all fine apart from a
// sample rate that the engine ignores.
TEST(ValidationRules, WellFormedDocumentHasNothingToReport) {
  ValidationResult rich = validated(testing::richSnapshot());
  EXPECT_TRUE(rich.errors.empty());
  EXPECT_EQ(brief(rich.warnings),
            std::vector<std::string>{"device.unsupportedSampleRate devices[1].sampleRate"});
}

// One document that trips most rules at once: every issue, in emission order.
TEST(ValidationRules, BrokenDocumentReportsEveryIssueInOrder) {
  DeviceConfig first = device("a", " ", 44100, 3);
  first.volume = 2.5;
  first.channelGains = std::vector<double>{1.0, 3.0, -0.0, kNaN};
  first.sources = {sourceOf(SourceType::passThru, "s", "Pass"),
                   sourceOf(SourceType::application, "s", "\t\n", {}, 0),
                   testing::hardwareSource("", "", 1)};
  first.sources[0].muteWhenCapturing = true;
  first.sources[1].gain = std::numeric_limits<double>::infinity();
  first.sources[1].channelGains = std::vector<double>{0.5};

  first.monitors = {testing::monitor("m", "  "), testing::monitor("m", "Out", 0)};
  first.monitors[0].gain = -0.5;
  first.monitors[0].channelGains = std::vector<double>{2.0, 2.0000001};
  first.monitors[1].name = "";

  first.wires = {
      // "s" is found as the first source bearing it (two channels), and channel 3 is the
      // device's last channel: nothing to report.
      wire("w", sourceEnd("s", 2), outputEnd("a", 3)),
      wire("w", monitorEnd("ghost", 0), sourceEnd("ghost", 1)),
      wire("", outputEnd("b", 4), monitorEnd("m", 3)),
      wire("w3", outputEnd("a", 1), monitorEnd("nope", 1)),
      wire("w4", sourceEnd("", 1), outputEnd("a", -1)),
  };

  DeviceConfig second = device("a", "Second", 0, 66);
  second.volume = -0.0;
  first.uid = second.uid = "dup.uid";
  second.sources = {sourceOf(SourceType::virtualDevice, "v", "Feed")};

  // Empty identifiers and UIDs are reported as empty, never as duplicates of each other.
  DeviceConfig third = device("", "Third", 48000, 64), fourth = device("", "", 48000, 2);
  third.uid = fourth.uid = "";
  third.sources = {testing::nestedSource("n", "zzz", "Loop")};

  // Names and UIDs are blank by Unicode's white space; identifiers only when empty. Metadata
  // of another source type is not consulted. A third "a": every repeat is reported.
  DeviceConfig fifth = device("a", "\u00A0\u2028\r\n", kNaN, 0);
  fifth.uid = "\u3000";
  fifth.sources = {
      sourceOf(SourceType::application, " ", "Blank id", {.bundleIdentifier = ""}),
      sourceOf(SourceType::application, "p", "Process", {.processObjectID = 7}),
      sourceOf(SourceType::system, "y", "System"),
      testing::hardwareSource("h", " "),
      testing::hardwareSource("h2", "Mic"),
      sourceOf(SourceType::hardwareInput, "h3", "Only nested", {.sourceDeviceID = "d"}),
      testing::nestedSource("v2", "")};
  fifth.sources[2].muteWhenCapturing = fifth.sources[4].muteWhenCapturing = true;
  fifth.monitors = {testing::monitor("", "Out")};
  DeviceConfig sixth = device("f", "\u200B", 48000.5, 2);  // a format character, not white space
  sixth.volume = 2.0;
  sixth.sources = {testing::passThruSource("pt", 0), testing::nestedSource("self", "f")};

  const ConfigSnapshot snapshot{.schemaVersion = 3,
                                .devices = {first, second, third, fourth, fifth, sixth},
                                .ui = {.selectedDeviceID = "missing"}};
  const ValidationResult result = validated(snapshot);
  // clang-format off
  EXPECT_EQ(result.errors, (std::vector<ValidationIssue>{
    {"schema.unsupported", "Unsupported schema version 3.", "schemaVersion"},
    {"device.duplicateID", "Duplicate ID 'a' found.", "devices"},
    {"device.duplicateID", "Duplicate ID 'a' found.", "devices"},
    {"device.duplicateUID", "Duplicate ID 'dup.uid' found.", "devices"},
    {"device.emptyName", "Device name must not be empty.", "devices[0].name"},
    {"device.invalidVolume", "Device volume must be finite and between 0.0 and 2.0.", "devices[0].volume"},
    {"device.tooManyChannelGains", "Channel gain count must not exceed the channel count.", "devices[0].channelGains"},
    {"device.invalidChannelGain", "Channel gain must be finite and between 0.0 and 2.0.", "devices[0].channelGains[1]"},
    {"device.invalidChannelGain", "Channel gain must be finite and between 0.0 and 2.0.", "devices[0].channelGains[3]"},
    {"device.invalidChannelCount", "Channel count must be even and between 2 and 64.", "devices[0].channelCount"},
    {"source.duplicateID", "Duplicate ID 's' found.", "devices[0].sources"},
    {"monitor.duplicateID", "Duplicate ID 'm' found.", "devices[0].monitors"},
    {"wire.duplicateID", "Duplicate ID 'w' found.", "devices[0].wires"},
    {"source.emptyName", "Source name must not be empty.", "devices[0].sources[1].name"},
    {"source.invalidChannelCount", "Source channel count must be positive.", "devices[0].sources[1].channelCount"},
    {"source.invalidGain", "Gain must be finite and between 0.0 and 2.0.", "devices[0].sources[1].gain"},
    {"source.tooManyChannelGains", "Channel gain count must not exceed the channel count.", "devices[0].sources[1].channelGains"},
    {"source.emptyID", "Source ID must not be empty.", "devices[0].sources[2].id"},
    {"monitor.invalidGain", "Gain must be finite and between 0.0 and 2.0.", "devices[0].monitors[0].gain"},
    {"monitor.invalidChannelGain", "Channel gain must be finite and between 0.0 and 2.0.", "devices[0].monitors[0].channelGains[1]"},
    {"monitor.emptyName", "Monitor name must not be empty.", "devices[0].monitors[1].name"},
    {"monitor.invalidChannelCount", "Monitor channel count must be positive.", "devices[0].monitors[1].channelCount"},
    {"wire.emptyID", "Wire ID must not be empty.", "devices[0].wires[2].id"},
    {"device.invalidSampleRate", "Sample rate must be positive.", "devices[1].sampleRate"},
    {"device.invalidChannelCount", "Channel count must be even and between 2 and 64.", "devices[1].channelCount"},
    {"device.emptyID", "Device ID must not be empty.", "devices[2].id"},
    {"device.emptyUID", "Device UID must not be empty.", "devices[2].uid"},
    {"device.emptyID", "Device ID must not be empty.", "devices[3].id"},
    {"device.emptyName", "Device name must not be empty.", "devices[3].name"},
    {"device.emptyUID", "Device UID must not be empty.", "devices[3].uid"},
    {"device.emptyName", "Device name must not be empty.", "devices[4].name"},
    {"device.emptyUID", "Device UID must not be empty.", "devices[4].uid"},
    {"device.invalidSampleRate", "Sample rate must be positive.", "devices[4].sampleRate"},
    {"device.invalidChannelCount", "Channel count must be even and between 2 and 64.", "devices[4].channelCount"},
    {"monitor.emptyID", "Monitor ID must not be empty.", "devices[4].monitors[0].id"},
    {"source.invalidChannelCount", "Source channel count must be positive.", "devices[5].sources[0].channelCount"},
    {"device.nestedDeviceCycle", "Nested device sources form a cycle involving device 'f'.", "devices"},
  }));
  EXPECT_EQ(result.warnings, (std::vector<ValidationIssue>{
    {"device.unsupportedSampleRate", "The engine runs at 48 kHz; this sample rate is ignored.", "devices[0].sampleRate"},
    {"source.passThruChannelMismatch", "Pass-Thru source channel count should match the virtual device channel count.", "devices[0].sources[0].channelCount"},
    {"source.muteWhenCapturingUnsupported", "Mute-when-capturing only applies to application and system audio sources.", "devices[0].sources[0].muteWhenCapturing"},
    {"source.applicationMissingIdentity", "Application source has no bundle identifier, PID, or process object ID.", "devices[0].sources[1].metadata"},
    {"source.hardwareInputMissingDevice", "Hardware input source has no Core Audio device UID.", "devices[0].sources[2].metadata.deviceUID"},
    {"monitor.missingDeviceUID", "Monitor has no Core Audio output device UID.", "devices[0].monitors[0].deviceUID"},
    {"wire.invalidDirection", "Wire direction must be source-to-deviceOutput or deviceOutput-to-monitor.", "devices[0].wires[1]"},
    {"wire.from.invalidChannel", "Wire endpoint channels are one-based and must be positive.", "devices[0].wires[1].from.channel"},
    {"wire.to.missingSource", "Wire endpoint refers to a missing source.", "devices[0].wires[1].to.ownerID"},
    {"wire.from.wrongDeviceOutputOwner", "Device output endpoint must refer to the containing device.", "devices[0].wires[2].from.ownerID"},
    {"wire.from.deviceChannelOutOfRange", "Wire endpoint channel exceeds the device channel count.", "devices[0].wires[2].from.channel"},
    {"wire.to.monitorChannelOutOfRange", "Wire endpoint channel exceeds the monitor channel count.", "devices[0].wires[2].to.channel"},
    {"wire.to.missingMonitor", "Wire endpoint refers to a missing monitor.", "devices[0].wires[3].to.ownerID"},
    {"wire.to.invalidChannel", "Wire endpoint channels are one-based and must be positive.", "devices[0].wires[4].to.channel"},
    {"source.virtualDeviceMissingDevice", "Nested device source has no source device ID.", "devices[1].sources[0].metadata.sourceDeviceID"},
    {"source.muteWhenCapturingUnsupported", "Mute-when-capturing only applies to application and system audio sources.", "devices[4].sources[4].muteWhenCapturing"},
    {"source.hardwareInputMissingDevice", "Hardware input source has no Core Audio device UID.", "devices[4].sources[5].metadata.deviceUID"},
    {"source.virtualDeviceMissingDevice", "Nested device source has no source device ID.", "devices[4].sources[6].metadata.sourceDeviceID"},
    {"device.unsupportedSampleRate", "The engine runs at 48 kHz; this sample rate is ignored.", "devices[5].sampleRate"},
    {"source.passThruChannelMismatch", "Pass-Thru source channel count should match the virtual device channel count.", "devices[5].sources[0].channelCount"},
    {"ui.selectedDeviceMissing", "Selected device ID does not refer to a configured device.", "ui.selectedDeviceID"},
    {"source.virtualDeviceUnknownDevice", "Nested device source 'Loop' refers to a device that does not exist.", "devices[2]"},
  }));
  // clang-format on
  EXPECT_EQ(validated(snapshot), result);
}

TEST(ValidationRules, CanonicallyEquivalentIdentifiersAreEqual) {
  const std::string precomposed = "caf\u00E9", decomposed = "cafe\u0301";

  DeviceConfig first = stereoDevice(precomposed, "First");
  // The Kelvin sign is canonically equivalent to "K"; case, surrounding space and compatibility
  // forms (the ligature "fi") still count.
  for (auto id : {"\u212A", "K", "k", " K", "fi", "\uFB01"})
    first.sources.push_back(testing::passThruSource(id));
  first.monitors = {testing::monitor(decomposed, "Out")};
  first.wires.push_back(
      wire("via-decomposed", sourceEnd(first.id + "-pt", 1), outputEnd(decomposed, 1)));
  first.wires.push_back(wire("to-monitor", outputEnd(precomposed, 1), monitorEnd(precomposed, 1)));
  DeviceConfig second = stereoDevice(decomposed, "Second");
  second.uid = "u2";

  ValidationResult result =
      validated({.devices = {first, second}, .ui = {.selectedDeviceID = decomposed}});
  EXPECT_EQ(brief(result.errors),
            (std::vector<std::string>{"device.duplicateID devices '" + decomposed + "'",
                                      "source.duplicateID devices[0].sources 'K'"}));
  EXPECT_TRUE(result.warnings.empty());
}

TEST(ValidationRules, SelectedDeviceAndSchemaVersion) {
  // Device identifiers, the selection, and whether the selection is reported missing.
  using Row = std::tuple<std::vector<std::string>, std::optional<std::string>, bool>;
  for (const auto& [ids, selected, warned] :
       {Row{{}, std::nullopt, false}, Row{{}, "a", true}, Row{{"a", "b"}, "b", false},
        Row{{"a", ""}, "", false}, Row{{"a"}, "", true}, Row{{"k"}, "K", true},
        Row{{"k"}, " k", true}}) {
    ConfigSnapshot snapshot{.ui = {.selectedDeviceID = selected}};
    for (const auto& id : ids) snapshot.devices.push_back(stereoDevice(id, "N"));
    EXPECT_EQ(brief(validated(snapshot).warnings),
              std::vector<std::string>(warned, "ui.selectedDeviceMissing ui.selectedDeviceID"))
        << selected.value_or("(none)");
  }
  for (std::int64_t version : std::initializer_list<std::int64_t>{1, 2, 0, 3, INT64_MIN}) {
    EXPECT_EQ(
        brief(validated({.schemaVersion = version}).errors),
        std::vector<std::string>(version < 1 || version > 2, "schema.unsupported schemaVersion"))
        << version;
  }
}

// A device and the devices its nested sources name, in source order (nullopt: no reference).
struct Node {
  std::string id;
  std::vector<std::optional<std::string>> targets;
};

ConfigSnapshot graph(const std::vector<Node>& nodes) {
  ConfigSnapshot snapshot;
  for (const auto& node : nodes) {
    DeviceConfig& mix = snapshot.devices.emplace_back(device(node.id, "Mix", 48000, 2));
    mix.uid = "uid." + std::to_string(snapshot.devices.size());
    for (std::size_t j = 0; j < node.targets.size(); ++j) {
      auto& source = mix.sources.emplace_back(
          testing::nestedSource("feed" + std::to_string(j), "", "Feed " + std::to_string(j)));
      source.metadata.sourceDeviceID = node.targets[j];
    }
  }
  return snapshot;
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
    const ValidationResult result = validated(graph(row.nodes));
    EXPECT_EQ(brief(result.errors), row.errors);
    EXPECT_EQ(brief(result.warnings), row.warnings);
  }
}

// Ten thousand devices, each nesting the next: the search goes ten thousand deep, and paths
// carry indices of several digits.
TEST(NestedDeviceGraph, LongChainsNeedNoCallStack) {
  std::vector<Node> nodes(10'000);
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    nodes[i].id = "d" + std::to_string(i);
    if (i + 1 < nodes.size()) nodes[i].targets = {"d" + std::to_string(i + 1)};
  }
  ConfigSnapshot chain = graph(nodes);
  EXPECT_EQ(ConfigValidator{}.validate(chain), ValidationResult{});

  DeviceConfig& last = chain.devices.back();
  for (int j = 0; j < 11; ++j) last.sources.push_back(testing::passThruSource(std::to_string(j)));
  last.sources.push_back(chain.devices.front().sources.front());
  last.sources.back().metadata.sourceDeviceID = "d0";
  last.name = last.sources[10].name = "";
  EXPECT_EQ(
      brief(validated(chain).errors),
      (std::vector<std::string>{"device.emptyName devices[9999].name",
                                "source.emptyName devices[9999].sources[10].name", cycle("d0")}));
}

}  // namespace
}  // namespace brisola
