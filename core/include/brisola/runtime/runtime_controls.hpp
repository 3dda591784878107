#pragma once

// The live control values of one virtual device, as the driver plug-in applies them.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "brisola/model/json_coding.hpp"
#include "brisola/model/limits.hpp"
#include "brisola/runtime/route_map.hpp"

namespace brisola {

struct RuntimeDeviceControls {
  std::string uid;
  std::string name;
  std::string icon;
  std::int64_t channelCount = Limits::minimumChannelCount;
  bool deviceEnabled = false;
  float deviceGain = 1.0f;
  std::vector<float> channelGains = std::vector<float>(Limits::channelSlotCount, 1.0f);
  bool sourceEnabled = false;
  bool muted = false;
  float sourceGain = 1.0f;
  std::vector<RuntimeChannelRoute> routes;

  // A normalised record with empty texts; the JSON decoder fills its fields as they stand.
  RuntimeDeviceControls() = default;

  // Normalises: channel count made even (toward zero) and clamped to 2...64; both gains and
  // every channel gain sanitised; channel gains cut or padded with 1.0 to exactly 64; routes
  // cut to the first 128. Texts and route values are kept as given.
  RuntimeDeviceControls(std::string uid, std::string name, std::string icon,
                        std::int64_t channelCount, bool deviceEnabled, float deviceGain,
                        std::vector<float> channelGains, bool sourceEnabled, bool muted,
                        float sourceGain, std::vector<RuntimeChannelRoute> routes);

  bool operator==(const RuntimeDeviceControls&) const = default;

  // What a document's device hands the audio path: its enabled state, volume, channel gains
  // and channel count, and the controls and routes of its first pass-thru source (without one:
  // enabled, unmuted, unity, the stereo map).
  static RuntimeDeviceControls of(const DeviceConfig& device);
  // One record per device, at most the control block's 16, in document order.
  static std::vector<RuntimeDeviceControls> forDocument(const ConfigSnapshot& snapshot);

  // Narrowed to a float (narrowedToFloat), then non-finite becomes 1.0 and the rest is clamped
  // to 0...2 (−0.0 becomes +0.0).
  static float sanitizedGain(double gain);
  // Made even toward zero (5 → 4, −5 → −4), then clamped to 2...64.
  static std::int64_t normalizedChannelCount(std::int64_t channelCount);
};

// The float nearest to `value`; values beyond the float range become infinite (a plain
// conversion of them is undefined behaviour).
float narrowedToFloat(double value);

// All keys required on decoding; decoding keeps the values as they stand (no normalising).
std::string encodeJSON(const RuntimeDeviceControls& controls);
RuntimeDeviceControls decodeJSON(std::string_view bytes, JSONTag<RuntimeDeviceControls>);
std::string encodeJSON(const std::vector<RuntimeDeviceControls>& controls);

}  // namespace brisola
