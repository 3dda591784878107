// brisola-monitor: plays a virtual device's mix on an output device, or on the default output
// (following it when it changes) when none is named.

#include "helpers/helper.hpp"

namespace brisola::audio {
namespace {

class MonitorRoute final : public HelperRoute {
 public:
  explicit MonitorRoute(const HelperEnvironment& environment)
      : HelperRoute("brisola-monitor." + environment.required("ID"),
                    environment.gainStage(HelperEnvironment::ChannelGainSide::output)),
        device_(environment.required("INPUT_UID")),
        output_(environment.optional("OUTPUT_UID")) {
    if (output_ && output_->empty()) output_.reset();
  }

  std::variant<Wiring, std::string> wire(const PipeWireGraph& graph) override {
    const auto mix = recordedPorts(graph, device_);
    if (!mix) return "no device '" + device_ + "' to play";
    const PipeWireNode* output = output_ ? playingNode(graph, *output_) : defaultSink(graph);
    if (output == nullptr) {
      return output_ ? "no output device '" + *output_ + "'" : std::string("no default output");
    }
    // The device's own entrance as its output would feed the mix back into itself.
    if (output->property(PipeWireKeys::deviceUID) == device_) {
      return "the output is the device '" + device_ + "' itself";
    }
    Wiring wiring;
    for (const auto* port : *mix) wiring.sources.push_back({port});
    wiring.destinations = graph.portsOf(output->id, PipeWireDirection::input);
    return wiring;
  }

 private:
  std::string device_;
  std::optional<std::string> output_;
};

}  // namespace
}  // namespace brisola::audio

int main() {
  using namespace brisola::audio;
  return runHelper("brisola-monitor", "BRISOLA_MONITOR_",
                   [](const HelperEnvironment& environment, AudioSession&) {
                     return std::make_unique<MonitorRoute>(environment);
                   });
}
