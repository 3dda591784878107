#include <algorithm>

#include "brisola/editing/config_editor.hpp"
#include "brisola/platform/uuid.hpp"
#include "editing/editing_lookup.hpp"

namespace brisola {

namespace {

// Runs after the device's channel count has changed: the first pass-thru source follows the
// new count and feeds device channel c from its own channel c, whatever wires it had before.
void rewirePassThruSource(DeviceConfig& device) {
  auto passThru =
      std::find_if(device.sources.begin(), device.sources.end(),
                   [](const SourceConfig& s) { return s.type == SourceType::passThru; });
  if (passThru == device.sources.end()) return;

  passThru->channelCount = device.channelCount;
  const std::string& sourceID = passThru->id;
  std::erase_if(device.wires, [&](const Wire& wire) {
    return wire.from.kind == EndpointKind::source && wire.from.ownerID == sourceID &&
           wire.to.kind == EndpointKind::deviceOutput && wire.to.ownerID == device.id;
  });
  std::vector<Wire> wires =
      channelForChannelWires(EndpointKind::source, sourceID, EndpointKind::deviceOutput, device.id,
                             device.channelCount, makeUUIDString);
  device.wires.insert(device.wires.end(), std::make_move_iterator(wires.begin()),
                      std::make_move_iterator(wires.end()));
}

}  // namespace

std::size_t ConfigEditor::requireDeviceIndex(std::string_view deviceID, const ConfigSnapshot& in) {
  for (std::size_t index = 0; index < in.devices.size(); ++index) {
    if (in.devices[index].id == deviceID) return index;
  }
  throw ConfigEditError::deviceNotFound(std::string(deviceID));
}

DeviceConfig ConfigEditor::requireDevice(std::string_view deviceID, const ConfigSnapshot& in) {
  return in.devices[requireDeviceIndex(deviceID, in)];
}

std::optional<std::vector<double>> ConfigEditor::updatedChannelGains(
    const std::optional<std::vector<double>>& gains, std::int64_t channelCount,
    std::int64_t channel, double gain) {
  if (channelCount > maximumChannelCount)
    throw ConfigEditError::channelCountOutOfRange(channelCount);
  // A negative count gives an empty working list, which leaves absent gains absent.
  const auto count = static_cast<std::size_t>(std::max<std::int64_t>(channelCount, 0));
  std::vector<double> working = gains.value_or(std::vector<double>{});
  if (working.size() < count) working.resize(count, 1.0);

  if (channel < 1 || static_cast<std::uint64_t>(channel) > working.size()) return gains;
  working[static_cast<std::size_t>(channel - 1)] = gain;

  if (std::all_of(working.begin(), working.end(), [](double g) { return g == 1.0; })) {
    return std::nullopt;
  }
  return working;
}

DeviceConfig ConfigEditor::selectDevice(std::string_view deviceID, ConfigSnapshot& in) {
  DeviceConfig& device = editing::requireDeviceRef(deviceID, in);
  in.ui.selectedDeviceID = device.id;
  return device;
}

DeviceConfig ConfigEditor::renameDevice(std::string_view deviceID, std::string name,
                                        ConfigSnapshot& in) {
  DeviceConfig& device = editing::requireDeviceRef(deviceID, in);
  device.name = std::move(name);
  return device;
}

DeviceConfig ConfigEditor::setDeviceEnabled(std::string_view deviceID, bool enabled,
                                            ConfigSnapshot& in) {
  DeviceConfig& device = editing::requireDeviceRef(deviceID, in);
  device.enabled = enabled;
  return device;
}

DeviceConfig ConfigEditor::setDeviceChannelCount(std::string_view deviceID,
                                                 std::int64_t channelCount, ConfigSnapshot& in) {
  DeviceConfig& device = editing::requireDeviceRef(deviceID, in);
  if (channelCount > maximumChannelCount)
    throw ConfigEditError::channelCountOutOfRange(channelCount);
  // Built aside and moved in, so the document is untouched if making the wires fails.
  DeviceConfig updated = device;
  updated.channelCount = channelCount;
  rewirePassThruSource(updated);
  device = std::move(updated);
  return device;
}

DeviceConfig ConfigEditor::setDeviceVolume(std::string_view deviceID, double volume,
                                           ConfigSnapshot& in) {
  DeviceConfig& device = editing::requireDeviceRef(deviceID, in);
  device.volume = volume;
  return device;
}

DeviceConfig ConfigEditor::setDeviceIcon(std::string_view deviceID, std::string icon,
                                         ConfigSnapshot& in) {
  DeviceConfig& device = editing::requireDeviceRef(deviceID, in);
  device.icon = std::move(icon);
  return device;
}

DeviceConfig ConfigEditor::setDeviceChannelGain(std::string_view deviceID, std::int64_t channel,
                                                double gain, ConfigSnapshot& in) {
  DeviceConfig& device = editing::requireDeviceRef(deviceID, in);
  device.channelGains =
      updatedChannelGains(device.channelGains, device.channelCount, channel, gain);
  return device;
}

ConfigSnapshot ConfigEditor::deleteDevice(std::string_view deviceID, ConfigSnapshot& in) {
  requireDeviceIndex(deviceID, in);
  // The caller may pass a view of the id stored in the document; removal would move it away.
  const std::string id(deviceID);
  const bool wasSelected = in.ui.selectedDeviceID == id;
  std::erase_if(in.devices, [&](const DeviceConfig& device) { return device.id == id; });
  if (wasSelected) {
    if (in.devices.empty()) {
      in.ui.selectedDeviceID.reset();
    } else {
      in.ui.selectedDeviceID = in.devices.front().id;
    }
  }
  return in;
}

SourceConfig ConfigEditor::setSourceControls(std::string_view deviceID, std::string_view sourceID,
                                             bool enabled, bool muted, double gain,
                                             ConfigSnapshot& in) {
  SourceConfig& source =
      editing::requireSourceRef(sourceID, editing::requireDeviceRef(deviceID, in));
  source.enabled = enabled;
  source.muted = muted;
  source.gain = gain;
  return source;
}

SourceConfig ConfigEditor::setSourceMuteWhenCapturing(std::string_view deviceID,
                                                      std::string_view sourceID,
                                                      bool muteWhenCapturing, ConfigSnapshot& in) {
  SourceConfig& source =
      editing::requireSourceRef(sourceID, editing::requireDeviceRef(deviceID, in));
  source.muteWhenCapturing = muteWhenCapturing;
  return source;
}

SourceConfig ConfigEditor::setSourceChannelGain(std::string_view deviceID,
                                                std::string_view sourceID, std::int64_t channel,
                                                double gain, ConfigSnapshot& in) {
  SourceConfig& source =
      editing::requireSourceRef(sourceID, editing::requireDeviceRef(deviceID, in));
  source.channelGains =
      updatedChannelGains(source.channelGains, source.channelCount, channel, gain);
  return source;
}

MonitorConfig ConfigEditor::setMonitorControls(std::string_view deviceID,
                                               std::string_view monitorID, bool enabled, bool muted,
                                               double gain, ConfigSnapshot& in) {
  MonitorConfig& monitor =
      editing::requireMonitorRef(monitorID, editing::requireDeviceRef(deviceID, in));
  monitor.enabled = enabled;
  monitor.muted = muted;
  monitor.gain = gain;
  return monitor;
}

MonitorConfig ConfigEditor::setMonitorChannelGain(std::string_view deviceID,
                                                  std::string_view monitorID, std::int64_t channel,
                                                  double gain, ConfigSnapshot& in) {
  MonitorConfig& monitor =
      editing::requireMonitorRef(monitorID, editing::requireDeviceRef(deviceID, in));
  monitor.channelGains =
      updatedChannelGains(monitor.channelGains, monitor.channelCount, channel, gain);
  return monitor;
}

}  // namespace brisola
