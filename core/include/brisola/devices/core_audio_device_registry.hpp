#pragma once

// The library's view of the audio devices and capturable applications present right now.
// Nothing is cached and nothing fails: a query the hardware layer refuses leaves out the
// device or value it was for.
//
// Every operation comes in two forms: one that runs against a given hardware view, and one
// that takes a single fresh view of HardwareBackend::current() and runs all its queries
// against it.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "brisola/devices/hardware_layer.hpp"
#include "brisola/ipc/exchange_records.hpp"
#include "brisola/model/json_coding.hpp"

namespace brisola {

// One of the product's own devices.
struct HALDeviceSummary {
  std::string uid;
  std::string name;
  std::int64_t inputChannelCount = 0;
  std::int64_t outputChannelCount = 0;
  bool operator==(const HALDeviceSummary&) const = default;
};

std::string encodeJSON(const HALDeviceSummary& value);
std::string encodeJSON(const std::vector<HALDeviceSummary>& value);
HALDeviceSummary decodeJSON(std::string_view bytes, JSONTag<HALDeviceSummary>);
std::vector<HALDeviceSummary> decodeJSON(std::string_view bytes,
                                         JSONTag<std::vector<HALDeviceSummary>>);

class CoreAudioDeviceRegistry {
 public:
  CoreAudioDeviceRegistry() = delete;

  // The UID of every device whose UID reads, in the hardware layer's order.
  static std::vector<std::string> allDeviceUIDs(const HardwareLayer& layer);
  static std::vector<std::string> allDeviceUIDs();

  static bool containsDevice(const HardwareLayer& layer, std::string_view uid);
  static bool containsDevice(std::string_view uid);

  // The pass-thru device's UID, or a UID that begins with a product device prefix.
  static bool isBrisolaDeviceUID(std::string_view uid);

  // The product's devices with their channel counts (zeros included), sorted by UID in
  // Unicode scalar order.
  static std::vector<HALDeviceSummary> brisolaDeviceSummaries(const HardwareLayer& layer);
  static std::vector<HALDeviceSummary> brisolaDeviceSummaries();

  // The product's driver plug-in translates to a real plug-in object.
  static bool halPlugInIsLoaded(const HardwareLayer& layer);
  static bool halPlugInIsLoaded();

  static bool passThruDeviceIsLoaded(const HardwareLayer& layer);
  static bool passThruDeviceIsLoaded();

  // The most channels counted for a device in one scope: a hostile description (4294967295
  // channels) would otherwise have the registry name billions of channels.
  static constexpr std::int64_t maximumChannelCount = 4096;

  // Devices with input channels and devices with output channels, each list with the system
  // default first, then in file-browser order of names.
  static AudioDeviceInventory deviceInventory(const HardwareLayer& layer);
  static AudioDeviceInventory deviceInventory();

  // Running ordinary applications that play audio, without helpers, extensions, daemons and
  // agents, in file-browser order of display names.
  static std::vector<ApplicationSourceCandidate> applicationSourceCandidates(
      const HardwareLayer& layer);
  static std::vector<ApplicationSourceCandidate> applicationSourceCandidates();

 private:
  static std::vector<AudioObjectID> allObjectIDs(const HardwareLayer& layer,
                                                 AudioObjectPropertySelector selector);
  static std::vector<AudioObjectID> allDeviceIDs(const HardwareLayer& layer);
  static std::optional<std::string> readString(const HardwareLayer& layer, AudioObjectID object,
                                               const AudioObjectPropertyAddress& address);
  static std::optional<AudioObjectID> defaultDevice(const HardwareLayer& layer,
                                                    AudioObjectPropertySelector selector);
  static std::int64_t channelCount(const HardwareLayer& layer, AudioObjectID device,
                                   AudioObjectPropertyScope scope);
  static std::optional<std::vector<std::string>> channelNames(const HardwareLayer& layer,
                                                              AudioObjectID device,
                                                              AudioObjectPropertyScope scope,
                                                              std::int64_t channelCount);
  static bool shouldShowApplicationSourceCandidate(
      const std::optional<RunningApplication>& application,
      const std::optional<std::string>& bundleID, std::string_view displayName);
  static bool isSuppressedApplicationSourceName(std::string_view name);
  static bool isSuppressedApplicationSourceBundleID(const std::optional<std::string>& bundleID);
};

}  // namespace brisola
