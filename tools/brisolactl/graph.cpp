// The routing as a Graphviz digraph: one cluster per device holding its sources, its output
// and its monitors; the wires of one pair of nodes merged into one edge labelled with its
// channel pairs; a nested device drawn as a dashed edge from its output to the source that
// takes it. Endpoints that name nothing are drawn in red, so a broken document still draws.

#include <map>
#include <set>
#include <sstream>
#include <utility>
#include <vector>

#include "brisolactl/ctl.hpp"

namespace brisola::ctl {

namespace {

std::string dotString(std::string_view text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    if (c == '\n') {
      out += "\\n";
      continue;
    }
    out += c;
  }
  return out + "\"";
}

std::string channels(std::int64_t count) {
  return std::to_string(count) + (count == 1 ? " channel" : " channels");
}

std::string state(bool enabled, bool muted) {
  if (!enabled) return ", disabled";
  return muted ? ", muted" : "";
}

std::string outputNode(std::size_t device) {
  return "d" + std::to_string(device) + ".output";
}

class GraphWriter {
 public:
  explicit GraphWriter(const ConfigSnapshot& snapshot) : snapshot_(snapshot) {}

  std::string render() {
    out_ << "digraph brisola {\n  rankdir=LR;\n  node [fontname=\"Helvetica\"];\n"
         << "  edge [fontname=\"Helvetica\", fontsize=10];\n";
    for (std::size_t d = 0; d < snapshot_.devices.size(); ++d) cluster(d);
    for (std::size_t d = 0; d < snapshot_.devices.size(); ++d) wires(d);
    for (const auto& [nodes, labels] : edges_) {
      std::string label;
      for (const auto& text : labels) label += (label.empty() ? "" : ", ") + text;
      out_ << "  " << dotString(nodes.first) << " -> " << dotString(nodes.second)
           << " [label=" << dotString(label) << "];\n";
    }
    nesting();
    out_ << "}\n";
    return out_.str();
  }

 private:
  void cluster(std::size_t d) {
    const DeviceConfig& device = snapshot_.devices[d];
    const bool selected = snapshot_.ui.selectedDeviceID == device.id;
    out_ << "  subgraph " << dotString("cluster_" + std::to_string(d)) << " {\n"
         << "    label=" << dotString(device.name + (selected ? " (selected)" : "")) << ";\n"
         << "    style=" << (device.enabled ? "solid" : "dashed") << ";\n";
    out_ << "    " << dotString(outputNode(d)) << " [shape=doublecircle, label="
         << dotString("output\n" + channels(device.channelCount) + state(device.enabled, false))
         << "];\n";
    for (std::size_t s = 0; s < device.sources.size(); ++s) {
      const SourceConfig& source = device.sources[s];
      out_ << "    " << dotString(sourceNode(d, s)) << " [shape=box, label="
           << dotString(source.name + "\n" + std::string(enumName(source.type)) + ", " +
                        channels(source.channelCount) + state(source.enabled, source.muted))
           << "];\n";
    }
    for (std::size_t m = 0; m < device.monitors.size(); ++m) {
      const MonitorConfig& monitor = device.monitors[m];
      out_ << "    " << dotString(monitorNode(d, m)) << " [shape=box, style=rounded, label="
           << dotString(monitor.name + "\n" + monitor.deviceUID + ", " +
                        channels(monitor.channelCount) + state(monitor.enabled, monitor.muted))
           << "];\n";
    }
    out_ << "  }\n";
  }

  void wires(std::size_t d) {
    for (const Wire& wire : snapshot_.devices[d].wires) {
      auto key = std::make_pair(node(d, wire.from), node(d, wire.to));
      auto& labels = edges_[key];
      labels.push_back(std::to_string(wire.from.channel) + "→" + std::to_string(wire.to.channel));
    }
  }

  void nesting() {
    for (std::size_t d = 0; d < snapshot_.devices.size(); ++d) {
      const auto& sources = snapshot_.devices[d].sources;
      for (std::size_t s = 0; s < sources.size(); ++s) {
        if (sources[s].type != SourceType::virtualDevice) continue;
        const auto& nested = sources[s].metadata.sourceDeviceID;
        std::string from;
        for (std::size_t n = 0; n < snapshot_.devices.size() && from.empty(); ++n) {
          if (nested && snapshot_.devices[n].id == *nested) from = outputNode(n);
        }
        // Only now: declaring the red node is what draws it.
        if (from.empty()) from = missing("device", nested.value_or(""));
        out_ << "  " << dotString(from) << " -> " << dotString(sourceNode(d, s))
             << " [style=dashed, label=\"nested\"];\n";
      }
    }
  }

  static std::string sourceNode(std::size_t d, std::size_t s) {
    return "d" + std::to_string(d) + ".source" + std::to_string(s);
  }
  static std::string monitorNode(std::size_t d, std::size_t m) {
    return "d" + std::to_string(d) + ".monitor" + std::to_string(m);
  }

  std::string node(std::size_t d, const WireEndpoint& endpoint) {
    const DeviceConfig& device = snapshot_.devices[d];
    switch (endpoint.kind) {
      case EndpointKind::source:
        for (std::size_t s = 0; s < device.sources.size(); ++s) {
          if (device.sources[s].id == endpoint.ownerID) return sourceNode(d, s);
        }
        break;
      case EndpointKind::deviceOutput:
        if (device.id == endpoint.ownerID) return outputNode(d);
        break;
      case EndpointKind::monitor:
        for (std::size_t m = 0; m < device.monitors.size(); ++m) {
          if (device.monitors[m].id == endpoint.ownerID) return monitorNode(d, m);
        }
        break;
    }
    return missing(std::string(enumName(endpoint.kind)), endpoint.ownerID);
  }

  // One red node per missing owner, declared where it is first needed.
  std::string missing(const std::string& kind, const std::string& owner) {
    const std::string name = "missing." + kind + "." + owner;
    if (missingNodes_.insert(name).second) {
      out_ << "  " << dotString(name) << " [color=red, fontcolor=red, label="
           << dotString("missing " + kind + "\n'" + owner + "'") << "];\n";
    }
    return name;
  }

  const ConfigSnapshot& snapshot_;
  std::ostringstream out_;
  std::map<std::pair<std::string, std::string>, std::vector<std::string>> edges_;
  std::set<std::string> missingNodes_;
};

}  // namespace

std::string dotGraph(const ConfigSnapshot& snapshot) {
  return GraphWriter(snapshot).render();
}

}  // namespace brisola::ctl
