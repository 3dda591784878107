#include "model/config_json.hpp"

#include "model/fast_json.hpp"

namespace brisola {
namespace json {

namespace {

// The record readers, for either node type (see fast_json.hpp).
template <class Node, class Path>
std::optional<std::vector<double>> optionalGains(const BasicObjectReader<Node, Path>& r) {
  return r.optional("channelGains", any::realArray);
}

template <class Node, class Path>
SourceMetadata readMetadata(const Node& value, const Path& path) {
  BasicObjectReader r(value, path);
  return SourceMetadata{
      .bundleIdentifier = r.optional("bundleIdentifier", any::string),
      .pid = r.optional("pid", any::integer<std::int32_t>),
      .processObjectID = r.optional("processObjectID", any::unsigned64),
      .tapUUID = r.optional("tapUUID", any::string),
      .deviceUID = r.optional("deviceUID", any::string),
      .inputBackend = r.optional("inputBackend", any::string),
      .sourceDeviceID = r.optional("sourceDeviceID", any::string),
  };
}

template <class Node, class Path>
WireEndpoint readEndpoint(const Node& value, const Path& path) {
  BasicObjectReader r(value, path);
  return WireEndpoint{
      .kind = r.required("kind", any::enumeration<EndpointKind>),
      .ownerID = r.required("ownerID", any::string),
      .channel = r.required("channel", any::integer<std::int64_t>),
  };
}

template <class Node, class Path>
UIState readUI(const Node& value, const Path& path) {
  BasicObjectReader r(value, path);
  return UIState{
      .selectedDeviceID = r.optional("selectedDeviceID", any::string),
      .appearance = r.required("appearance", any::enumeration<Appearance>),
  };
}

template <class Node, class Path>
SourceConfig readSourceFrom(const Node& value, const Path& path) {
  BasicObjectReader r(value, path);
  // Members are initialised in declaration order, which is the order the keys are read in.
  return SourceConfig{
      .id = r.required("id", any::string),
      .type = r.required("type", any::enumeration<SourceType>),
      .name = r.required("name", any::string),
      .enabled = r.required("enabled", any::boolean),
      .muted = r.required("muted", any::boolean),
      .gain = r.required("gain", any::real),
      .channelGains = optionalGains(r),
      .channelCount = r.required("channelCount", any::integer<std::int64_t>),
      .muteWhenCapturing = r.optional("muteWhenCapturing", any::boolean).value_or(false),
      .metadata =
          r.required("metadata", [](const auto& v, const auto& p) { return readMetadata(v, p); }),
  };
}

template <class Node, class Path>
MonitorConfig readMonitorFrom(const Node& value, const Path& path) {
  BasicObjectReader r(value, path);
  return MonitorConfig{
      .id = r.required("id", any::string),
      .name = r.required("name", any::string),
      .enabled = r.required("enabled", any::boolean),
      .muted = r.required("muted", any::boolean),
      .gain = r.required("gain", any::real),
      .channelGains = optionalGains(r),
      .deviceUID = r.required("deviceUID", any::string),
      .channelCount = r.required("channelCount", any::integer<std::int64_t>),
  };
}

template <class Node, class Path>
Wire readWireFrom(const Node& value, const Path& path) {
  BasicObjectReader r(value, path);
  auto endpoint = [](const auto& v, const auto& p) { return readEndpoint(v, p); };
  return Wire{
      .id = r.required("id", any::string),
      .from = r.required("from", endpoint),
      .to = r.required("to", endpoint),
  };
}

template <class Node, class Path>
DeviceConfig readDeviceFrom(const Node& value, const Path& path) {
  BasicObjectReader r(value, path);
  std::string id = r.required("id", any::string);
  std::string name = r.required("name", any::string);
  bool enabled = r.required("enabled", any::boolean);
  double sampleRate = r.required("sampleRate", any::real);
  std::int64_t channelCount = r.required("channelCount", any::integer<std::int64_t>);
  double volume = r.optional("volume", any::real).value_or(1.0);
  auto channelGains = optionalGains(r);
  std::string uid = r.optional("uid", any::string).value_or(BrisolaCore::derivedDeviceUID(id));
  std::string icon =
      r.optional("icon", any::string).value_or(std::string(BrisolaCore::defaultDeviceIcon));
  auto sources = r.required("sources", [](const auto& v, const auto& p) {
    return any::readArray<SourceConfig>(
        v, p, [](const auto& item, const auto& at) { return readSourceFrom(item, at); });
  });
  auto monitors = r.required("monitors", [](const auto& v, const auto& p) {
    return any::readArray<MonitorConfig>(
        v, p, [](const auto& item, const auto& at) { return readMonitorFrom(item, at); });
  });
  auto wires = r.required("wires", [](const auto& v, const auto& p) {
    return any::readArray<Wire>(
        v, p, [](const auto& item, const auto& at) { return readWireFrom(item, at); });
  });
  return DeviceConfig{
      .id = std::move(id),
      .name = std::move(name),
      .enabled = enabled,
      .sampleRate = sampleRate,
      .channelCount = channelCount,
      .volume = volume,
      .channelGains = std::move(channelGains),
      .uid = std::move(uid),
      .icon = std::move(icon),
      .sources = std::move(sources),
      .monitors = std::move(monitors),
      .wires = std::move(wires),
  };
}

template <class Node, class Path>
ConfigSnapshot readSnapshotFrom(const Node& value, const Path& path) {
  BasicObjectReader r(value, path);
  return ConfigSnapshot{
      .schemaVersion = r.required("schemaVersion", any::integer<std::int64_t>),
      .devices = r.required("devices",
                            [](const auto& v, const auto& p) {
                              return any::readArray<DeviceConfig>(
                                  v, p, [](const auto& item, const auto& at) {
                                    return readDeviceFrom(item, at);
                                  });
                            }),
      .ui = r.required("ui", [](const auto& v, const auto& p) { return readUI(v, p); }),
  };
}

// The fast way first; the nlohmann way when it does not accept the bytes.
template <class T, class Read>
T decodeRecord(std::string_view bytes, Read read) {
  if (auto fast = decodeFast<T>(bytes, [&](const FastNode& root) { return read(root, NoPath{}); }))
    return std::move(*fast);
  return read(parse(bytes), std::string());
}

template <class T>
Json listToJSON(const std::vector<T>& values) {
  Json array = Json::array();
  for (const auto& value : values) array.push_back(toJSON(value));
  return array;
}

}  // namespace

Json toJSON(const SourceMetadata& value) {
  Json object = Json::object();
  putOptional(object, "bundleIdentifier", value.bundleIdentifier);
  putOptional(object, "pid", value.pid);
  putOptional(object, "processObjectID", value.processObjectID);
  putOptional(object, "tapUUID", value.tapUUID);
  putOptional(object, "deviceUID", value.deviceUID);
  putOptional(object, "inputBackend", value.inputBackend);
  putOptional(object, "sourceDeviceID", value.sourceDeviceID);
  return object;
}

SourceConfig readSource(const Json& value, const std::string& path) {
  return readSourceFrom(value, path);
}

MonitorConfig readMonitor(const Json& value, const std::string& path) {
  return readMonitorFrom(value, path);
}

Wire readWire(const Json& value, const std::string& path) {
  return readWireFrom(value, path);
}

DeviceConfig readDevice(const Json& value, const std::string& path) {
  return readDeviceFrom(value, path);
}

std::optional<ConfigSnapshot> decodeSnapshotFast(std::string_view bytes) {
  return decodeFast<ConfigSnapshot>(
      bytes, [](const FastNode& root) { return readSnapshotFrom(root, NoPath{}); });
}

ConfigSnapshot readSnapshot(const Json& value, const std::string& path) {
  return readSnapshotFrom(value, path);
}

Json toJSON(const WireEndpoint& value) {
  return Json{
      {"kind", writeEnum(value.kind)}, {"ownerID", value.ownerID}, {"channel", value.channel}};
}

Json toJSON(const Wire& value) {
  return Json{{"id", value.id}, {"from", toJSON(value.from)}, {"to", toJSON(value.to)}};
}

Json toJSON(const SourceConfig& value) {
  Json object{{"id", value.id},           {"type", writeEnum(value.type)}, {"name", value.name},
              {"enabled", value.enabled}, {"muted", value.muted},          {"gain", value.gain}};
  putOptional(object, "channelGains", value.channelGains);
  object["channelCount"] = value.channelCount;
  object["muteWhenCapturing"] = value.muteWhenCapturing;
  object["metadata"] = toJSON(value.metadata);
  return object;
}

Json toJSON(const MonitorConfig& value) {
  Json object{{"id", value.id},
              {"name", value.name},
              {"enabled", value.enabled},
              {"muted", value.muted},
              {"gain", value.gain}};
  putOptional(object, "channelGains", value.channelGains);
  object["deviceUID"] = value.deviceUID;
  object["channelCount"] = value.channelCount;
  return object;
}

Json toJSON(const DeviceConfig& value) {
  Json object{{"id", value.id},
              {"name", value.name},
              {"enabled", value.enabled},
              {"sampleRate", value.sampleRate},
              {"channelCount", value.channelCount},
              {"volume", value.volume}};
  putOptional(object, "channelGains", value.channelGains);
  object["uid"] = value.uid;
  object["icon"] = value.icon;
  object["sources"] = listToJSON(value.sources);
  object["monitors"] = listToJSON(value.monitors);
  object["wires"] = listToJSON(value.wires);
  return object;
}

Json toJSON(const ConfigSnapshot& value) {
  Json ui{{"appearance", writeEnum(value.ui.appearance)}};
  putOptional(ui, "selectedDeviceID", value.ui.selectedDeviceID);
  return Json{{"schemaVersion", value.schemaVersion},
              {"devices", listToJSON(value.devices)},
              {"ui", std::move(ui)}};
}

}  // namespace json

std::string encodeJSON(const ConfigSnapshot& snapshot) {
  return json::dump(json::toJSON(snapshot));
}

std::string encodeJSON(const DeviceConfig& device) {
  return json::dump(json::toJSON(device));
}
std::string encodeJSON(const SourceConfig& source) {
  return json::dump(json::toJSON(source));
}
std::string encodeJSON(const MonitorConfig& monitor) {
  return json::dump(json::toJSON(monitor));
}
std::string encodeJSON(const Wire& wire) {
  return json::dump(json::toJSON(wire));
}
std::string encodeJSON(const std::vector<DeviceConfig>& devices) {
  return json::dump(json::listToJSON(devices));
}
std::string encodeJSON(const std::vector<SourceConfig>& sources) {
  return json::dump(json::listToJSON(sources));
}
std::string encodeJSON(const std::vector<MonitorConfig>& monitors) {
  return json::dump(json::listToJSON(monitors));
}
std::string encodeJSON(const std::vector<Wire>& wires) {
  return json::dump(json::listToJSON(wires));
}

DeviceConfig decodeJSON(std::string_view bytes, JSONTag<DeviceConfig>) {
  return json::decodeRecord<DeviceConfig>(
      bytes, [](const auto& root, const auto& path) { return json::readDeviceFrom(root, path); });
}

SourceConfig decodeJSON(std::string_view bytes, JSONTag<SourceConfig>) {
  return json::decodeRecord<SourceConfig>(
      bytes, [](const auto& root, const auto& path) { return json::readSourceFrom(root, path); });
}

MonitorConfig decodeJSON(std::string_view bytes, JSONTag<MonitorConfig>) {
  return json::decodeRecord<MonitorConfig>(
      bytes, [](const auto& root, const auto& path) { return json::readMonitorFrom(root, path); });
}

Wire decodeJSON(std::string_view bytes, JSONTag<Wire>) {
  return json::decodeRecord<Wire>(
      bytes, [](const auto& root, const auto& path) { return json::readWireFrom(root, path); });
}

ConfigSnapshot decodeJSON(std::string_view bytes, JSONTag<ConfigSnapshot>) {
  return json::decodeRecord<ConfigSnapshot>(
      bytes, [](const auto& root, const auto& path) { return json::readSnapshotFrom(root, path); });
}

}  // namespace brisola
