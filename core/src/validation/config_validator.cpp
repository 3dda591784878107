#include <charconv>
#include <cmath>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "brisola/model/limits.hpp"
#include "brisola/platform/unicode.hpp"
#include "brisola/validation/validation.hpp"
#include "validation/canonical_key_index.hpp"
#include "validation/nested_device_graph.hpp"
#include "validation/validation_builder.hpp"

namespace brisola {

namespace {

// A device's sources and monitors by identifier, for the wire endpoints. Where an identifier
// repeats (already an error) the first element bearing it is the one found.
using SourceIndex = CanonicalKeyIndex<const SourceConfig*>;
using MonitorIndex = CanonicalKeyIndex<const MonitorConfig*>;

// The per-device tables, set up once per validation and reset for every device.
struct DeviceIndexes {
  SourceIndex sources;
  MonitorIndex monitors;
  CanonicalKeyIndex<bool> wireIDs;
};

// Paths and codes are only put together when an issue is emitted.
template <typename... Parts>
std::string joined(const Parts&... parts) {
  std::string result;
  result.reserve((std::string_view(parts).size() + ...));
  (result.append(parts), ...);
  return result;
}

// base + "." + key + "[" + index + "]", written into a buffer that is reused from element to
// element, so walking a document allocates no path.
void assignElementPath(std::string& out, std::string_view base, std::string_view key,
                       std::size_t index) {
  char digits[24];
  auto end = std::to_chars(digits, digits + sizeof digits, index).ptr;
  out.assign(base).append(".").append(key).append("[");
  out.append(digits, end).append("]");
}

bool isInGainRange(double value) {
  // -0.0 compares equal to 0.0, so negative zero is in range.
  return std::isfinite(value) && value >= Limits::minimumGain && value <= Limits::maximumGain;
}

// A first character that is ASCII and not white space settles it without the Unicode scan.
bool isBlank(std::string_view text) {
  if (!text.empty()) {
    const auto first = static_cast<unsigned char>(text.front());
    if (first < 0x80 && first != ' ' && (first < 0x09 || first > 0x0D)) return false;
  }
  return unicode::isBlank(text);
}

// Duplicate rule, for one element: every identifier goes into the index (the empty one too,
// so that an endpoint naming "" can find it), but an empty identifier is never reported.
template <typename Value>
void indexIdentifier(CanonicalKeyIndex<Value>& index, const std::string& id, Value value,
                     std::string_view code, std::string_view ownerPath, std::string_view list,
                     ValidationBuilder& builder) {
  if (!index.insert(id, std::move(value)).second && !id.empty()) {
    builder.addError(std::string(code), joined("Duplicate ID '", id, "' found."),
                     joined(ownerPath, list));
  }
}

// Channel-gain rule; entity is "device", "source" or "monitor".
void validateChannelGains(std::string_view entity, const std::optional<std::vector<double>>& gains,
                          std::int64_t channelCount, std::string_view path,
                          ValidationBuilder& builder) {
  if (!gains) return;
  if (std::cmp_greater(gains->size(), channelCount)) {
    builder.addError(joined(entity, ".tooManyChannelGains"),
                     "Channel gain count must not exceed the channel count.",
                     joined(path, ".channelGains"));
  }
  for (std::size_t g = 0; g < gains->size(); ++g) {
    if (isInGainRange((*gains)[g])) continue;
    std::string gainPath;
    assignElementPath(gainPath, path, "channelGains", g);
    builder.addError(joined(entity, ".invalidChannelGain"),
                     "Channel gain must be finite and between 0.0 and 2.0.", std::move(gainPath));
  }
}

void validateGain(std::string_view entity, double gain, std::string_view path,
                  ValidationBuilder& builder) {
  if (isInGainRange(gain)) return;
  builder.addError(joined(entity, ".invalidGain"), "Gain must be finite and between 0.0 and 2.0.",
                   joined(path, ".gain"));
}

// Rule groups, in the order validate() visits the document. Each appends to the one builder.

void validateSchema(const ConfigSnapshot& snapshot, ValidationBuilder& builder) {
  if (snapshot.schemaVersion == 1 || snapshot.schemaVersion == 2) return;
  builder.addError("schema.unsupported",
                   "Unsupported schema version " + std::to_string(snapshot.schemaVersion) + ".",
                   "schemaVersion");
}

void validateDuplicateDeviceIdentifiers(const ConfigSnapshot& snapshot,
                                        ValidationBuilder& builder) {
  CanonicalKeyIndex<bool> ids;
  ids.reset(snapshot.devices.size());
  for (const auto& device : snapshot.devices) {
    indexIdentifier(ids, device.id, true, "device.duplicateID", "devices", "", builder);
  }
  CanonicalKeyIndex<bool> uids;
  uids.reset(snapshot.devices.size());
  for (const auto& device : snapshot.devices) {
    indexIdentifier(uids, device.uid, true, "device.duplicateUID", "devices", "", builder);
  }
}

void validate(const SourceConfig& source, const DeviceConfig& device, std::string_view path,
              ValidationBuilder& builder) {
  if (source.id.empty()) {
    builder.addError("source.emptyID", "Source ID must not be empty.", joined(path, ".id"));
  }
  if (isBlank(source.name)) {
    builder.addError("source.emptyName", "Source name must not be empty.", joined(path, ".name"));
  }
  if (source.channelCount < 1) {
    builder.addError("source.invalidChannelCount", "Source channel count must be positive.",
                     joined(path, ".channelCount"));
  }
  if (source.type == SourceType::passThru && source.channelCount != device.channelCount) {
    builder.addWarning(
        "source.passThruChannelMismatch",
        "Pass-Thru source channel count should match the virtual device channel count.",
        joined(path, ".channelCount"));
  }
  validateGain("source", source.gain, path, builder);
  validateChannelGains("source", source.channelGains, source.channelCount, path, builder);
  if (source.muteWhenCapturing && source.type != SourceType::application &&
      source.type != SourceType::system) {
    builder.addWarning("source.muteWhenCapturingUnsupported",
                       "Mute-when-capturing only applies to application and system audio sources.",
                       joined(path, ".muteWhenCapturing"));
  }
  const SourceMetadata& metadata = source.metadata;
  switch (source.type) {
    case SourceType::application:
      if (!metadata.bundleIdentifier && !metadata.pid && !metadata.processObjectID) {
        builder.addWarning(
            "source.applicationMissingIdentity",
            "Application source has no bundle identifier, PID, or process object ID.",
            joined(path, ".metadata"));
      }
      break;
    case SourceType::hardwareInput:
      if (!metadata.deviceUID || metadata.deviceUID->empty()) {
        builder.addWarning("source.hardwareInputMissingDevice",
                           "Hardware input source has no Core Audio device UID.",
                           joined(path, ".metadata.deviceUID"));
      }
      break;
    case SourceType::virtualDevice:
      if (!metadata.sourceDeviceID || metadata.sourceDeviceID->empty()) {
        builder.addWarning("source.virtualDeviceMissingDevice",
                           "Nested device source has no source device ID.",
                           joined(path, ".metadata.sourceDeviceID"));
      }
      break;
    case SourceType::passThru:
    case SourceType::system:
      break;
  }
}

void validate(const MonitorConfig& monitor, std::string_view path, ValidationBuilder& builder) {
  if (monitor.id.empty()) {
    builder.addError("monitor.emptyID", "Monitor ID must not be empty.", joined(path, ".id"));
  }
  if (isBlank(monitor.name)) {
    builder.addError("monitor.emptyName", "Monitor name must not be empty.", joined(path, ".name"));
  }
  if (isBlank(monitor.deviceUID)) {
    builder.addWarning("monitor.missingDeviceUID", "Monitor has no Core Audio output device UID.",
                       joined(path, ".deviceUID"));
  }
  if (monitor.channelCount < 1) {
    builder.addError("monitor.invalidChannelCount", "Monitor channel count must be positive.",
                     joined(path, ".channelCount"));
  }
  validateGain("monitor", monitor.gain, path, builder);
  validateChannelGains("monitor", monitor.channelGains, monitor.channelCount, path, builder);
}

// Endpoint rules; role is "from" or "to", and the endpoint's path is the wire's path + "." +
// role. Every finding is a warning.
void validate(const WireEndpoint& endpoint, std::string_view role, const DeviceConfig& device,
              const SourceIndex& sources, const MonitorIndex& monitors, std::string_view wirePath,
              ValidationBuilder& builder) {
  auto code = [role](std::string_view problem) { return joined("wire.", role, ".", problem); };
  auto path = [role, wirePath](std::string_view field) {
    return joined(wirePath, ".", role, ".", field);
  };
  if (endpoint.channel < 1) {
    // Nothing else about an endpoint without a usable channel is worth reporting.
    builder.addWarning(code("invalidChannel"),
                       "Wire endpoint channels are one-based and must be positive.",
                       path("channel"));
    return;
  }
  switch (endpoint.kind) {
    case EndpointKind::source:
      if (const auto* source = sources.find(endpoint.ownerID); source == nullptr) {
        builder.addWarning(code("missingSource"), "Wire endpoint refers to a missing source.",
                           path("ownerID"));
      } else if (endpoint.channel > (*source)->channelCount) {
        builder.addWarning(code("sourceChannelOutOfRange"),
                           "Wire endpoint channel exceeds the source channel count.",
                           path("channel"));
      }
      break;
    case EndpointKind::monitor:
      if (const auto* monitor = monitors.find(endpoint.ownerID); monitor == nullptr) {
        builder.addWarning(code("missingMonitor"), "Wire endpoint refers to a missing monitor.",
                           path("ownerID"));
      } else if (endpoint.channel > (*monitor)->channelCount) {
        builder.addWarning(code("monitorChannelOutOfRange"),
                           "Wire endpoint channel exceeds the monitor channel count.",
                           path("channel"));
      }
      break;
    case EndpointKind::deviceOutput:
      if (!unicode::canonicallyEqual(endpoint.ownerID, device.id)) {
        builder.addWarning(code("wrongDeviceOutputOwner"),
                           "Device output endpoint must refer to the containing device.",
                           path("ownerID"));
      }
      if (endpoint.channel > device.channelCount) {
        builder.addWarning(code("deviceChannelOutOfRange"),
                           "Wire endpoint channel exceeds the device channel count.",
                           path("channel"));
      }
      break;
  }
}

void validate(const Wire& wire, const DeviceConfig& device, const SourceIndex& sources,
              const MonitorIndex& monitors, std::string_view path, ValidationBuilder& builder) {
  if (wire.id.empty()) {
    builder.addError("wire.emptyID", "Wire ID must not be empty.", joined(path, ".id"));
  }
  const EndpointKind from = wire.from.kind;
  const EndpointKind to = wire.to.kind;
  if (!(from == EndpointKind::source && to == EndpointKind::deviceOutput) &&
      !(from == EndpointKind::deviceOutput && to == EndpointKind::monitor)) {
    builder.addWarning("wire.invalidDirection",
                       "Wire direction must be source-to-deviceOutput or deviceOutput-to-monitor.",
                       std::string(path));
  }
  validate(wire.from, "from", device, sources, monitors, path, builder);
  validate(wire.to, "to", device, sources, monitors, path, builder);
}

void validate(const DeviceConfig& device, std::string_view path, DeviceIndexes& indexes,
              ValidationBuilder& builder) {
  if (device.id.empty()) {
    builder.addError("device.emptyID", "Device ID must not be empty.", joined(path, ".id"));
  }
  if (isBlank(device.name)) {
    builder.addError("device.emptyName", "Device name must not be empty.", joined(path, ".name"));
  }
  if (isBlank(device.uid)) {
    builder.addError("device.emptyUID", "Device UID must not be empty.", joined(path, ".uid"));
  }
  // Written so that not-a-number counts as not positive rather than slipping through both.
  if (!(device.sampleRate > 0.0)) {
    builder.addError("device.invalidSampleRate", "Sample rate must be positive.",
                     joined(path, ".sampleRate"));
  } else if (device.sampleRate != BrisolaCore::engineSampleRate) {
    builder.addWarning("device.unsupportedSampleRate",
                       "The engine runs at 48 kHz; this sample rate is ignored.",
                       joined(path, ".sampleRate"));
  }
  if (!isInGainRange(device.volume)) {
    builder.addError("device.invalidVolume",
                     "Device volume must be finite and between 0.0 and 2.0.",
                     joined(path, ".volume"));
  }
  // Against the channel count as it stands, valid or not.
  validateChannelGains("device", device.channelGains, device.channelCount, path, builder);
  if (device.channelCount % 2 != 0 || device.channelCount < Limits::minimumChannelCount ||
      device.channelCount > Limits::maximumChannelCount) {
    builder.addError("device.invalidChannelCount",
                     "Channel count must be even and between 2 and 64.",
                     joined(path, ".channelCount"));
  }

  // Built by the duplicate rules, then consulted by the wire endpoints.
  SourceIndex& sources = indexes.sources;
  sources.reset(device.sources.size());
  for (const auto& source : device.sources) {
    indexIdentifier(sources, source.id, &source, "source.duplicateID", path, ".sources", builder);
  }
  MonitorIndex& monitors = indexes.monitors;
  monitors.reset(device.monitors.size());
  for (const auto& monitor : device.monitors) {
    indexIdentifier(monitors, monitor.id, &monitor, "monitor.duplicateID", path, ".monitors",
                    builder);
  }
  indexes.wireIDs.reset(device.wires.size());
  for (const auto& wire : device.wires) {
    indexIdentifier(indexes.wireIDs, wire.id, true, "wire.duplicateID", path, ".wires", builder);
  }

  std::string elementPath;
  for (std::size_t j = 0; j < device.sources.size(); ++j) {
    assignElementPath(elementPath, path, "sources", j);
    validate(device.sources[j], device, elementPath, builder);
  }
  for (std::size_t k = 0; k < device.monitors.size(); ++k) {
    assignElementPath(elementPath, path, "monitors", k);
    validate(device.monitors[k], elementPath, builder);
  }
  for (std::size_t w = 0; w < device.wires.size(); ++w) {
    assignElementPath(elementPath, path, "wires", w);
    validate(device.wires[w], device, sources, monitors, elementPath, builder);
  }
}

void validateSelectedDevice(const ConfigSnapshot& snapshot, ValidationBuilder& builder) {
  if (!snapshot.ui.selectedDeviceID) return;
  const std::string& selected = *snapshot.ui.selectedDeviceID;
  for (const auto& device : snapshot.devices) {
    if (unicode::canonicallyEqual(device.id, selected)) return;
  }
  builder.addWarning("ui.selectedDeviceMissing",
                     "Selected device ID does not refer to a configured device.",
                     "ui.selectedDeviceID");
}

}  // namespace

ValidationResult ConfigValidator::validate(const ConfigSnapshot& snapshot) const {
  ValidationBuilder builder;
  validateSchema(snapshot, builder);
  validateDuplicateDeviceIdentifiers(snapshot, builder);
  DeviceIndexes indexes;
  std::string devicePath;
  for (std::size_t i = 0; i < snapshot.devices.size(); ++i) {
    devicePath.assign("devices[").append(std::to_string(i)).append("]");
    brisola::validate(snapshot.devices[i], devicePath, indexes, builder);
  }
  validateSelectedDevice(snapshot, builder);
  validateNestedDeviceGraph(snapshot, builder);
  return std::move(builder).finish();
}

}  // namespace brisola
