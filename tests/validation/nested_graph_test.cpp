#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "brisola/validation/validation.hpp"
#include "support/documents.hpp"

namespace brisola {
namespace {

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
  const std::string missing = "source.virtualDeviceMissingDevice devices[0].sources[";
  const std::vector<Row> rows{
      {"self-nesting", {{"a", {"a"}}}, {cycle("a")}},
      {"two-device loop starting at a", {{"a", {"b"}}, {"b", {"a"}}}, {cycle("a")}},
      {"two-device loop starting at b", {{"b", {"a"}}, {"a", {"b"}}}, {cycle("b")}},
      {"cycle entered from outside",
       {{"x", {"a"}}, {"a", {"b"}}, {"b", {"c"}}, {"c", {"a"}}},
       {cycle("a")}},
      {"diamond", {{"a", {"b", "c"}}, {"b", {"d"}}, {"c", {"d"}}, {"d", {}}}},
      {"one device named twice", {{"a", {"b", "b"}}, {"b", {}}}},
      {"two sources closing one cycle",
       {{"a", {"b"}}, {"b", {"a", "a"}}},
       {cycle("a"), cycle("a")}},
      {"two cycles and an edge into a finished one",
       {{"a", {"b"}}, {"b", {"a"}}, {"c", {"c"}}, {"d", {"a", "c"}}},
       {cycle("a"), cycle("c")}},
      // Devices sharing an identifier are one node: the cycle runs through both "a" devices.
      {"shared identifier merges edges",
       {{"a", {}}, {"b", {"a"}}, {"a", {"b"}}},
       {"device.duplicateID devices 'a'", cycle("b")}},
      {"unknown device",
       {{"a", {}}, {"b", {"a", "zzz"}}},
       {},
       {"source.virtualDeviceUnknownDevice devices[1] 'Feed 1'"}},
      // Already reported by the source rules; the graph adds nothing.
      {"empty and absent references",
       {{"a", {"", std::nullopt}}},
       {},
       {missing + "0].metadata.sourceDeviceID", missing + "1].metadata.sourceDeviceID"}},
      {"unknown device beside a cycle",
       {{"a", {"nowhere", "a"}}},
       {cycle("a")},
       {"source.virtualDeviceUnknownDevice devices[0] 'Feed 0'"}},
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

}  // namespace
}  // namespace brisola
