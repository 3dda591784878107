// brisola-process-tap: captures every output stream of one process (streams it opens later
// too), or what the default output plays, into a virtual device's helpers' entrance.
//
// Muting while capturing moves the process's streams to a sink of the helper's own, which
// dies with the helper: the session manager then takes the streams back to where they would
// play anyway, however the helper ends. In system mode nothing is muted.

#include <pipewire/pipewire.h>

#include "helpers/helper.hpp"

namespace brisola::audio {
namespace {

std::int32_t parsePID(const std::string& name, const std::string& text) {
  const auto pid = propertyNumber<std::int32_t>(text);
  if (!pid || *pid < 1) throw HelperError(name + " is not a process identifier: \"" + text + "\"");
  return *pid;
}

class ProcessTapRoute final : public HelperRoute {
 public:
  ProcessTapRoute(const HelperEnvironment& environment, AudioSession& session)
      : HelperRoute("brisola-process-tap." + environment.required("SOURCE_ID"),
                    environment.gainStage(HelperEnvironment::ChannelGainSide::input)),
        session_(session),
        device_(environment.required("OUTPUT_UID")) {
    const std::string mode = environment.required("MODE");
    if (mode == "application") {
      pid_ = parsePID("BRISOLA_TAP_PID", environment.required("PID"));
    } else if (mode != "system") {
      throw HelperError("BRISOLA_TAP_MODE must be application or system, not \"" + mode + "\"");
    }
    if (pid_ && environment.flag("MUTE_WHEN_CAPTURING")) {
      captureSink_ = nodeName + ".capture";
      sink_ = std::make_unique<ServerObject>(
          session, "adapter", PW_TYPE_INTERFACE_Node, PW_VERSION_NODE,
          PipeWireProperties{
              {"factory.name", "support.null-audio-sink"},
              {PW_KEY_NODE_NAME, *captureSink_},
              {PW_KEY_NODE_DESCRIPTION, "Brisola capture of process " + std::to_string(*pid_)},
              {PW_KEY_MEDIA_CLASS, "Audio/Sink"},
              {"audio.position", "FL,FR"},
              {"node.driver", "false"},
              {PW_KEY_OBJECT_LINGER, "false"}});
    }
  }

  std::variant<Wiring, std::string> wire(const PipeWireGraph& graph) override {
    auto entrance = helperEntrance(graph, device_);
    if (!entrance) return "no device '" + device_ + "' to feed";
    Wiring wiring;
    wiring.destinations = std::move(*entrance);
    if (!pid_) {
      const auto* sink = defaultSink(graph);
      if (sink == nullptr) return std::string("no default output to capture");
      for (const auto* port : monitorPorts(graph, *sink)) wiring.sources.push_back({port});
      return wiring;
    }
    if (captureSink_) {
      moveStreams(graph);
      const auto* sink = graph.findNode(PW_KEY_NODE_NAME, *captureSink_);
      if (sink != nullptr) {
        for (const auto* port : monitorPorts(graph, *sink)) wiring.sources.push_back({port});
      }
      return wiring;
    }
    for (const auto* stream : streams(graph)) {
      const auto ports = graph.portsOf(stream->id, PipeWireDirection::output);
      if (wiring.sources.size() < ports.size()) wiring.sources.resize(ports.size());
      for (std::size_t c = 0; c < ports.size(); ++c) wiring.sources[c].push_back(ports[c]);
    }
    return wiring;
  }

  void finish() override {
    // Back to where they played before; a stream whose target was ours alone goes back to the
    // session manager's choice.
    for (const auto& [stream, previous] : moved_)
      session_.setMetadata(stream, "target.object", previous);
    moved_.clear();
  }

 private:
  // Every stream that the process plays, found through the client that owns it.
  std::vector<const PipeWireNode*> streams(const PipeWireGraph& graph) const {
    std::vector<const PipeWireNode*> result;
    const std::string pid = std::to_string(*pid_);
    for (const auto& [id, node] : graph.nodes) {
      if (node.property("media.class") != "Stream/Output/Audio") continue;
      const auto client = propertyNumber<std::uint32_t>(node.property("client.id"));
      if (!client) continue;
      auto owner = graph.clients.find(*client);
      if (owner == graph.clients.end()) continue;
      const auto processID = owner->second.property("application.process.id");
      if (processID == pid || (!processID && owner->second.property("pipewire.sec.pid") == pid)) {
        result.push_back(&node);
      }
    }
    return result;
  }

  void moveStreams(const PipeWireGraph& graph) {
    if (graph.findNode(PW_KEY_NODE_NAME, *captureSink_) == nullptr) return;  // not there yet
    for (const auto* stream : streams(graph)) {
      auto target = graph.streamTargets.find(stream->id);
      if (target != graph.streamTargets.end() && target->second == *captureSink_) continue;
      if (!moved_.contains(stream->id)) {
        moved_[stream->id] = target != graph.streamTargets.end()
                                 ? std::optional<std::string>(target->second)
                                 : std::nullopt;
      }
      session_.setMetadata(stream->id, "target.object", *captureSink_);
    }
    std::erase_if(moved_, [&](const auto& entry) { return !graph.nodes.contains(entry.first); });
  }

  AudioSession& session_;
  std::string device_;
  std::optional<std::int32_t> pid_;
  std::optional<std::string> captureSink_;
  std::unique_ptr<ServerObject> sink_;
  std::map<std::uint32_t, std::optional<std::string>> moved_;  // stream → target it had
};

}  // namespace
}  // namespace brisola::audio

int main() {
  using namespace brisola::audio;
  return runHelper("brisola-process-tap", "BRISOLA_TAP_",
                   [](const HelperEnvironment& environment, AudioSession& session) {
                     return std::make_unique<ProcessTapRoute>(environment, session);
                   });
}
