// Commands that ask the hardware layer: devices, product-devices, apps.

#include <functional>
#include <iostream>

#include "brisola/devices/core_audio_device_registry.hpp"
#include "brisolactl/ctl.hpp"

namespace brisola::ctl {

namespace {

// One view of the hardware for the whole command. Hardware that cannot be read (no PipeWire
// running, an unreadable simulation file) fails the command: empty lists would look like a
// machine without devices.
void withHardware(const std::function<std::string(const HardwareLayer&)>& query) {
  const auto layer = HardwareBackend::current()->snapshot();
  if (auto reason = layer->unavailableReason()) throw Failure(Exit::unavailable, *reason);
  print(query(*layer));
}

}  // namespace

void addHardwareCommands(CLI::App& app, Context&) {
  app.add_subcommand("devices",
                     "Lists the audio devices: inputs and outputs, each with the system default "
                     "first.")
      ->callback([] {
        withHardware([](const HardwareLayer& layer) {
          return encodeJSON(CoreAudioDeviceRegistry::deviceInventory(layer));
        });
      });

  app.add_subcommand("product-devices",
                     "Lists Brisola's own audio devices with their channel counts.")
      ->callback([] {
        withHardware([](const HardwareLayer& layer) {
          return encodeJSON(CoreAudioDeviceRegistry::brisolaDeviceSummaries(layer));
        });
      });

  app.add_subcommand("apps", "Lists the running applications that can be captured as sources.")
      ->callback([] {
        withHardware([](const HardwareLayer& layer) {
          return encodeJSON(CoreAudioDeviceRegistry::applicationSourceCandidates(layer));
        });
      });
}

}  // namespace brisola::ctl
