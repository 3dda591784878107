#include "service/route_planner.hpp"

#include "brisola/runtime/route_map.hpp"
#include "common/service_log.hpp"
#include "service/number_text.hpp"

namespace brisola::RoutePlanner {

namespace {

// Helpers are told about two channels whatever the device or monitor says.
constexpr std::int64_t helperChannelCount = 2;

std::string flag(bool value) {
  return value ? "1" : "0";
}

std::string channelGainsText(const std::vector<double>& gains) {
  std::string text;
  for (std::size_t i = 0; i < gains.size(); ++i) {
    if (i > 0) text += ",";
    text += shortestText(gains[i]);
  }
  return text;
}

std::string sourceRoutesText(const SourceConfig& source, const DeviceConfig& device) {
  return RuntimeRouteMap::environmentValue(
      RuntimeRouteMap::sourceRoutes(source.id, device, helperChannelCount));
}

DesiredRoute monitorRoute(const DeviceConfig& device, const MonitorConfig& monitor,
                          const HelperPaths& helpers) {
  Environment environment{
      {"BRISOLA_MONITOR_INPUT_UID", device.uid},
      {"BRISOLA_MONITOR_ID", monitor.id},
      {"BRISOLA_MONITOR_GAIN", shortestText(monitor.gain)},
      {"BRISOLA_MONITOR_MUTED", flag(monitor.muted)},
      {"BRISOLA_MONITOR_ROUTES", RuntimeRouteMap::environmentValue(RuntimeRouteMap::monitorRoutes(
                                     monitor.id, device, helperChannelCount, helperChannelCount))},
  };
  if (!monitor.deviceUID.empty()) environment["BRISOLA_MONITOR_OUTPUT_UID"] = monitor.deviceUID;
  if (monitor.channelGains) {
    environment["BRISOLA_MONITOR_CHANNEL_GAINS"] = channelGainsText(*monitor.channelGains);
  }
  return DesiredRoute{.key = "monitor:" + device.id + ":" + monitor.id,
                      .executableURL = helpers.monitor,
                      .environment = std::move(environment),
                      .summary = "monitor '" + monitor.name + "' (" + device.name + ")"};
}

DesiredRoute tapRoute(const DeviceConfig& device, const SourceConfig& source, bool application,
                      const HelperPaths& helpers) {
  Environment environment{
      {"BRISOLA_TAP_OUTPUT_UID", device.uid},
      {"BRISOLA_TAP_SOURCE_ID", source.id},
      {"BRISOLA_TAP_MODE", application ? "application" : "system"},
      {"BRISOLA_TAP_GAIN", shortestText(source.gain)},
      {"BRISOLA_TAP_MUTED", flag(source.muted)},
      {"BRISOLA_TAP_MUTE_WHEN_CAPTURING", flag(source.muteWhenCapturing)},
      {"BRISOLA_TAP_ROUTES", sourceRoutesText(source, device)},
  };
  if (application) environment["BRISOLA_TAP_PID"] = std::to_string(*source.metadata.pid);
  if (source.channelGains) {
    environment["BRISOLA_TAP_CHANNEL_GAINS"] = channelGainsText(*source.channelGains);
  }
  std::string kind = application ? "application" : "system";
  return DesiredRoute{.key = "tap-" + kind + ":" + device.id + ":" + source.id,
                      .executableURL = helpers.processTap,
                      .environment = std::move(environment),
                      .summary = kind + " capture '" + source.name + "'"};
}

Environment hardwareSourceEnvironment(const DeviceConfig& device, const SourceConfig& source,
                                      const std::string& inputUID) {
  return Environment{
      {"BRISOLA_SOURCE_INPUT_UID", inputUID},
      {"BRISOLA_SOURCE_ID", source.id},
      {"BRISOLA_SOURCE_OUTPUT_UID", device.uid},
      {"BRISOLA_SOURCE_GAIN", shortestText(source.gain)},
      {"BRISOLA_SOURCE_MUTED", flag(source.muted)},
      {"BRISOLA_SOURCE_ROUTES", sourceRoutesText(source, device)},
  };
}

void planHardwareInput(const DeviceConfig& device, const SourceConfig& source, const UIDSet& inputs,
                       const HelperPaths& helpers, std::vector<DesiredRoute>& routes) {
  const auto& uid = source.metadata.deviceUID;
  if (!uid || uid->empty()) {
    BrisolaServiceLog::write("Skipping hardware source '" + source.name + "' without a device UID");
    return;
  }
  if (!inputs.contains(*uid)) return;  // not plugged in right now
  Environment environment = hardwareSourceEnvironment(device, source, *uid);
  if (const auto& backend = source.metadata.inputBackend; backend && !backend->empty()) {
    environment["BRISOLA_SOURCE_INPUT_BACKEND"] = *backend;
  }
  if (source.channelGains) {
    environment["BRISOLA_SOURCE_CHANNEL_GAINS"] = channelGainsText(*source.channelGains);
  }
  routes.push_back({.key = "hardware:" + device.id + ":" + source.id,
                    .executableURL = helpers.hardwareSource,
                    .environment = std::move(environment),
                    .summary = "hardware input '" + source.name + "' (" + device.name + ")"});
}

void planNestedDevice(const DeviceConfig& device, const SourceConfig& source,
                      const ConfigSnapshot& snapshot, const UIDSet& inputs,
                      const HelperPaths& helpers, std::vector<DesiredRoute>& routes) {
  const DeviceConfig* nested = nullptr;
  if (const auto& target = source.metadata.sourceDeviceID) {
    for (const auto& candidate : snapshot.devices) {
      if (candidate.id == *target) {
        nested = &candidate;
        break;
      }
    }
  }
  if (nested == nullptr) {
    BrisolaServiceLog::write("Skipping nested device source '" + source.name +
                             "' without a resolvable device");
    return;
  }
  if (!nested->enabled) {
    BrisolaServiceLog::write("Skipping nested device source '" + source.name + "': '" +
                             nested->name + "' is disabled");
    return;
  }
  if (!inputs.contains(nested->uid)) return;  // its driver device is not present yet
  routes.push_back({.key = "nested:" + device.id + ":" + source.id,
                    .executableURL = helpers.hardwareSource,
                    .environment = hardwareSourceEnvironment(device, source, nested->uid),
                    .summary = "nested device '" + nested->name + "' into '" + device.name + "'"});
}

}  // namespace

std::vector<DesiredRoute> desiredRoutes(const DeviceConfig& device, const ConfigSnapshot& snapshot,
                                        const UIDSet& availableInputUIDs,
                                        const UIDSet& availableOutputUIDs,
                                        const HelperPaths& helperPaths) {
  std::vector<DesiredRoute> routes;
  for (const auto& monitor : device.monitors) {
    if (!monitor.enabled) continue;
    if (!monitor.deviceUID.empty() && !availableOutputUIDs.contains(monitor.deviceUID)) continue;
    routes.push_back(monitorRoute(device, monitor, helperPaths));
  }
  for (const auto& source : device.sources) {
    if (!source.enabled) continue;
    switch (source.type) {
      case SourceType::passThru:
        break;  // realised by the driver through shared memory
      case SourceType::application:
        if (!source.metadata.pid) {
          BrisolaServiceLog::write("Skipping application source '" + source.name +
                                   "' without a PID");
        } else {
          routes.push_back(tapRoute(device, source, true, helperPaths));
        }
        break;
      case SourceType::system:
        routes.push_back(tapRoute(device, source, false, helperPaths));
        break;
      case SourceType::hardwareInput:
        planHardwareInput(device, source, availableInputUIDs, helperPaths, routes);
        break;
      case SourceType::virtualDevice:
        planNestedDevice(device, source, snapshot, availableInputUIDs, helperPaths, routes);
        break;
    }
  }
  return routes;
}

std::pair<UIDSet, UIDSet> availableUIDs(const AudioDeviceInventory& inventory) {
  std::pair<UIDSet, UIDSet> uids;
  for (const auto& info : inventory.inputs) uids.first.insert(info.uid);
  for (const auto& info : inventory.outputs) uids.second.insert(info.uid);
  return uids;
}

std::vector<DesiredRoute> desiredRoutes(const ConfigSnapshot& snapshot,
                                        const AudioDeviceInventory& inventory,
                                        const HelperPaths& helperPaths) {
  const auto [inputs, outputs] = availableUIDs(inventory);
  std::vector<DesiredRoute> routes;
  for (const auto& device : snapshot.devices) {
    if (!device.enabled) continue;
    auto deviceRoutes = desiredRoutes(device, snapshot, inputs, outputs, helperPaths);
    routes.insert(routes.end(), std::make_move_iterator(deviceRoutes.begin()),
                  std::make_move_iterator(deviceRoutes.end()));
  }
  return routes;
}

}  // namespace brisola::RoutePlanner
