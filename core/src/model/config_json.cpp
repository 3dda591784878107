#include "model/config_json.hpp"

namespace brisola {
namespace json {

namespace {

std::optional<std::vector<double>> optionalGains(const ObjectReader& r) {
  return r.optional("channelGains", readRealArray);
}

SourceMetadata readMetadata(const Json& value, const std::string& path) {
  ObjectReader r(value, path);
  return SourceMetadata{
      .bundleIdentifier = r.optional("bundleIdentifier", readString),
      .pid = r.optional("pid", readInteger<std::int32_t>),
      .processObjectID = r.optional("processObjectID", readUnsigned64),
      .tapUUID = r.optional("tapUUID", readString),
      .deviceUID = r.optional("deviceUID", readString),
      .inputBackend = r.optional("inputBackend", readString),
      .sourceDeviceID = r.optional("sourceDeviceID", readString),
  };
}

WireEndpoint readEndpoint(const Json& value, const std::string& path) {
  ObjectReader r(value, path);
  return WireEndpoint{
      .kind = r.required("kind", readEnum<EndpointKind>),
      .ownerID = r.required("ownerID", readString),
      .channel = r.required("channel", readInteger<std::int64_t>),
  };
}

UIState readUI(const Json& value, const std::string& path) {
  ObjectReader r(value, path);
  return UIState{
      .selectedDeviceID = r.optional("selectedDeviceID", readString),
      .appearance = r.required("appearance", readEnum<Appearance>),
  };
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
  ObjectReader r(value, path);
  // Members are initialised in declaration order, which is the order the keys are read in.
  return SourceConfig{
      .id = r.required("id", readString),
      .type = r.required("type", readEnum<SourceType>),
      .name = r.required("name", readString),
      .enabled = r.required("enabled", readBool),
      .muted = r.required("muted", readBool),
      .gain = r.required("gain", readReal),
      .channelGains = optionalGains(r),
      .channelCount = r.required("channelCount", readInteger<std::int64_t>),
      .muteWhenCapturing = r.optional("muteWhenCapturing", readBool).value_or(false),
      .metadata = r.required("metadata", readMetadata),
  };
}

MonitorConfig readMonitor(const Json& value, const std::string& path) {
  ObjectReader r(value, path);
  return MonitorConfig{
      .id = r.required("id", readString),
      .name = r.required("name", readString),
      .enabled = r.required("enabled", readBool),
      .muted = r.required("muted", readBool),
      .gain = r.required("gain", readReal),
      .channelGains = optionalGains(r),
      .deviceUID = r.required("deviceUID", readString),
      .channelCount = r.required("channelCount", readInteger<std::int64_t>),
  };
}

Wire readWire(const Json& value, const std::string& path) {
  ObjectReader r(value, path);
  return Wire{
      .id = r.required("id", readString),
      .from = r.required("from", readEndpoint),
      .to = r.required("to", readEndpoint),
  };
}

DeviceConfig readDevice(const Json& value, const std::string& path) {
  ObjectReader r(value, path);
  std::string id = r.required("id", readString);
  std::string name = r.required("name", readString);
  bool enabled = r.required("enabled", readBool);
  double sampleRate = r.required("sampleRate", readReal);
  std::int64_t channelCount = r.required("channelCount", readInteger<std::int64_t>);
  double volume = r.optional("volume", readReal).value_or(1.0);
  auto channelGains = optionalGains(r);
  std::string uid = r.optional("uid", readString).value_or(BrisolaCore::derivedDeviceUID(id));
  std::string icon =
      r.optional("icon", readString).value_or(std::string(BrisolaCore::defaultDeviceIcon));
  auto sources = r.required("sources", [](const Json& v, const std::string& p) {
    return readArray<SourceConfig>(v, p, readSource);
  });
  auto monitors = r.required("monitors", [](const Json& v, const std::string& p) {
    return readArray<MonitorConfig>(v, p, readMonitor);
  });
  auto wires = r.required(
      "wires", [](const Json& v, const std::string& p) { return readArray<Wire>(v, p, readWire); });
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

ConfigSnapshot readSnapshot(const Json& value, const std::string& path) {
  ObjectReader r(value, path);
  return ConfigSnapshot{
      .schemaVersion = r.required("schemaVersion", readInteger<std::int64_t>),
      .devices = r.required("devices",
                            [](const Json& v, const std::string& p) {
                              return readArray<DeviceConfig>(v, p, readDevice);
                            }),
      .ui = r.required("ui", readUI),
  };
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

DeviceConfig decodeJSON(std::string_view bytes, JSONTag<DeviceConfig>) {
  return json::readDevice(json::parse(bytes), "");
}

SourceConfig decodeJSON(std::string_view bytes, JSONTag<SourceConfig>) {
  return json::readSource(json::parse(bytes), "");
}

MonitorConfig decodeJSON(std::string_view bytes, JSONTag<MonitorConfig>) {
  return json::readMonitor(json::parse(bytes), "");
}

Wire decodeJSON(std::string_view bytes, JSONTag<Wire>) {
  return json::readWire(json::parse(bytes), "");
}

ConfigSnapshot decodeJSON(std::string_view bytes, JSONTag<ConfigSnapshot>) {
  return json::readSnapshot(json::parse(bytes), "");
}

}  // namespace brisola
