#include "validation/nested_device_graph.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "validation/canonical_key_index.hpp"

namespace brisola {

namespace {

enum class Color : std::uint8_t { white, grey, black };

// One edge from a device to the device that one of its nested sources names. The target is
// kept as the source wrote it, since the cycle message quotes that text.
struct Edge {
  std::uint32_t from = 0;
  std::uint32_t to = 0;
  std::string_view target;
};

struct Frame {
  std::uint32_t node = 0;
  std::size_t childIndex = 0;
};

bool isReference(const SourceConfig& source) {
  return source.type == SourceType::virtualDevice && source.metadata.sourceDeviceID &&
         !source.metadata.sourceDeviceID->empty();
}

}  // namespace

void validateNestedDeviceGraph(const ConfigSnapshot& snapshot, ValidationBuilder& builder) {
  const auto& devices = snapshot.devices;
  bool anyReference = std::any_of(devices.begin(), devices.end(), [](const DeviceConfig& d) {
    return std::any_of(d.sources.begin(), d.sources.end(), isReference);
  });
  if (!anyReference) return;

  // One node per distinct identifier: devices that share one are merged, edges and all.
  CanonicalKeyIndex<std::uint32_t> nodes;
  nodes.reset(devices.size());
  std::vector<std::uint32_t> nodeOfDevice;
  nodeOfDevice.reserve(devices.size());
  for (const auto& device : devices) {
    nodeOfDevice.push_back(nodes.insert(device.id, static_cast<std::uint32_t>(nodes.size())).first);
  }
  const std::size_t nodeCount = nodes.size();

  // Edges and unknown devices. Start keys are taken in the order in which their first edge
  // appears, which is document order, so every run reports the same cycles.
  std::vector<Edge> edges;
  std::vector<std::uint32_t> startKeys;
  std::vector<bool> isStartKey(nodeCount, false);
  for (std::size_t i = 0; i < devices.size(); ++i) {
    for (const auto& source : devices[i].sources) {
      if (!isReference(source)) continue;
      const std::string& target = *source.metadata.sourceDeviceID;
      const std::uint32_t* targetNode = nodes.find(target);
      if (targetNode == nullptr) {
        builder.addWarning(
            "source.virtualDeviceUnknownDevice",
            "Nested device source '" + source.name + "' refers to a device that does not exist.",
            "devices[" + std::to_string(i) + "]");
        continue;
      }
      const std::uint32_t from = nodeOfDevice[i];
      if (!isStartKey[from]) {
        isStartKey[from] = true;
        startKeys.push_back(from);
      }
      edges.push_back({from, *targetNode, target});
    }
  }

  // Adjacency lists laid out one after another (a stable counting sort keeps each list in
  // document order): node n's edges are adjacency[offsets[n]] up to adjacency[offsets[n + 1]].
  std::vector<std::size_t> offsets(nodeCount + 1, 0);
  for (const auto& edge : edges) ++offsets[edge.from + 1];
  for (std::size_t n = 0; n < nodeCount; ++n) offsets[n + 1] += offsets[n];
  std::vector<const Edge*> adjacency(edges.size());
  {
    std::vector<std::size_t> next(offsets.begin(), offsets.end() - 1);
    for (const auto& edge : edges) adjacency[next[edge.from]++] = &edge;
  }

  // Depth-first search with an explicit stack: a chain of any length cannot exhaust the call
  // stack. Every node is entered once and every edge followed once.
  std::vector<Color> colors(nodeCount, Color::white);
  std::vector<Frame> stack;
  for (std::uint32_t start : startKeys) {
    if (colors[start] != Color::white) continue;
    colors[start] = Color::grey;
    stack.push_back({start, 0});
    while (!stack.empty()) {
      Frame& top = stack.back();
      const std::size_t position = offsets[top.node] + top.childIndex;
      if (position >= offsets[top.node + 1]) {
        colors[top.node] = Color::black;
        stack.pop_back();
        continue;
      }
      ++top.childIndex;
      const Edge& edge = *adjacency[position];
      switch (colors[edge.to]) {
        case Color::grey:
          // The edge leads back onto the current path: it closes a cycle.
          builder.addError("device.nestedDeviceCycle",
                           "Nested device sources form a cycle involving device '" +
                               std::string(edge.target) + "'.",
                           "devices");
          break;
        case Color::black:
          break;
        case Color::white:
          colors[edge.to] = Color::grey;
          stack.push_back({edge.to, 0});
          break;
      }
    }
  }
}

}  // namespace brisola
