#include "support/documents.hpp"

namespace brisola::testing {

SourceConfig passThruSource(std::string id, std::int64_t channelCount) {
  return sourceOf(SourceType::passThru, std::move(id), "Pass-Thru", {}, channelCount);
}

SourceConfig hardwareSource(std::string id, std::string deviceUID, std::int64_t channelCount) {
  return sourceOf(SourceType::hardwareInput, std::move(id), "Microphone",
                  {.deviceUID = std::move(deviceUID)}, channelCount);
}

SourceConfig sourceOf(SourceType type, std::string id, std::string name, SourceMetadata metadata,
                      std::int64_t channelCount) {
  return SourceConfig{.id = std::move(id),
                      .type = type,
                      .name = std::move(name),
                      .enabled = true,
                      .gain = 1.0,
                      .channelCount = channelCount,
                      .metadata = std::move(metadata)};
}

SourceConfig nestedSource(std::string id, std::string deviceID, std::string name) {
  return sourceOf(SourceType::virtualDevice, std::move(id), std::move(name),
                  {.sourceDeviceID = std::move(deviceID)});
}

MonitorConfig monitor(std::string id, std::string deviceUID, std::int64_t channelCount) {
  return MonitorConfig{.id = std::move(id),
                       .name = "Speakers",
                       .enabled = true,
                       .gain = 1.0,
                       .deviceUID = std::move(deviceUID),
                       .channelCount = channelCount};
}

Wire wire(std::string id, WireEndpoint from, WireEndpoint to) {
  return Wire{.id = std::move(id), .from = std::move(from), .to = std::move(to)};
}
WireEndpoint sourceEnd(std::string owner, std::int64_t channel) {
  return {EndpointKind::source, std::move(owner), channel};
}
WireEndpoint outputEnd(std::string owner, std::int64_t channel) {
  return {EndpointKind::deviceOutput, std::move(owner), channel};
}
WireEndpoint monitorEnd(std::string owner, std::int64_t channel) {
  return {EndpointKind::monitor, std::move(owner), channel};
}

DeviceConfig stereoDevice(std::string id, std::string name) {
  std::string pt = id + "-pt";
  DeviceConfig device{
      .id = id, .name = std::move(name), .enabled = true, .sampleRate = 48000, .channelCount = 2};
  device.sources.push_back(passThruSource(pt));
  device.wires.push_back(wire(id + "-w1", sourceEnd(pt, 1), outputEnd(id, 1)));
  device.wires.push_back(wire(id + "-w2", sourceEnd(pt, 2), outputEnd(id, 2)));
  return device;
}

ConfigSnapshot richSnapshot() {
  DeviceConfig studio = stereoDevice("studio", "Studio / Live \"A\"");
  studio.volume = 0.75;
  studio.channelGains = std::vector<double>{1.0, 0.1};
  studio.icon = "mic.fill";
  studio.sources.push_back(sourceOf(SourceType::application, "app", "Sketchpad — ünïcødé",
                                    {.bundleIdentifier = "com.example.sketchpad",
                                     .pid = -2147483647 - 1,
                                     .processObjectID = 18446744073709551615ULL,
                                     .tapUUID = "0F3E5A8C-1B2D-4E6F-8A9B-C0D1E2F3A4B5"}));
  studio.sources.back().muted = true;
  studio.sources.back().gain = 1.25;
  studio.sources.back().channelGains = std::vector<double>{};
  studio.sources.back().muteWhenCapturing = true;
  studio.sources.push_back(sourceOf(SourceType::system, "sys", "System"));
  studio.sources.back().enabled = false;
  studio.sources.back().gain = 1e-05;
  SourceConfig hardware = hardwareSource("mic", "BuiltInMic", 1);
  hardware.metadata.inputBackend = "coreaudio";
  studio.sources.push_back(hardware);
  studio.monitors.push_back(monitor("spk", "BuiltInSpeakers"));
  studio.monitors.back().channelGains = std::vector<double>{0.5, 2.0};
  studio.wires.push_back(wire("mw1", outputEnd("studio", 1), monitorEnd("spk", 1)));

  DeviceConfig nested = stereoDevice("nest", "Nested");
  nested.enabled = false;
  nested.sampleRate = 44100.5;
  nested.uid = "custom.uid/with/slashes";
  nested.sources.push_back(nestedSource("feed", "studio"));
  nested.sources.back().gain = 0.3;

  return ConfigSnapshot{.schemaVersion = 2,
                        .devices = {studio, nested},
                        .ui = {.selectedDeviceID = "nest", .appearance = Appearance::dark}};
}

}  // namespace brisola::testing
