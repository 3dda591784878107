#include "brisola/runtime/runtime_controls.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <system_error>

#include "model/json_support.hpp"

namespace brisola {

RuntimeDeviceControls::RuntimeDeviceControls(std::string uid_, std::string name_, std::string icon_,
                                             std::int64_t channelCount_, bool deviceEnabled_,
                                             float deviceGain_, std::vector<float> channelGains_,
                                             bool sourceEnabled_, bool muted_, float sourceGain_,
                                             std::vector<RuntimeChannelRoute> routes_)
    : uid(std::move(uid_)),
      name(std::move(name_)),
      icon(std::move(icon_)),
      channelCount(normalizedChannelCount(channelCount_)),
      deviceEnabled(deviceEnabled_),
      deviceGain(sanitizedGain(deviceGain_)),
      channelGains(std::move(channelGains_)),
      sourceEnabled(sourceEnabled_),
      muted(muted_),
      sourceGain(sanitizedGain(sourceGain_)),
      routes(std::move(routes_)) {
  channelGains.resize(std::min(channelGains.size(), channelGainCount));
  for (float& gain : channelGains) gain = sanitizedGain(gain);
  channelGains.resize(channelGainCount, 1.0f);
  if (routes.size() > maximumRouteCount) routes.resize(maximumRouteCount);
}

std::int64_t RuntimeDeviceControls::normalizedChannelCount(std::int64_t count) {
  // The remainder has the sign of the value, so odd counts move toward zero.
  return std::clamp<std::int64_t>(count - count % 2, minimumChannelCount, maximumChannelCount);
}

float RuntimeDeviceControls::sanitizedGain(float gain) {
  if (!std::isfinite(gain)) return 1.0f;
  if (gain <= 0.0f) return 0.0f;
  if (gain > 2.0f) return 2.0f;
  return gain;
}

namespace json {

namespace {

// A float as the shortest decimal that reads back as the same float, so 0.1f is written
// "0.1" rather than the digits of its widened double.
Json floatToJSON(float value) {
  if (!std::isfinite(value)) return static_cast<double>(value);  // refused by the encoder
  char buffer[32];
  auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, value);
  double widened = value;
  if (error == std::errc()) std::from_chars(buffer, end, widened);
  return widened;
}

float readFloat32(const Json& value, const std::string& path) {
  return static_cast<float>(readFloat(value, path));
}

Json routeToJSON(const RuntimeChannelRoute& route) {
  return Json{{"sourceChannel", route.sourceChannel}, {"outputChannel", route.outputChannel}};
}

RuntimeChannelRoute readRoute(const Json& value, const std::string& path) {
  ObjectReader r(value, path);
  return RuntimeChannelRoute{
      .sourceChannel = r.required("sourceChannel", readInteger<std::int64_t>),
      .outputChannel = r.required("outputChannel", readInteger<std::int64_t>),
  };
}

Json controlsToJSON(const RuntimeDeviceControls& value) {
  Json gains = Json::array();
  for (float gain : value.channelGains) gains.push_back(floatToJSON(gain));
  Json routes = Json::array();
  for (const auto& route : value.routes) routes.push_back(routeToJSON(route));
  return Json{{"uid", value.uid},
              {"name", value.name},
              {"icon", value.icon},
              {"channelCount", value.channelCount},
              {"deviceEnabled", value.deviceEnabled},
              {"deviceGain", floatToJSON(value.deviceGain)},
              {"channelGains", std::move(gains)},
              {"sourceEnabled", value.sourceEnabled},
              {"muted", value.muted},
              {"sourceGain", floatToJSON(value.sourceGain)},
              {"routes", std::move(routes)}};
}

RuntimeDeviceControls readControls(const Json& value, const std::string& path) {
  ObjectReader r(value, path);
  RuntimeDeviceControls controls;
  controls.uid = r.required("uid", readString);
  controls.name = r.required("name", readString);
  controls.icon = r.required("icon", readString);
  controls.channelCount = r.required("channelCount", readInteger<std::int64_t>);
  controls.deviceEnabled = r.required("deviceEnabled", readBool);
  controls.deviceGain = r.required("deviceGain", readFloat32);
  controls.channelGains = r.required("channelGains", [](const Json& v, const std::string& p) {
    return readArray<float>(v, p, readFloat32);
  });
  controls.sourceEnabled = r.required("sourceEnabled", readBool);
  controls.muted = r.required("muted", readBool);
  controls.sourceGain = r.required("sourceGain", readFloat32);
  controls.routes = r.required("routes", [](const Json& v, const std::string& p) {
    return readArray<RuntimeChannelRoute>(v, p, readRoute);
  });
  return controls;
}

}  // namespace

}  // namespace json

std::string encodeJSON(const RuntimeChannelRoute& route) {
  return json::dump(json::routeToJSON(route));
}

RuntimeChannelRoute decodeJSON(std::string_view bytes, JSONTag<RuntimeChannelRoute>) {
  return json::readRoute(json::parse(bytes), "");
}

std::string encodeJSON(const RuntimeDeviceControls& controls) {
  return json::dump(json::controlsToJSON(controls));
}

RuntimeDeviceControls decodeJSON(std::string_view bytes, JSONTag<RuntimeDeviceControls>) {
  return json::readControls(json::parse(bytes), "");
}

std::string encodeJSON(const std::vector<RuntimeDeviceControls>& controls) {
  json::Json list = json::Json::array();
  for (const auto& entry : controls) list.push_back(json::controlsToJSON(entry));
  return json::dump(list);
}

}  // namespace brisola
