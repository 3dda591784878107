#include <algorithm>

#include "brisola/runtime/control_store.hpp"

namespace brisola {

namespace RuntimeControlStoreV3 {

namespace {

const SourceConfig* passThruSource(const DeviceConfig& device) {
  auto found = std::find_if(device.sources.begin(), device.sources.end(),
                            [](const SourceConfig& s) { return s.type == SourceType::passThru; });
  return found == device.sources.end() ? nullptr : &*found;
}

RuntimeDeviceControls controlsOf(const DeviceConfig& device) {
  std::vector<float> gains;
  if (device.channelGains) {
    // Only the first 64 can reach the record.
    std::size_t count = std::min(device.channelGains->size(), maximumChannelCount);
    gains.reserve(count);
    for (std::size_t k = 0; k < count; ++k) {
      gains.push_back(static_cast<float>((*device.channelGains)[k]));
    }
  }
  const SourceConfig* source = passThruSource(device);
  return RuntimeDeviceControls(
      device.uid, device.name, device.icon, device.channelCount, device.enabled,
      static_cast<float>(device.volume), std::move(gains), source == nullptr || source->enabled,
      source != nullptr && source->muted,
      source == nullptr ? 1.0f : static_cast<float>(source->gain),
      // The default stereo map only without any pass-thru source; a pass-thru source without
      // wires gets no routes.
      source == nullptr ? RuntimeRouteMap::defaultStereoRoutes()
                        : RuntimeRouteMap::sourceRoutes(source->id, device, device.channelCount));
}

}  // namespace

std::vector<RuntimeDeviceControls> controls(const ConfigSnapshot& snapshot) {
  std::size_t count = std::min(snapshot.devices.size(), maximumDeviceCount);
  std::vector<RuntimeDeviceControls> result;
  result.reserve(count);
  for (std::size_t i = 0; i < count; ++i) result.push_back(controlsOf(snapshot.devices[i]));
  return result;
}

void publish(const ConfigSnapshot& snapshot) {
  publish(controls(snapshot));
}

}  // namespace RuntimeControlStoreV3

namespace RuntimePublisher {
void publish(const ConfigSnapshot& snapshot) {
  RuntimeControlStoreV3::publish(snapshot);
}
}  // namespace RuntimePublisher

}  // namespace brisola
