// Commands that read the configuration document: validate, show, graph, health.

#include <iostream>

#include "brisola/devices/core_audio_device_registry.hpp"
#include "brisola/ipc/exchange_records.hpp"
#include "brisola/model/json_coding.hpp"
#include "brisolactl/ctl.hpp"

namespace brisola::ctl {

void addDocumentCommands(CLI::App& app, Context& context) {
  app.add_subcommand("validate",
                     "Validates the document and prints the result. Exit 0 when it has no "
                     "errors (warnings allowed), 1 when it has errors.")
      ->callback([&context] {
        const ValidationResult result = ConfigValidator{}.validate(context.loadDocument());
        print(encodeJSON(result));
        context.status = result.isValid() ? Exit::success : Exit::negative;
      });

  app.add_subcommand("show",
                     "Prints the document as the service reads it (older schemas upgraded in "
                     "memory; the file is not changed).")
      ->callback([&context] { print(encodeJSON(context.loadDocument())); });

  app.add_subcommand("graph",
                     "Prints the document's routing as a Graphviz graph: devices with their "
                     "sources, output and monitors, wires labelled with channels, and nested "
                     "devices as dashed edges. Try: brisolactl graph | dot -Tsvg > routing.svg")
      ->callback([&context] { std::cout << dotGraph(context.loadDocument()); });

  app.add_subcommand("health",
                     "Prints a health report: version, oldest supported system, document "
                     "location, device count, validation, permissions and the driver plug-in.")
      ->callback([&context] {
        const ConfigSnapshot snapshot = context.loadDocument();
        // This platform has no privacy permissions to ask about.
        const HealthReport report{
            .agentVersion = BRISOLA_VERSION,
            .minimumSupportedOS = BrisolaCore::minimumSupportedOS.description(),
            .configURL = context.configURL().string(),
            .deviceCount = static_cast<std::int64_t>(snapshot.devices.size()),
            .validation = ConfigValidator{}.validate(snapshot),
            .audioCapturePermission = PermissionStatus::unknown,
            .microphonePermission = PermissionStatus::unknown,
            .halDriverLoaded = CoreAudioDeviceRegistry::halPlugInIsLoaded()};
        print(encodeJSON(report));
      });
}

}  // namespace brisola::ctl
