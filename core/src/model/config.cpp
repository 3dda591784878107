#include "brisola/model/config.hpp"

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
  auto passThruWire = [&](std::int64_t channel) {
    return Wire{.id = idFactory(),
                .from = {EndpointKind::source, sourceID, channel},
                .to = {EndpointKind::deviceOutput, deviceID, channel}};
  };
  Wire first = passThruWire(1);
  Wire second = passThruWire(2);
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
      .wires = {std::move(first), std::move(second)},
  };
}

}  // namespace brisola
