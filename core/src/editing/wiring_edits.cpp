#include <algorithm>
#include <unordered_map>
#include <unordered_set>

#include "brisola/editing/config_editor.hpp"
#include "brisola/platform/uuid.hpp"
#include "editing/editing_lookup.hpp"

namespace brisola {

namespace {

void validateWireDirection(const WireEndpoint& from, const WireEndpoint& to) {
  const bool sourceToOutput =
      from.kind == EndpointKind::source && to.kind == EndpointKind::deviceOutput;
  const bool outputToMonitor =
      from.kind == EndpointKind::deviceOutput && to.kind == EndpointKind::monitor;
  if (!sourceToOutput && !outputToMonitor) throw ConfigEditError::invalidWireDirection();
}

template <class Element>
std::optional<std::int64_t> firstChannelCount(const std::vector<Element>& elements,
                                              const std::string& ownerID) {
  for (const Element& element : elements) {
    if (element.id == ownerID) return element.channelCount;
  }
  return std::nullopt;
}

void validateWireEndpoint(const WireEndpoint& endpoint, const DeviceConfig& device) {
  bool valid = false;
  if (endpoint.channel >= 1) {
    switch (endpoint.kind) {
      case EndpointKind::source: {
        auto count = firstChannelCount(device.sources, endpoint.ownerID);
        valid = count && endpoint.channel <= *count;
        break;
      }
      case EndpointKind::monitor: {
        auto count = firstChannelCount(device.monitors, endpoint.ownerID);
        valid = count && endpoint.channel <= *count;
        break;
      }
      case EndpointKind::deviceOutput:
        valid = endpoint.ownerID == device.id && endpoint.channel <= device.channelCount;
        break;
    }
  }
  if (!valid) throw ConfigEditError::invalidWireEndpoint(endpoint);
}

// Built aside and moved in, so the document is untouched if appending fails.
template <class Element>
void appendWithWires(DeviceConfig& device, std::vector<Element> DeviceConfig::*elements,
                     const Element& element, std::vector<Wire> wires) {
  DeviceConfig updated = device;
  (updated.*elements).push_back(element);
  updated.wires.insert(updated.wires.end(), std::make_move_iterator(wires.begin()),
                       std::make_move_iterator(wires.end()));
  device = std::move(updated);
}

}  // namespace

Wire ConfigEditor::connectWire(std::string_view deviceID, const WireEndpoint& from,
                               const WireEndpoint& to, ConfigSnapshot& in) {
  DeviceConfig& device = editing::requireDeviceRef(deviceID, in);
  validateWireDirection(from, to);
  validateWireEndpoint(from, device);
  validateWireEndpoint(to, device);

  for (const Wire& existing : device.wires) {
    if (existing.from == from && existing.to == to) return existing;
  }
  // Built before appending: the endpoints may be views into this very wire list.
  Wire wire{.id = makeUUIDString(), .from = from, .to = to};
  device.wires.push_back(wire);
  return wire;
}

DeviceConfig ConfigEditor::deleteWire(std::string_view deviceID, std::string_view wireID,
                                      ConfigSnapshot& in) {
  DeviceConfig& device = editing::requireDeviceRef(deviceID, in);
  const bool found = std::any_of(device.wires.begin(), device.wires.end(),
                                 [&](const Wire& wire) { return wire.id == wireID; });
  if (!found) throw ConfigEditError::wireNotFound(std::string(wireID));
  // The caller may pass a view of an id stored in the wire list; removal would move it away.
  const std::string id(wireID);
  std::erase_if(device.wires, [&](const Wire& wire) { return wire.id == id; });
  return device;
}

namespace {

// Removes every element of the device with that id and every wire that has one of them as an
// endpoint; the caller has checked that one exists.
template <class Element>
void removeWithWires(std::vector<Element>& elements, EndpointKind kind, std::string_view elementID,
                     DeviceConfig& device) {
  // The caller may pass a view of an id stored in the list; removal would move it away.
  const std::string id(elementID);
  std::erase_if(elements, [&](const Element& element) { return element.id == id; });
  const auto touches = [&](const WireEndpoint& end) {
    return end.kind == kind && end.ownerID == id;
  };
  std::erase_if(device.wires,
                [&](const Wire& wire) { return touches(wire.from) || touches(wire.to); });
}

}  // namespace

DeviceConfig ConfigEditor::deleteSource(std::string_view deviceID, std::string_view sourceID,
                                        ConfigSnapshot& in) {
  DeviceConfig& device = editing::requireDeviceRef(deviceID, in);
  editing::requireSourceRef(sourceID, device);
  removeWithWires(device.sources, EndpointKind::source, sourceID, device);
  return device;
}

DeviceConfig ConfigEditor::deleteMonitor(std::string_view deviceID, std::string_view monitorID,
                                         ConfigSnapshot& in) {
  DeviceConfig& device = editing::requireDeviceRef(deviceID, in);
  editing::requireMonitorRef(monitorID, device);
  removeWithWires(device.monitors, EndpointKind::monitor, monitorID, device);
  return device;
}

bool ConfigEditor::wouldCreateNestedDeviceCycle(std::string_view parentID,
                                                std::string_view nestedID,
                                                const ConfigSnapshot& in) {
  if (parentID == nestedID) return true;

  // Devices that share an id share one adjacency list; ids of missing devices are kept.
  std::unordered_map<std::string_view, std::vector<std::string_view>> nested;
  for (const DeviceConfig& device : in.devices) {
    for (const SourceConfig& source : device.sources) {
      const auto& target = source.metadata.sourceDeviceID;
      if (source.type == SourceType::virtualDevice && target && !target->empty()) {
        nested[device.id].push_back(*target);
      }
    }
  }

  std::vector<std::string_view> stack{nestedID};
  std::unordered_set<std::string_view> visited;
  while (!stack.empty()) {
    std::string_view current = stack.back();
    stack.pop_back();
    if (current == parentID) return true;
    if (!visited.insert(current).second) continue;
    if (auto it = nested.find(current); it != nested.end()) {
      stack.insert(stack.end(), it->second.begin(), it->second.end());
    }
  }
  return false;
}

SourceConfig ConfigEditor::addVirtualDeviceSource(std::string_view deviceID,
                                                  std::string_view sourceDeviceID,
                                                  ConfigSnapshot& in, const IdFactory& idFactory) {
  DeviceConfig& device = editing::requireDeviceRef(deviceID, in);
  const DeviceConfig& nestedDevice = editing::requireDeviceRef(sourceDeviceID, in);
  if (wouldCreateNestedDeviceCycle(deviceID, sourceDeviceID, in)) {
    throw ConfigEditError::nestedDeviceCycle(std::string(sourceDeviceID));
  }

  // Everything is built before the first change, so a throwing factory leaves the document
  // as it was.
  SourceConfig source{.id = idFactory(),
                      .type = SourceType::virtualDevice,
                      .name = nestedDevice.name,
                      .enabled = true,
                      .muted = false,
                      .gain = 1.0,
                      .channelGains = std::nullopt,
                      .channelCount = nestedDevice.channelCount,
                      .muteWhenCapturing = false,
                      .metadata = {.sourceDeviceID = std::string(sourceDeviceID)}};
  const std::int64_t wireCount =
      std::max<std::int64_t>(std::min(source.channelCount, device.channelCount), 1);
  if (wireCount > maximumChannelCount) throw ConfigEditError::channelCountOutOfRange(wireCount);
  std::vector<Wire> wires = channelForChannelWires(
      EndpointKind::source, source.id, EndpointKind::deviceOutput, deviceID, wireCount, idFactory);
  appendWithWires(device, &DeviceConfig::sources, source, std::move(wires));
  return source;
}

namespace {

// A new element's channel count: the one given, else the found device's, else two.
std::int64_t newChannelCount(std::int64_t given, const std::optional<AudioDeviceInfo>& found) {
  if (given > 0) return given;
  return found && found->channelCount > 0 ? found->channelCount : 2;
}

// Checked before the factory is asked for the element's id.
std::int64_t newWireCount(bool wired, std::int64_t elementChannels, std::int64_t deviceChannels) {
  const std::int64_t count = wired ? std::min(elementChannels, deviceChannels) : 0;
  if (count > ConfigEditor::maximumChannelCount)
    throw ConfigEditError::channelCountOutOfRange(count);
  return count;
}

}  // namespace

SourceConfig ConfigEditor::addSource(std::string_view deviceID, const NewSource& request,
                                     bool wired, ConfigSnapshot& in, const IdFactory& idFactory) {
  DeviceConfig& device = editing::requireDeviceRef(deviceID, in);
  SourceConfig source{.type = request.type,
                      .name = request.name,
                      .enabled = true,
                      .muted = false,
                      .gain = 1.0,
                      .channelCount = newChannelCount(request.channelCount, std::nullopt),
                      .metadata = request.metadata};
  SourceMetadata& metadata = source.metadata;
  switch (request.type) {
    case SourceType::application:
      if (const auto& running = request.application) {
        if (!metadata.bundleIdentifier) metadata.bundleIdentifier = running->bundleIdentifier;
        if (!metadata.pid) metadata.pid = running->pid;
        if (!metadata.processObjectID) metadata.processObjectID = running->processObjectID;
        if (source.name.empty()) source.name = running->displayName;
      }
      if (source.name.empty()) {
        source.name = metadata.bundleIdentifier.value_or("Application " +
                                                         std::to_string(metadata.pid.value_or(0)));
      }
      break;
    case SourceType::system:
      if (source.name.empty()) source.name = "System Audio";
      break;
    case SourceType::hardwareInput:
      if (source.name.empty()) {
        source.name = request.input ? request.input->name : metadata.deviceUID.value_or("");
      }
      source.channelCount = newChannelCount(request.channelCount, request.input);
      break;
    case SourceType::passThru:
    case SourceType::virtualDevice:
      break;
  }
  const std::int64_t wireCount = newWireCount(wired, source.channelCount, device.channelCount);

  source.id = idFactory();
  std::vector<Wire> wires = channelForChannelWires(
      EndpointKind::source, source.id, EndpointKind::deviceOutput, deviceID, wireCount, idFactory);
  appendWithWires(device, &DeviceConfig::sources, source, std::move(wires));
  return source;
}

MonitorConfig ConfigEditor::addMonitor(std::string_view deviceID, const NewMonitor& request,
                                       bool wired, ConfigSnapshot& in, const IdFactory& idFactory) {
  DeviceConfig& device = editing::requireDeviceRef(deviceID, in);
  const auto& output = request.output;
  MonitorConfig monitor{.name = !request.name.empty() ? request.name
                                : output              ? output->name
                                                      : request.deviceUID,
                        .enabled = true,
                        .muted = false,
                        .gain = 1.0,
                        .deviceUID = request.deviceUID,
                        .channelCount = newChannelCount(request.channelCount, output)};
  const std::int64_t wireCount = newWireCount(wired, monitor.channelCount, device.channelCount);

  monitor.id = idFactory();
  std::vector<Wire> wires =
      channelForChannelWires(EndpointKind::deviceOutput, deviceID, EndpointKind::monitor,
                             monitor.id, wireCount, idFactory);
  appendWithWires(device, &DeviceConfig::monitors, monitor, std::move(wires));
  return monitor;
}

}  // namespace brisola
