#include "brisola/ipc/exchange_records.hpp"
#include "model/json_support.hpp"
#include "validation/validation_json.hpp"

namespace brisola {
namespace json {
// External linkage on purpose: qualified calls from brisola:: must see these beside the
// validation forms.

Json toJSON(const DeviceTemplate& value) {
  return Json{
      {"name", value.name}, {"sampleRate", value.sampleRate}, {"channelCount", value.channelCount}};
}

Json toJSON(const HealthReport& value) {
  return Json{{"agentVersion", value.agentVersion},
              {"minimumSupportedOS", value.minimumSupportedOS},
              {"configURL", value.configURL},
              {"deviceCount", value.deviceCount},
              {"validation", json::toJSON(value.validation)},
              {"audioCapturePermission", writeEnum(value.audioCapturePermission)},
              {"microphonePermission", writeEnum(value.microphonePermission)},
              {"halDriverLoaded", value.halDriverLoaded}};
}

Json toJSON(const ApplicationSourceCandidate& value) {
  Json object{{"displayName", value.displayName}};
  putOptional(object, "bundleIdentifier", value.bundleIdentifier);
  putOptional(object, "pid", value.pid);
  putOptional(object, "processObjectID", value.processObjectID);
  return object;
}

Json toJSON(const AudioDeviceInfo& value) {
  Json object{{"uid", value.uid},
              {"name", value.name},
              {"channelCount", value.channelCount},
              {"isDefault", value.isDefault}};
  putOptional(object, "channelNames", value.channelNames);
  return object;
}

template <class T>
Json listToJSON(const std::vector<T>& values) {
  Json array = Json::array();
  for (const auto& value : values) array.push_back(toJSON(value));
  return array;
}

Json toJSON(const AudioDeviceInventory& value) {
  return Json{{"inputs", listToJSON(value.inputs)}, {"outputs", listToJSON(value.outputs)}};
}

Json toJSON(const InstallResult& value) {
  return Json{{"succeeded", value.succeeded}, {"message", value.message}};
}

DeviceTemplate readTemplate(const Json& value, const std::string& path) {
  ObjectReader r(value, path);
  return DeviceTemplate{
      .name = r.required("name", readString),
      .sampleRate = r.required("sampleRate", readReal),
      .channelCount = r.required("channelCount", readInteger<std::int64_t>),
  };
}

HealthReport readHealthReport(const Json& value, const std::string& path) {
  ObjectReader r(value, path);
  return HealthReport{
      .agentVersion = r.required("agentVersion", readString),
      .minimumSupportedOS = r.required("minimumSupportedOS", readString),
      .configURL = r.required("configURL", readString),
      .deviceCount = r.required("deviceCount", readInteger<std::int64_t>),
      .validation = r.required("validation", readValidationResult),
      .audioCapturePermission = r.required("audioCapturePermission", readEnum<PermissionStatus>),
      .microphonePermission = r.required("microphonePermission", readEnum<PermissionStatus>),
      .halDriverLoaded = r.required("halDriverLoaded", readBool),
  };
}

ApplicationSourceCandidate readCandidate(const Json& value, const std::string& path) {
  ObjectReader r(value, path);
  return ApplicationSourceCandidate{
      .displayName = r.required("displayName", readString),
      .bundleIdentifier = r.optional("bundleIdentifier", readString),
      .pid = r.optional("pid", readInteger<std::int32_t>),
      .processObjectID = r.optional("processObjectID", readUnsigned64),
  };
}

AudioDeviceInfo readDeviceInfo(const Json& value, const std::string& path) {
  ObjectReader r(value, path);
  return AudioDeviceInfo{
      .uid = r.required("uid", readString),
      .name = r.required("name", readString),
      .channelCount = r.required("channelCount", readInteger<std::int64_t>),
      .isDefault = r.required("isDefault", readBool),
      .channelNames = r.optional("channelNames",
                                 [](const Json& v, const std::string& p) {
                                   return readArray<std::string>(v, p, readString);
                                 }),
  };
}

AudioDeviceInventory readInventory(const Json& value, const std::string& path) {
  auto readInfos = [](const Json& v, const std::string& p) {
    return readArray<AudioDeviceInfo>(v, p, readDeviceInfo);
  };
  ObjectReader r(value, path);
  return AudioDeviceInventory{
      .inputs = r.required("inputs", readInfos),
      .outputs = r.required("outputs", readInfos),
  };
}

InstallResult readInstallResult(const Json& value, const std::string& path) {
  ObjectReader r(value, path);
  return InstallResult{
      .succeeded = r.required("succeeded", readBool),
      .message = r.required("message", readString),
  };
}

}  // namespace json

std::string encodeJSON(const DeviceTemplate& value) {
  return json::dump(json::toJSON(value));
}
std::string encodeJSON(PermissionStatus value) {
  return json::dump(json::writeEnum(value));
}
std::string encodeJSON(const HealthReport& value) {
  return json::dump(json::toJSON(value));
}
std::string encodeJSON(const ApplicationSourceCandidate& value) {
  return json::dump(json::toJSON(value));
}
std::string encodeJSON(const std::vector<ApplicationSourceCandidate>& value) {
  return json::dump(json::listToJSON(value));
}
std::string encodeJSON(const AudioDeviceInfo& value) {
  return json::dump(json::toJSON(value));
}
std::string encodeJSON(const AudioDeviceInventory& value) {
  return json::dump(json::toJSON(value));
}
std::string encodeJSON(const InstallResult& value) {
  return json::dump(json::toJSON(value));
}

DeviceTemplate decodeJSON(std::string_view bytes, JSONTag<DeviceTemplate>) {
  return json::readTemplate(json::parse(bytes), "");
}
PermissionStatus decodeJSON(std::string_view bytes, JSONTag<PermissionStatus>) {
  return json::readEnum<PermissionStatus>(json::parse(bytes), "");
}
HealthReport decodeJSON(std::string_view bytes, JSONTag<HealthReport>) {
  return json::readHealthReport(json::parse(bytes), "");
}
ApplicationSourceCandidate decodeJSON(std::string_view bytes, JSONTag<ApplicationSourceCandidate>) {
  return json::readCandidate(json::parse(bytes), "");
}
std::vector<ApplicationSourceCandidate> decodeJSON(
    std::string_view bytes, JSONTag<std::vector<ApplicationSourceCandidate>>) {
  return json::readArray<ApplicationSourceCandidate>(json::parse(bytes), "", json::readCandidate);
}
AudioDeviceInfo decodeJSON(std::string_view bytes, JSONTag<AudioDeviceInfo>) {
  return json::readDeviceInfo(json::parse(bytes), "");
}
AudioDeviceInventory decodeJSON(std::string_view bytes, JSONTag<AudioDeviceInventory>) {
  return json::readInventory(json::parse(bytes), "");
}
InstallResult decodeJSON(std::string_view bytes, JSONTag<InstallResult>) {
  return json::readInstallResult(json::parse(bytes), "");
}

}  // namespace brisola
