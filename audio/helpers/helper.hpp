#pragma once

// What the three helpers share: their variables, one gain stage between the ports they read
// and the ports they write, links kept to match the graph, and the rules of start and stop.
// Each helper reads exactly the variables the service hands it, and nothing of the document.

#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <variant>
#include <vector>

#include "common/audio_session.hpp"
#include "common/device_ports.hpp"
#include "common/gain_stage.hpp"

namespace brisola::audio {

// A variable missing or malformed: the helper cannot do its task.
class HelperError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The variables of one kind of helper, all beginning with `prefix` ("BRISOLA_MONITOR_"...).
class HelperEnvironment {
 public:
  HelperEnvironment(const std::map<std::string, std::string>& variables, std::string prefix);
  // The process's own environment.
  static HelperEnvironment current(std::string prefix);

  std::string required(const std::string& name) const;
  std::optional<std::string> optional(const std::string& name) const;
  bool flag(const std::string& name) const;  // "1" or "0"
  // GAIN, MUTED, ROUTES and CHANNEL_GAINS as one gain stage; the channel gains act on the
  // input side (a source's own channels) or on the output side (a monitor's channels).
  enum class ChannelGainSide { input, output };
  GainStage gainStage(ChannelGainSide side) const;

 private:
  std::string name(const std::string& suffix) const { return prefix_ + suffix; }
  std::map<std::string, std::string> variables_;
  std::string prefix_;
};

// What a helper links, worked out from the graph as it is now.
struct Wiring {
  std::vector<PortList> sources;  // per input channel: the ports whose sound goes into it
  PortList destinations;          // per output channel: the port it goes into
};

// One kind of helper: where its sound comes from and goes to.
class HelperRoute {
 public:
  HelperRoute(std::string name, const GainStage& gains) : nodeName(std::move(name)), stage(gains) {}
  virtual ~HelperRoute() = default;
  const std::string nodeName;  // of the helper's own node
  const GainStage stage;

  // The wiring, or what is missing (for the one line a helper writes when it cannot start).
  virtual std::variant<Wiring, std::string> wire(const PipeWireGraph& graph) = 0;
  // Undoes what the route did to other clients' streams, when the helper stops.
  virtual void finish() {}
};

// The helper's own node: a gain stage with as many inputs and outputs as its routes use.
class HelperPath {
 public:
  HelperPath(AudioSession& session, const std::string& name, const GainStage& stage);
  void connect(const Wiring& wiring);
  void disconnect() { links_.set({}); }

 private:
  void process(std::uint32_t frames);
  AudioSession& session_;
  GainStage stage_;  // fixed for the helper's life: new controls come as a new helper
  std::vector<AudioFilter::Port> inputs_;
  std::vector<AudioFilter::Port> outputs_;
  std::vector<const float*> inputBuffers_;
  std::vector<float*> outputBuffers_;
  AudioFilter filter_;
  LinkSet links_;
};

using MakeRoute =
    std::function<std::unique_ptr<HelperRoute>(const HelperEnvironment&, AudioSession&)>;

// Runs a helper until SIGTERM or SIGINT (status 0). It exits 1 with one line on standard error
// when its devices are not there within a moment of its start (the service starts it again
// after a while), or when PipeWire is not running; 2 when its variables are malformed.
int runHelper(const std::string& program, const std::string& prefix, const MakeRoute& make);

}  // namespace brisola::audio
