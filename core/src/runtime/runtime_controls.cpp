#include "brisola/runtime/runtime_controls.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
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
  channelGains.resize(std::min(channelGains.size(), Limits::channelSlotCount));
  for (float& gain : channelGains) gain = sanitizedGain(gain);
  channelGains.resize(Limits::channelSlotCount, 1.0f);
  if (routes.size() > Limits::maximumRouteCount) routes.resize(Limits::maximumRouteCount);
}

namespace {
const SourceConfig* passThruSource(const DeviceConfig& device) {
  auto found = std::find_if(device.sources.begin(), device.sources.end(),
                            [](const SourceConfig& s) { return s.type == SourceType::passThru; });
  return found == device.sources.end() ? nullptr : &*found;
}
}  // namespace

RuntimeDeviceControls RuntimeDeviceControls::of(const DeviceConfig& device) {
  // Narrowed only: the constructor sanitises every gain.
  std::vector<float> gains;
  if (device.channelGains) {
    const std::size_t count = std::min(device.channelGains->size(), Limits::channelSlotCount);
    gains.reserve(count);
    for (std::size_t k = 0; k < count; ++k) {
      gains.push_back(narrowedToFloat((*device.channelGains)[k]));
    }
  }
  const SourceConfig* source = passThruSource(device);
  return RuntimeDeviceControls(
      device.uid, device.name, device.icon, device.channelCount, device.enabled,
      narrowedToFloat(device.volume), std::move(gains), source == nullptr || source->enabled,
      source != nullptr && source->muted, source == nullptr ? 1.0f : narrowedToFloat(source->gain),
      // The default stereo map only without any pass-thru source; a pass-thru source without
      // wires gets no routes.
      source == nullptr ? RuntimeRouteMap::defaultStereoRoutes()
                        : RuntimeRouteMap::sourceRoutes(source->id, device, device.channelCount));
}

std::vector<RuntimeDeviceControls> RuntimeDeviceControls::forDocument(
    const ConfigSnapshot& snapshot) {
  const std::size_t count = std::min(snapshot.devices.size(), Limits::maximumDeviceCount);
  std::vector<RuntimeDeviceControls> result;
  result.reserve(count);
  for (std::size_t i = 0; i < count; ++i) result.push_back(of(snapshot.devices[i]));
  return result;
}

std::int64_t RuntimeDeviceControls::normalizedChannelCount(std::int64_t count) {
  // The remainder has the sign of the value, so odd counts move toward zero.
  return std::clamp<std::int64_t>(count - count % 2, Limits::minimumChannelCount,
                                  Limits::maximumChannelCount);
}

float narrowedToFloat(double value) {
  if (std::isnan(value)) return std::numeric_limits<float>::quiet_NaN();
  if (std::fabs(value) > std::numeric_limits<float>::max()) {
    return value > 0 ? std::numeric_limits<float>::infinity()
                     : -std::numeric_limits<float>::infinity();
  }
  return static_cast<float>(value);
}

float RuntimeDeviceControls::sanitizedGain(double wide) {
  const float gain = narrowedToFloat(wide);
  if (!std::isfinite(gain)) return 1.0f;
  constexpr auto minimum = static_cast<float>(Limits::minimumGain);
  constexpr auto maximum = static_cast<float>(Limits::maximumGain);
  if (gain <= minimum) return minimum;  // −0.0 too
  if (gain > maximum) return maximum;
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
  return narrowedToFloat(readFloat(value, path));
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
