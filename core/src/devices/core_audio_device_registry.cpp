#include "brisola/devices/core_audio_device_registry.hpp"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <span>

#include "brisola/model/config.hpp"
#include "brisola/platform/unicode.hpp"
#include "model/json_support.hpp"

namespace brisola {

namespace {

constexpr std::array<std::string_view, 2> productDevicePrefixes{"app.brisola.device.",
                                                                "dev.kestrine.device."};

constexpr std::array<std::string_view, 11> suppressedNameFragments{
    " helper", " helper ", " helper(", ".helper", "serviceextension", " extension", ".appex",
    " daemon", ".daemon",  " agent",   ".agent"};

constexpr std::array<std::string_view, 5> suppressedBundleIDFragments{
    ".helper", ".serviceextension", ".appex", ".daemon", ".agent"};

bool containsAny(std::string_view text, std::span<const std::string_view> fragments) {
  return std::any_of(fragments.begin(), fragments.end(), [text](std::string_view fragment) {
    return text.find(fragment) != std::string_view::npos;
  });
}

std::uint32_t loadUInt32(const std::vector<std::byte>& bytes, std::size_t offset) {
  std::uint32_t value = 0;
  std::memcpy(&value, bytes.data() + offset, sizeof value);
  return value;
}

std::unique_ptr<HardwareLayer> currentSnapshot() {
  return HardwareBackend::current()->snapshot();
}

}  // namespace

std::vector<AudioObjectID> CoreAudioDeviceRegistry::allObjectIDs(
    const HardwareLayer& layer, AudioObjectPropertySelector selector) {
  const AudioObjectPropertyAddress address{.mSelector = selector};
  std::uint32_t size = 0;
  if (layer.getPropertyDataSize(kAudioObjectSystemObject, address, nullptr, size) !=
          kAudioHardwareNoError ||
      size < sizeof(AudioObjectID)) {
    return {};
  }
  std::vector<AudioObjectID> ids(size / sizeof(AudioObjectID), kAudioObjectUnknown);
  std::uint32_t ioSize = static_cast<std::uint32_t>(ids.size() * sizeof(AudioObjectID));
  if (layer.getPropertyData(kAudioObjectSystemObject, address, nullptr, ioSize, ids.data()) !=
      kAudioHardwareNoError) {
    return {};
  }
  // The list may have shrunk between the two queries.
  ids.resize(std::min<std::size_t>(ids.size(), ioSize / sizeof(AudioObjectID)));
  return ids;
}

std::vector<AudioObjectID> CoreAudioDeviceRegistry::allDeviceIDs(const HardwareLayer& layer) {
  return allObjectIDs(layer, kAudioHardwarePropertyDevices);
}

std::optional<std::string> CoreAudioDeviceRegistry::readString(
    const HardwareLayer& layer, AudioObjectID object, const AudioObjectPropertyAddress& address) {
  auto result = layer.getPropertyString(object, address);
  if (result.status != kAudioHardwareNoError) return std::nullopt;
  return std::move(result.value);
}

std::optional<AudioObjectID> CoreAudioDeviceRegistry::defaultDevice(
    const HardwareLayer& layer, AudioObjectPropertySelector selector) {
  AudioObjectID device = kAudioObjectUnknown;
  std::uint32_t size = sizeof device;
  if (layer.getPropertyData(kAudioObjectSystemObject, {.mSelector = selector}, nullptr, size,
                            &device) != kAudioHardwareNoError ||
      device == kAudioObjectUnknown) {
    return std::nullopt;
  }
  return device;
}

std::int64_t CoreAudioDeviceRegistry::channelCount(const HardwareLayer& layer, AudioObjectID device,
                                                   AudioObjectPropertyScope scope) {
  const AudioObjectPropertyAddress address{.mSelector = kAudioDevicePropertyStreamConfiguration,
                                           .mScope = scope};
  std::uint32_t size = 0;
  if (layer.getPropertyDataSize(device, address, nullptr, size) != kAudioHardwareNoError ||
      size < AudioBufferListLayout::buffersOffset) {
    return 0;
  }
  std::vector<std::byte> bufferList(size);
  std::uint32_t ioSize = size;
  if (layer.getPropertyData(device, address, nullptr, ioSize, bufferList.data()) !=
      kAudioHardwareNoError) {
    return 0;
  }
  // Only buffers that lie wholly inside what was written are counted, whatever the count
  // field claims.
  const std::uint32_t written = std::min(ioSize, size);
  if (written < AudioBufferListLayout::buffersOffset) return 0;
  const std::uint32_t fitting =
      (written - AudioBufferListLayout::buffersOffset) / AudioBufferListLayout::bufferStride;
  const std::uint32_t buffers =
      std::min(loadUInt32(bufferList, AudioBufferListLayout::numberBuffersOffset), fitting);
  std::int64_t total = 0;
  for (std::uint32_t i = 0; i < buffers; ++i) {
    total += loadUInt32(bufferList, AudioBufferListLayout::buffersOffset +
                                        i * AudioBufferListLayout::bufferStride +
                                        AudioBufferListLayout::numberChannelsOffset);
  }
  return std::min(total, maximumChannelCount);
}

std::optional<std::vector<std::string>> CoreAudioDeviceRegistry::channelNames(
    const HardwareLayer& layer, AudioObjectID device, AudioObjectPropertyScope scope,
    std::int64_t channelCount) {
  if (channelCount < 1) return std::nullopt;
  const auto count = static_cast<std::uint32_t>(std::min(channelCount, maximumChannelCount));
  std::vector<std::string> names(count);
  bool named = false;
  for (std::uint32_t channel = 1; channel <= count; ++channel) {
    const AudioObjectPropertyAddress address{
        .mSelector = kAudioObjectPropertyElementName, .mScope = scope, .mElement = channel};
    if (!layer.hasProperty(device, address)) continue;
    auto name = readString(layer, device, address);
    if (!name) continue;
    std::string trimmed = unicode::trimmingWhitespaceAndNewlines(*name);
    const std::string number = std::to_string(channel);
    // Names that only repeat the channel's number tell the user nothing.
    if (trimmed.empty() || trimmed == number || trimmed == "Channel " + number) continue;
    names[channel - 1] = std::move(trimmed);
    named = true;
  }
  if (!named) return std::nullopt;
  return names;
}

std::vector<std::string> CoreAudioDeviceRegistry::allDeviceUIDs(const HardwareLayer& layer) {
  std::vector<std::string> uids;
  for (AudioObjectID device : allDeviceIDs(layer)) {
    if (auto uid = readString(layer, device, {.mSelector = kAudioDevicePropertyDeviceUID})) {
      uids.push_back(std::move(*uid));
    }
  }
  return uids;
}

std::vector<std::string> CoreAudioDeviceRegistry::allDeviceUIDs() {
  return allDeviceUIDs(*currentSnapshot());
}

bool CoreAudioDeviceRegistry::containsDevice(const HardwareLayer& layer, std::string_view uid) {
  const auto uids = allDeviceUIDs(layer);
  return std::find(uids.begin(), uids.end(), uid) != uids.end();
}

bool CoreAudioDeviceRegistry::containsDevice(std::string_view uid) {
  return containsDevice(*currentSnapshot(), uid);
}

bool CoreAudioDeviceRegistry::isBrisolaDeviceUID(std::string_view uid) {
  if (uid == BrisolaCore::passThruDeviceUID) return true;
  return std::any_of(productDevicePrefixes.begin(), productDevicePrefixes.end(),
                     [uid](std::string_view prefix) { return uid.starts_with(prefix); });
}

std::vector<HALDeviceSummary> CoreAudioDeviceRegistry::brisolaDeviceSummaries(
    const HardwareLayer& layer) {
  std::vector<HALDeviceSummary> summaries;
  for (AudioObjectID device : allDeviceIDs(layer)) {
    auto uid = readString(layer, device, {.mSelector = kAudioDevicePropertyDeviceUID});
    if (!uid || !isBrisolaDeviceUID(*uid)) continue;
    auto name = readString(layer, device, {.mSelector = kAudioObjectPropertyName});
    if (!name) continue;
    summaries.push_back(HALDeviceSummary{
        .uid = std::move(*uid),
        .name = std::move(*name),
        .inputChannelCount = channelCount(layer, device, kAudioObjectPropertyScopeInput),
        .outputChannelCount = channelCount(layer, device, kAudioObjectPropertyScopeOutput),
    });
  }
  // Byte order of UTF-8 is the order of Unicode scalar values.
  std::stable_sort(summaries.begin(), summaries.end(),
                   [](const HALDeviceSummary& a, const HALDeviceSummary& b) {
                     return std::string_view(a.uid) < std::string_view(b.uid);
                   });
  return summaries;
}

std::vector<HALDeviceSummary> CoreAudioDeviceRegistry::brisolaDeviceSummaries() {
  return brisolaDeviceSummaries(*currentSnapshot());
}

bool CoreAudioDeviceRegistry::halPlugInIsLoaded(const HardwareLayer& layer) {
  const AudioObjectPropertyQualifier bundleID{.string = BrisolaCore::halBundleID};
  AudioObjectID plugIn = kAudioObjectUnknown;
  std::uint32_t size = sizeof plugIn;
  const OSStatus status = layer.getPropertyData(
      kAudioObjectSystemObject, {.mSelector = kAudioHardwarePropertyTranslateBundleIDToPlugIn},
      &bundleID, size, &plugIn);
  return status == kAudioHardwareNoError && plugIn != kAudioObjectUnknown;
}

bool CoreAudioDeviceRegistry::halPlugInIsLoaded() {
  return halPlugInIsLoaded(*currentSnapshot());
}

bool CoreAudioDeviceRegistry::passThruDeviceIsLoaded(const HardwareLayer& layer) {
  return containsDevice(layer, BrisolaCore::passThruDeviceUID);
}

bool CoreAudioDeviceRegistry::passThruDeviceIsLoaded() {
  return passThruDeviceIsLoaded(*currentSnapshot());
}

AudioDeviceInventory CoreAudioDeviceRegistry::deviceInventory(const HardwareLayer& layer) {
  const auto defaultInput = defaultDevice(layer, kAudioHardwarePropertyDefaultInputDevice);
  const auto defaultOutput = defaultDevice(layer, kAudioHardwarePropertyDefaultOutputDevice);

  AudioDeviceInventory inventory;
  for (AudioObjectID device : allDeviceIDs(layer)) {
    auto uid = readString(layer, device, {.mSelector = kAudioDevicePropertyDeviceUID});
    if (!uid) continue;
    auto name = readString(layer, device, {.mSelector = kAudioObjectPropertyName});
    if (!name) continue;

    auto addSide = [&](AudioObjectPropertyScope scope, const std::optional<AudioObjectID>& def,
                       std::vector<AudioDeviceInfo>& list) {
      const std::int64_t count = channelCount(layer, device, scope);
      if (count <= 0) return;
      list.push_back(AudioDeviceInfo{
          .uid = *uid,
          .name = *name,
          .channelCount = count,
          .isDefault = def == device,
          .channelNames = channelNames(layer, device, scope, count),
      });
    };
    addSide(kAudioObjectPropertyScopeInput, defaultInput, inventory.inputs);
    addSide(kAudioObjectPropertyScopeOutput, defaultOutput, inventory.outputs);
  }

  const unicode::LocalizedStandardOrder order;
  auto defaultFirstThenByName = [&order](const AudioDeviceInfo& a, const AudioDeviceInfo& b) {
    if (a.isDefault != b.isDefault) return a.isDefault;
    return order.compare(a.name, b.name) < 0;
  };
  std::stable_sort(inventory.inputs.begin(), inventory.inputs.end(), defaultFirstThenByName);
  std::stable_sort(inventory.outputs.begin(), inventory.outputs.end(), defaultFirstThenByName);
  return inventory;
}

AudioDeviceInventory CoreAudioDeviceRegistry::deviceInventory() {
  return deviceInventory(*currentSnapshot());
}

bool CoreAudioDeviceRegistry::isSuppressedApplicationSourceName(std::string_view name) {
  const std::string lower = unicode::lowercased(name);
  return lower.starts_with("pid ") || containsAny(lower, suppressedNameFragments);
}

bool CoreAudioDeviceRegistry::isSuppressedApplicationSourceBundleID(
    const std::optional<std::string>& bundleID) {
  if (!bundleID || bundleID->empty()) return true;
  return containsAny(unicode::lowercased(*bundleID), suppressedBundleIDFragments);
}

bool CoreAudioDeviceRegistry::shouldShowApplicationSourceCandidate(
    const std::optional<RunningApplication>& application,
    const std::optional<std::string>& bundleID, std::string_view displayName) {
  if (isSuppressedApplicationSourceName(displayName)) return false;
  if (isSuppressedApplicationSourceBundleID(bundleID)) return false;
  return application && application->activationPolicy == ApplicationActivationPolicy::regular;
}

std::vector<ApplicationSourceCandidate> CoreAudioDeviceRegistry::applicationSourceCandidates(
    const HardwareLayer& layer) {
  std::vector<ApplicationSourceCandidate> candidates;
  for (AudioObjectID process : allObjectIDs(layer, kAudioHardwarePropertyProcessObjectList)) {
    std::int32_t pid = 0;
    std::uint32_t size = sizeof pid;
    if (layer.getPropertyData(process, {.mSelector = kAudioProcessPropertyPID}, nullptr, size,
                              &pid) != kAudioHardwareNoError ||
        pid < 1) {
      continue;
    }
    auto bundleID = readString(layer, process, {.mSelector = kAudioProcessPropertyBundleID});

    // One lookup serves both the name and the policy check, so they describe the same process.
    const auto application = layer.runningApplication(pid);
    std::string displayName;
    if (application && application->localizedName && !application->localizedName->empty()) {
      displayName = *application->localizedName;
    } else if (bundleID && !bundleID->empty()) {
      displayName = *bundleID;
    } else {
      displayName = "PID " + std::to_string(pid);
    }

    if (!shouldShowApplicationSourceCandidate(application, bundleID, displayName)) continue;
    candidates.push_back(ApplicationSourceCandidate{
        .displayName = std::move(displayName),
        .bundleIdentifier = std::move(bundleID),
        .pid = pid,
        .processObjectID = static_cast<std::uint64_t>(process),
    });
  }

  const unicode::LocalizedStandardOrder order;
  std::stable_sort(
      candidates.begin(), candidates.end(),
      [&order](const ApplicationSourceCandidate& a, const ApplicationSourceCandidate& b) {
        return order.compare(a.displayName, b.displayName) < 0;
      });
  return candidates;
}

std::vector<ApplicationSourceCandidate> CoreAudioDeviceRegistry::applicationSourceCandidates() {
  return applicationSourceCandidates(*currentSnapshot());
}

// JSON form of the summaries.

namespace {

json::Json summaryToJSON(const HALDeviceSummary& value) {
  return json::Json{{"uid", value.uid},
                    {"name", value.name},
                    {"inputChannelCount", value.inputChannelCount},
                    {"outputChannelCount", value.outputChannelCount}};
}

HALDeviceSummary readSummary(const json::Json& value, const std::string& path) {
  json::ObjectReader r(value, path);
  return HALDeviceSummary{
      .uid = r.required("uid", json::readString),
      .name = r.required("name", json::readString),
      .inputChannelCount = r.required("inputChannelCount", json::readInteger<std::int64_t>),
      .outputChannelCount = r.required("outputChannelCount", json::readInteger<std::int64_t>),
  };
}

}  // namespace

std::string encodeJSON(const HALDeviceSummary& value) {
  return json::dump(summaryToJSON(value));
}

std::string encodeJSON(const std::vector<HALDeviceSummary>& value) {
  json::Json array = json::Json::array();
  for (const auto& summary : value) array.push_back(summaryToJSON(summary));
  return json::dump(array);
}

HALDeviceSummary decodeJSON(std::string_view bytes, JSONTag<HALDeviceSummary>) {
  return readSummary(json::parse(bytes), "");
}

std::vector<HALDeviceSummary> decodeJSON(std::string_view bytes,
                                         JSONTag<std::vector<HALDeviceSummary>>) {
  return json::readArray<HALDeviceSummary>(json::parse(bytes), "", readSummary);
}

}  // namespace brisola
