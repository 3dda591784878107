#include <algorithm>

#include "brisola/editing/config_editor.hpp"
#include "brisola/platform/unicode.hpp"

namespace brisola {

namespace {

constexpr std::string_view benchmarkDeviceName = "Brisola Benchmark";
constexpr std::string_view sourceWirePrefix = "brisola-benchmark-wire-";
constexpr std::string_view monitorWirePrefix = "brisola-benchmark-monitor-wire-";

struct MonitorRequest {
  std::string_view uid;
  std::optional<std::string_view> name;
  std::optional<std::int64_t> channelCount;
};

void checkBenchmarkInput(std::string_view inputUID, std::string_view inputName,
                         std::int64_t inputChannelCount, std::int64_t sourceFirstChannel,
                         const std::optional<MonitorRequest>& monitor) {
  auto fail = [](const char* reason) { throw ConfigEditError::invalidBenchmarkInput(reason); };
  if (unicode::isBlank(inputUID)) fail("input UID must not be empty");
  if (unicode::isBlank(inputName)) fail("input name must not be empty");
  if (inputChannelCount < 1) fail("input channel count must be positive");
  if (sourceFirstChannel < 1 || sourceFirstChannel > inputChannelCount) {
    fail("source first channel must be within the input channel count");
  }
  if (!monitor) return;
  if (unicode::isBlank(monitor->uid)) fail("monitor UID must not be empty");
  if (!monitor->name || unicode::isBlank(*monitor->name)) fail("monitor name must not be empty");
  if (!monitor->channelCount || *monitor->channelCount < 1) {
    fail("monitor channel count must be positive");
  }
}

Wire benchmarkWire(std::string_view prefix, int number, WireEndpoint from, WireEndpoint to) {
  return Wire{.id = std::string(prefix) + std::to_string(number),
              .from = std::move(from),
              .to = std::move(to)};
}

DeviceConfig prepareBenchmarkDevice(std::string_view inputUID, std::string_view inputName,
                                    std::int64_t inputChannelCount, std::int64_t sourceFirstChannel,
                                    const std::optional<MonitorRequest>& monitor,
                                    const std::optional<std::string>& sourceInputBackend,
                                    ConfigSnapshot& in) {
  checkBenchmarkInput(inputUID, inputName, inputChannelCount, sourceFirstChannel, monitor);

  const std::string deviceID(ConfigEditor::benchmarkDeviceID);
  const std::string sourceID(ConfigEditor::benchmarkSourceID);
  const std::string monitorID(ConfigEditor::benchmarkMonitorID);

  std::optional<std::string> backend;
  if (sourceInputBackend && !unicode::isBlank(*sourceInputBackend)) {
    backend = unicode::trimmingWhitespaceAndNewlines(*sourceInputBackend);
  }

  DeviceConfig device{.id = deviceID,
                      .name = std::string(benchmarkDeviceName),
                      .enabled = true,
                      .sampleRate = BrisolaCore::engineSampleRate,
                      .channelCount = 2,
                      .volume = 1.0,
                      .channelGains = std::nullopt,
                      .uid = BrisolaCore::derivedDeviceUID(deviceID),
                      .icon = std::string(BrisolaCore::defaultDeviceIcon)};
  device.sources.push_back(
      SourceConfig{.id = sourceID,
                   .type = SourceType::hardwareInput,
                   .name = unicode::trimmingWhitespaceAndNewlines(inputName),
                   .enabled = true,
                   .muted = false,
                   .gain = 1.0,
                   .channelGains = std::nullopt,
                   .channelCount = inputChannelCount,
                   .muteWhenCapturing = false,
                   .metadata = {.deviceUID = unicode::trimmingWhitespaceAndNewlines(inputUID),
                                .inputBackend = std::move(backend)}});

  // Two adjacent input channels from the first one; a mono input, or a start on the last
  // channel, feeds both device channels from the same input channel.
  // Compared before adding, so that a first channel at the top of the range cannot overflow.
  auto inputChannel = [&](std::int64_t offset) {
    if (inputChannelCount == 1) return std::int64_t{1};
    return sourceFirstChannel >= inputChannelCount - offset ? inputChannelCount
                                                            : sourceFirstChannel + offset;
  };
  device.wires.push_back(benchmarkWire(sourceWirePrefix, 1,
                                       {EndpointKind::source, sourceID, inputChannel(0)},
                                       {EndpointKind::deviceOutput, deviceID, 1}));
  device.wires.push_back(benchmarkWire(sourceWirePrefix, 2,
                                       {EndpointKind::source, sourceID, inputChannel(1)},
                                       {EndpointKind::deviceOutput, deviceID, 2}));

  if (monitor) {
    device.monitors.push_back(
        MonitorConfig{.id = monitorID,
                      .name = unicode::trimmingWhitespaceAndNewlines(*monitor->name),
                      .enabled = true,
                      .muted = false,
                      .gain = 1.0,
                      .channelGains = std::nullopt,
                      .deviceUID = unicode::trimmingWhitespaceAndNewlines(monitor->uid),
                      .channelCount = *monitor->channelCount});
    // A mono monitor receives both device channels on its one channel.
    device.wires.push_back(benchmarkWire(monitorWirePrefix, 1,
                                         {EndpointKind::deviceOutput, deviceID, 1},
                                         {EndpointKind::monitor, monitorID, 1}));
    device.wires.push_back(benchmarkWire(
        monitorWirePrefix, 2, {EndpointKind::deviceOutput, deviceID, 2},
        {EndpointKind::monitor, monitorID, std::min<std::int64_t>(*monitor->channelCount, 2)}));
  }

  // Any earlier benchmark device is replaced, not updated: the new one goes to the end and
  // none of the old settings survive.
  std::vector<DeviceConfig> devices;
  devices.reserve(in.devices.size() + 1);
  std::copy_if(in.devices.begin(), in.devices.end(), std::back_inserter(devices),
               [&](const DeviceConfig& existing) { return existing.id != deviceID; });
  devices.push_back(device);
  std::optional<std::string> selection = deviceID;

  in.devices = std::move(devices);
  in.ui.selectedDeviceID = std::move(selection);
  return device;
}

}  // namespace

DeviceConfig ConfigEditor::prepareHardwareInputBenchmarkDevice(std::string_view inputUID,
                                                               std::string_view inputName,
                                                               std::int64_t inputChannelCount,
                                                               std::int64_t sourceFirstChannel,
                                                               ConfigSnapshot& in) {
  return prepareBenchmarkDevice(inputUID, inputName, inputChannelCount, sourceFirstChannel,
                                std::nullopt, std::nullopt, in);
}

DeviceConfig ConfigEditor::prepareHardwareInputMonitorBenchmarkDevice(
    std::string_view inputUID, std::string_view inputName, std::int64_t inputChannelCount,
    std::string_view monitorUID, std::string_view monitorName, std::int64_t monitorChannelCount,
    std::int64_t sourceFirstChannel, const std::optional<std::string>& sourceInputBackend,
    ConfigSnapshot& in) {
  return prepareBenchmarkDevice(inputUID, inputName, inputChannelCount, sourceFirstChannel,
                                MonitorRequest{monitorUID, monitorName, monitorChannelCount},
                                sourceInputBackend, in);
}

}  // namespace brisola
