#include "common/device_ports.hpp"

#include "common/audio_session.hpp"

namespace brisola::audio {

namespace {

bool hasClass(const PipeWireNode& node, std::initializer_list<std::string_view> classes) {
  const auto mediaClass = node.property("media.class");
  if (!mediaClass) return false;
  for (auto wanted : classes) {
    if (*mediaClass == wanted) return true;
  }
  return false;
}

const PipeWireNode* namedNode(const PipeWireGraph& graph, std::string_view uid,
                              std::initializer_list<std::string_view> classes) {
  for (const auto& [id, node] : graph.nodes) {
    // A virtual device's nodes are found by its UID property, never by their node names.
    if (node.property(PipeWireKeys::deviceUID)) continue;
    if (node.property("node.name") == uid && hasClass(node, classes)) return &node;
  }
  return nullptr;
}

}  // namespace

std::string mixerPortName(std::string_view deviceUID, std::string_view part,
                          std::string_view position) {
  return std::string(deviceUID) + "/" + std::string(part) + "_" + std::string(position);
}

std::optional<PortList> recordedPorts(const PipeWireGraph& graph, std::string_view uid) {
  if (const auto* mix = graph.findDeviceNode(uid, PipeWireKeys::mixRole)) {
    // A virtual source's outputs are flagged as monitors of its inputs.
    return graph.portsOf(mix->id, PipeWireDirection::output, PipeWireGraph::Ports::all);
  }
  if (const auto* source = namedNode(graph, uid, {"Audio/Source", "Audio/Source/Virtual"})) {
    return graph.portsOf(source->id, PipeWireDirection::output, PipeWireGraph::Ports::all);
  }
  if (const auto* duplex = namedNode(graph, uid, {"Audio/Duplex"})) {
    return graph.portsOf(duplex->id, PipeWireDirection::output);
  }
  return std::nullopt;
}

const PipeWireNode* playingNode(const PipeWireGraph& graph, std::string_view uid) {
  if (const auto* entrance = graph.findDeviceNode(uid, PipeWireKeys::entranceRole)) {
    return entrance;
  }
  return namedNode(graph, uid, {"Audio/Sink", "Audio/Duplex"});
}

std::optional<PortList> playedPorts(const PipeWireGraph& graph, std::string_view uid) {
  const auto* node = playingNode(graph, uid);
  if (node == nullptr) return std::nullopt;
  return graph.portsOf(node->id, PipeWireDirection::input);
}

PortList monitorPorts(const PipeWireGraph& graph, const PipeWireNode& sink) {
  return graph.portsOf(sink.id, PipeWireDirection::output, PipeWireGraph::Ports::monitors);
}

std::optional<PortList> helperEntrance(const PipeWireGraph& graph, std::string_view uid) {
  const auto* mixer = graph.findNode(PipeWireKeys::nodeRole, PipeWireKeys::mixerRole);
  if (mixer == nullptr) return std::nullopt;
  const std::string prefix = mixerPortName(uid, "helper", "");
  std::size_t channels = 0;
  for (const auto* port : graph.portsOf(mixer->id, PipeWireDirection::input)) {
    channels += port->property("port.name").value_or("").starts_with(prefix);
  }
  if (channels == 0) return std::nullopt;
  PortList ports;
  for (const auto& position : channelPositions(channels)) {
    const auto name = mixerPortName(uid, "helper", position);
    for (const auto* port : graph.portsOf(mixer->id, PipeWireDirection::input)) {
      if (port->property("port.name") == name) ports.push_back(port);
    }
  }
  if (ports.size() != channels) return std::nullopt;  // not all there yet
  return ports;
}

const PipeWireNode* defaultSink(const PipeWireGraph& graph) {
  if (!graph.defaultSinkName) return nullptr;
  return graph.findNode("node.name", *graph.defaultSinkName);
}

}  // namespace brisola::audio
