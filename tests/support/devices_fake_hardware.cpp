#include "support/devices_fake_hardware.hpp"

#include <algorithm>
#include <cstring>

namespace brisola::testing {

namespace {

template <class T>
std::vector<std::byte> bytesOf(const std::vector<T>& values) {
  std::vector<std::byte> bytes(values.size() * sizeof(T));
  if (!values.empty()) std::memcpy(bytes.data(), values.data(), bytes.size());
  return bytes;
}

}  // namespace

void FakeHardwareLayer::setBytes(AudioObjectID object, AudioObjectPropertyAddress address,
                                 std::vector<std::byte> bytes, std::string qualifier) {
  table_[key(object, address, std::move(qualifier))] = Entry{.value = std::move(bytes)};
}

void FakeHardwareLayer::setString(AudioObjectID object, AudioObjectPropertyAddress address,
                                  std::optional<std::string> value) {
  table_[key(object, address, {})] = Entry{.value = std::move(value)};
}

void FakeHardwareLayer::setStatuses(AudioObjectID object, AudioObjectPropertyAddress address,
                                    OSStatus sizeStatus, OSStatus dataStatus,
                                    std::string qualifier) {
  Entry& entry = table_[key(object, address, std::move(qualifier))];
  entry.sizeStatus = sizeStatus;
  entry.dataStatus = dataStatus;
}

void FakeHardwareLayer::setDeviceList(const std::vector<AudioObjectID>& devices) {
  setBytes(kAudioObjectSystemObject, {.mSelector = kAudioHardwarePropertyDevices},
           bytesOf(devices));
}

void FakeHardwareLayer::setProcessList(const std::vector<AudioObjectID>& processes) {
  setBytes(kAudioObjectSystemObject, {.mSelector = kAudioHardwarePropertyProcessObjectList},
           bytesOf(processes));
}

void FakeHardwareLayer::setDefaultDevice(AudioObjectPropertySelector selector,
                                         AudioObjectID device) {
  setBytes(kAudioObjectSystemObject, {.mSelector = selector},
           bytesOf(std::vector<AudioObjectID>{device}));
}

void FakeHardwareLayer::setPlugIn(const std::string& bundleID, AudioObjectID plugIn) {
  setBytes(kAudioObjectSystemObject, {.mSelector = kAudioHardwarePropertyTranslateBundleIDToPlugIn},
           bytesOf(std::vector<AudioObjectID>{plugIn}), bundleID);
}

void FakeHardwareLayer::setProcess(AudioObjectID process, std::optional<std::int32_t> pid,
                                   std::optional<std::string> bundleID) {
  if (pid) {
    setBytes(process, {.mSelector = kAudioProcessPropertyPID},
             bytesOf(std::vector<std::int32_t>{*pid}));
  }
  if (bundleID) setString(process, {.mSelector = kAudioProcessPropertyBundleID}, bundleID);
}

const FakeHardwareLayer::Entry* FakeHardwareLayer::find(
    AudioObjectID object, const AudioObjectPropertyAddress& address,
    const AudioObjectPropertyQualifier* qualifier) const {
  auto found = table_.find(
      key(object, address, qualifier == nullptr ? std::string() : std::string(qualifier->string)));
  return found == table_.end() ? nullptr : &found->second;
}

bool FakeHardwareLayer::hasProperty(AudioObjectID objectID,
                                    const AudioObjectPropertyAddress& address) const {
  log_.push_back({.kind = Query::Kind::has, .object = objectID, .address = address});
  return find(objectID, address, nullptr) != nullptr;
}

OSStatus FakeHardwareLayer::getPropertyDataSize(AudioObjectID objectID,
                                                const AudioObjectPropertyAddress& address,
                                                const AudioObjectPropertyQualifier* qualifier,
                                                std::uint32_t& outDataSize) const {
  log_.push_back({.kind = Query::Kind::size, .object = objectID, .address = address});
  outDataSize = 0;
  const Entry* entry = find(objectID, address, qualifier);
  if (entry == nullptr) return kAudioHardwareUnknownPropertyError;
  if (entry->sizeStatus != kAudioHardwareNoError) return entry->sizeStatus;
  if (const auto* bytes = std::get_if<std::vector<std::byte>>(&entry->value)) {
    outDataSize = static_cast<std::uint32_t>(bytes->size());
  } else {
    outDataSize = AudioObjectPropertyQualifier::stringReferenceSize;
  }
  return kAudioHardwareNoError;
}

OSStatus FakeHardwareLayer::getPropertyData(AudioObjectID objectID,
                                            const AudioObjectPropertyAddress& address,
                                            const AudioObjectPropertyQualifier* qualifier,
                                            std::uint32_t& ioDataSize, void* outData) const {
  log_.push_back(
      {.kind = Query::Kind::data, .object = objectID, .address = address, .capacity = ioDataSize});
  const std::uint32_t capacity = ioDataSize;
  ioDataSize = 0;
  const Entry* entry = find(objectID, address, qualifier);
  if (entry == nullptr) return kAudioHardwareUnknownPropertyError;
  if (entry->dataStatus != kAudioHardwareNoError) return entry->dataStatus;
  const auto* bytes = std::get_if<std::vector<std::byte>>(&entry->value);
  if (bytes == nullptr) return kAudioHardwareIllegalOperationError;
  const auto length = std::min<std::size_t>(capacity, bytes->size());
  if (length > 0) std::memcpy(outData, bytes->data(), length);
  ioDataSize = static_cast<std::uint32_t>(length);
  return kAudioHardwareNoError;
}

AudioObjectStringProperty FakeHardwareLayer::getPropertyString(
    AudioObjectID objectID, const AudioObjectPropertyAddress& address) const {
  log_.push_back({.kind = Query::Kind::string, .object = objectID, .address = address});
  const Entry* entry = find(objectID, address, nullptr);
  if (entry == nullptr) return {.status = kAudioHardwareUnknownPropertyError};
  if (entry->dataStatus != kAudioHardwareNoError) return {.status = entry->dataStatus};
  const auto* string = std::get_if<std::optional<std::string>>(&entry->value);
  if (string == nullptr) return {.status = kAudioHardwareIllegalOperationError};
  return {.status = kAudioHardwareNoError, .value = *string};
}

std::optional<RunningApplication> FakeHardwareLayer::runningApplication(std::int32_t pid) const {
  auto found = applications_.find(pid);
  if (found == applications_.end()) return std::nullopt;
  return found->second;
}

}  // namespace brisola::testing
