#include "brisola/model/config.hpp"

#include <algorithm>

namespace brisola {

std::string BrisolaCore::OperatingSystemVersion::description() const {
  return std::to_string(majorVersion) + "." + std::to_string(minorVersion) + "." +
         std::to_string(patchVersion);
}

std::string BrisolaCore::derivedDeviceUID(std::string_view deviceID) {
  std::string uid(derivedDeviceUIDPrefix);
  uid.append(deviceID);
  return uid;
}

std::vector<Wire> channelForChannelWires(EndpointKind fromKind, std::string_view fromOwnerID,
                                         EndpointKind toKind, std::string_view toOwnerID,
                                         std::int64_t channelCount, const IdFactory& idFactory) {
  std::vector<Wire> wires;
  wires.reserve(static_cast<std::size_t>(std::max<std::int64_t>(channelCount, 0)));
  for (std::int64_t channel = 1; channel <= channelCount; ++channel) {
    wires.push_back(Wire{.id = idFactory(),
                         .from = {fromKind, std::string(fromOwnerID), channel},
                         .to = {toKind, std::string(toOwnerID), channel}});
  }
  return wires;
}

ConfigSnapshot ConfigSnapshot::empty() {
  return ConfigSnapshot{};
}

DeviceConfig DeviceConfig::makeDefault(std::string name, double sampleRate,
                                       const IdFactory& idFactory) {
  // The order of the four calls is part of the contract: callers with predictable
  // factories rely on it.
  std::string deviceID = idFactory();
  std::string sourceID = idFactory();
  SourceConfig source{
      .id = sourceID,
      .type = SourceType::passThru,
      .name = "Pass-Thru",
      .enabled = true,
      .muted = false,
      .gain = 1.0,
      .channelGains = std::nullopt,
      .channelCount = 2,
      .muteWhenCapturing = false,
      .metadata = {},
  };
  std::vector<Wire> wires = channelForChannelWires(
      EndpointKind::source, sourceID, EndpointKind::deviceOutput, deviceID, 2, idFactory);
  return DeviceConfig{
      .id = deviceID,
      .name = std::move(name),
      .enabled = true,
      .sampleRate = sampleRate,
      .channelCount = 2,
      .volume = 1.0,
      .channelGains = std::nullopt,
      .uid = BrisolaCore::derivedDeviceUID(deviceID),
      .icon = std::string(BrisolaCore::defaultDeviceIcon),
      .sources = {std::move(source)},
      .monitors = {},
      .wires = std::move(wires),
  };
}

}  // namespace brisola
