// brisola-hardware-source: reads an input device, or another virtual device's mix for a nested
// source, into a virtual device's helpers' entrance.

#include "helpers/helper.hpp"

namespace brisola::audio {
namespace {

class HardwareSourceRoute final : public HelperRoute {
 public:
  explicit HardwareSourceRoute(const HelperEnvironment& environment)
      : HelperRoute("brisola-hardware-source." + environment.required("ID"),
                    environment.gainStage(HelperEnvironment::ChannelGainSide::input)),
        input_(environment.required("INPUT_UID")),
        device_(environment.required("OUTPUT_UID")) {
    // BRISOLA_SOURCE_INPUT_BACKEND names the platform's input API; PipeWire is the only one.
    (void)environment.optional("INPUT_BACKEND");
  }

  std::variant<Wiring, std::string> wire(const PipeWireGraph& graph) override {
    const auto input = recordedPorts(graph, input_);
    if (!input) return "no input device '" + input_ + "'";
    auto entrance = helperEntrance(graph, device_);
    if (!entrance) return "no device '" + device_ + "' to feed";
    Wiring wiring;
    for (const auto* port : *input) wiring.sources.push_back({port});
    wiring.destinations = std::move(*entrance);
    return wiring;
  }

 private:
  std::string input_;
  std::string device_;
};

}  // namespace
}  // namespace brisola::audio

int main() {
  using namespace brisola::audio;
  return runHelper("brisola-hardware-source", "BRISOLA_SOURCE_",
                   [](const HelperEnvironment& environment, AudioSession&) {
                     return std::make_unique<HardwareSourceRoute>(environment);
                   });
}
