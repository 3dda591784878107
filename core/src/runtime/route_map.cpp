#include "brisola/runtime/route_map.hpp"

namespace brisola::RuntimeRouteMap {

namespace {

bool isEnd(const WireEndpoint& end, EndpointKind kind, std::string_view ownerID) {
  return end.kind == kind && end.ownerID == ownerID;
}

template <class Keep>
std::vector<RuntimeChannelRoute> routesOf(const DeviceConfig& device, Keep keep) {
  std::vector<RuntimeChannelRoute> routes;
  for (const Wire& wire : device.wires) {
    if (routes.size() == maximumRouteCount) break;
    if (keep(wire)) routes.push_back({wire.from.channel, wire.to.channel});
  }
  return routes;
}

}  // namespace

std::vector<RuntimeChannelRoute> sourceRoutes(std::string_view sourceID, const DeviceConfig& device,
                                              std::int64_t supportedOutputChannelCount) {
  return routesOf(device, [&](const Wire& wire) {
    return isEnd(wire.from, EndpointKind::source, sourceID) &&
           isEnd(wire.to, EndpointKind::deviceOutput, device.id) && wire.from.channel >= 1 &&
           wire.to.channel >= 1 && wire.to.channel <= supportedOutputChannelCount;
  });
}

std::vector<RuntimeChannelRoute> monitorRoutes(std::string_view monitorID,
                                               const DeviceConfig& device,
                                               std::int64_t supportedInputChannelCount,
                                               std::int64_t supportedOutputChannelCount) {
  return routesOf(device, [&](const Wire& wire) {
    return isEnd(wire.from, EndpointKind::deviceOutput, device.id) &&
           isEnd(wire.to, EndpointKind::monitor, monitorID) && wire.from.channel >= 1 &&
           wire.from.channel <= supportedInputChannelCount && wire.to.channel >= 1 &&
           wire.to.channel <= supportedOutputChannelCount;
  });
}

std::string environmentValue(const std::vector<RuntimeChannelRoute>& routes) {
  std::string text;
  for (const RuntimeChannelRoute& route : routes) {
    if (!text.empty()) text += ',';
    text += std::to_string(route.sourceChannel);
    text += ':';
    text += std::to_string(route.outputChannel);
  }
  return text;
}

std::vector<RuntimeChannelRoute> defaultStereoRoutes() {
  return {{1, 1}, {2, 2}};
}

std::string defaultStereoEnvironmentValue() {
  return environmentValue(defaultStereoRoutes());
}

}  // namespace brisola::RuntimeRouteMap
