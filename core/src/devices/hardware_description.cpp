#include "devices/hardware_description.hpp"

#include <cstring>
#include <variant>

namespace brisola {

namespace {

// Answering queries.

struct Failure {
  OSStatus status;
};
struct Bytes {
  std::vector<std::byte> data;
  bool isIDList = false;  // cut to the IDs that fit instead of refusing a small buffer
};
struct StringValue {
  std::optional<std::string> value;
};
using PropertyValue = std::variant<Failure, Bytes, StringValue>;

Bytes uint32Value(std::uint32_t value) {
  Bytes bytes{.data = std::vector<std::byte>(sizeof value)};
  std::memcpy(bytes.data.data(), &value, sizeof value);
  return bytes;
}

Bytes int32Value(std::int32_t value) {
  Bytes bytes{.data = std::vector<std::byte>(sizeof value)};
  std::memcpy(bytes.data.data(), &value, sizeof value);
  return bytes;
}

template <class T>
Bytes idList(const std::vector<T>& objects) {
  Bytes bytes{.data = std::vector<std::byte>(objects.size() * sizeof(AudioObjectID)),
              .isIDList = true};
  for (std::size_t i = 0; i < objects.size(); ++i) {
    std::memcpy(bytes.data.data() + i * sizeof(AudioObjectID), &objects[i].objectID,
                sizeof(AudioObjectID));
  }
  return bytes;
}

constexpr Failure unknownProperty{kAudioHardwareUnknownPropertyError};

class DescribedHardwareLayer final : public HardwareLayer {
 public:
  explicit DescribedHardwareLayer(std::shared_ptr<const HardwareDescription> hardware)
      : hardware_(std::move(hardware)) {}

  bool hasProperty(AudioObjectID objectID,
                   const AudioObjectPropertyAddress& address) const override {
    // The translation exists whatever it is asked to translate.
    if (objectID == kAudioObjectSystemObject && isGlobalMain(address) &&
        address.mSelector == kAudioHardwarePropertyTranslateBundleIDToPlugIn) {
      return true;
    }
    return !std::holds_alternative<Failure>(value(objectID, address, nullptr));
  }

  OSStatus getPropertyDataSize(AudioObjectID objectID, const AudioObjectPropertyAddress& address,
                               const AudioObjectPropertyQualifier* qualifier,
                               std::uint32_t& outDataSize) const override {
    outDataSize = 0;
    auto result = value(objectID, address, qualifier);
    if (auto* failure = std::get_if<Failure>(&result)) return failure->status;
    if (std::holds_alternative<StringValue>(result)) {
      outDataSize = AudioObjectPropertyQualifier::stringReferenceSize;
    } else {
      outDataSize = static_cast<std::uint32_t>(std::get<Bytes>(result).data.size());
    }
    return kAudioHardwareNoError;
  }

  OSStatus getPropertyData(AudioObjectID objectID, const AudioObjectPropertyAddress& address,
                           const AudioObjectPropertyQualifier* qualifier, std::uint32_t& ioDataSize,
                           void* outData) const override {
    const std::uint32_t capacity = ioDataSize;
    ioDataSize = 0;
    auto result = value(objectID, address, qualifier);
    if (auto* failure = std::get_if<Failure>(&result)) return failure->status;
    // String references cannot be handed out as bytes here; they go through
    // getPropertyString.
    if (std::holds_alternative<StringValue>(result)) return kAudioHardwareIllegalOperationError;
    const auto& bytes = std::get<Bytes>(result);
    std::size_t length = bytes.data.size();
    if (capacity < length) {
      if (!bytes.isIDList) return kAudioHardwareBadPropertySizeError;
      length = capacity / sizeof(AudioObjectID) * sizeof(AudioObjectID);
    }
    if (length > 0) {
      if (outData == nullptr) return kAudioHardwareIllegalOperationError;
      std::memcpy(outData, bytes.data.data(), length);
    }
    ioDataSize = static_cast<std::uint32_t>(length);
    return kAudioHardwareNoError;
  }

  AudioObjectStringProperty getPropertyString(
      AudioObjectID objectID, const AudioObjectPropertyAddress& address) const override {
    auto result = value(objectID, address, nullptr);
    if (auto* failure = std::get_if<Failure>(&result)) return {.status = failure->status};
    if (auto* string = std::get_if<StringValue>(&result)) {
      return {.status = kAudioHardwareNoError, .value = string->value};
    }
    return {.status = kAudioHardwareIllegalOperationError};
  }

  std::optional<RunningApplication> runningApplication(std::int32_t pid) const override {
    auto found = hardware_->applications.find(pid);
    if (found == hardware_->applications.end()) return std::nullopt;
    return found->second;
  }

 private:
  static bool isGlobalMain(const AudioObjectPropertyAddress& address) {
    return address.mScope == kAudioObjectPropertyScopeGlobal &&
           address.mElement == kAudioObjectPropertyElementMain;
  }

  PropertyValue value(AudioObjectID objectID, const AudioObjectPropertyAddress& address,
                      const AudioObjectPropertyQualifier* qualifier) const {
    if (objectID == kAudioObjectSystemObject) return systemValue(address, qualifier);
    if (hardware_->devices) {
      for (const auto& device : *hardware_->devices) {
        if (device.objectID == objectID) return deviceValue(device, address);
      }
    }
    if (hardware_->processes) {
      for (const auto& process : *hardware_->processes) {
        if (process.objectID == objectID) return processValue(process, address);
      }
    }
    return Failure{kAudioHardwareBadObjectError};
  }

  PropertyValue systemValue(const AudioObjectPropertyAddress& address,
                            const AudioObjectPropertyQualifier* qualifier) const {
    if (!isGlobalMain(address)) return unknownProperty;
    auto optionalID = [](const std::optional<AudioObjectID>& id) -> PropertyValue {
      if (!id) return unknownProperty;
      return uint32Value(*id);
    };
    switch (address.mSelector) {
      case kAudioHardwarePropertyDevices:
        if (!hardware_->devices) return unknownProperty;
        return idList(*hardware_->devices);
      case kAudioHardwarePropertyProcessObjectList:
        if (!hardware_->processes) return unknownProperty;
        return idList(*hardware_->processes);
      case kAudioHardwarePropertyDefaultInputDevice:
        return optionalID(hardware_->defaultInputDevice);
      case kAudioHardwarePropertyDefaultOutputDevice:
        return optionalID(hardware_->defaultOutputDevice);
      case kAudioHardwarePropertyTranslateBundleIDToPlugIn: {
        if (qualifier == nullptr) return Failure{kAudioHardwareIllegalOperationError};
        if (qualifier->size != AudioObjectPropertyQualifier::stringReferenceSize) {
          return Failure{kAudioHardwareBadPropertySizeError};
        }
        auto found = hardware_->plugIns.find(qualifier->string);
        return uint32Value(found == hardware_->plugIns.end() ? kAudioObjectUnknown : found->second);
      }
      default:
        return unknownProperty;
    }
  }

  static PropertyValue deviceValue(const DescribedDevice& device,
                                   const AudioObjectPropertyAddress& address) {
    const bool input = address.mScope == kAudioObjectPropertyScopeInput;
    const bool output = address.mScope == kAudioObjectPropertyScopeOutput;
    switch (address.mSelector) {
      case kAudioDevicePropertyDeviceUID:
        if (!isGlobalMain(address) || !device.uid) return unknownProperty;
        return StringValue{device.uid};
      case kAudioObjectPropertyName:
        if (!isGlobalMain(address) || !device.name) return unknownProperty;
        return StringValue{device.name};
      case kAudioDevicePropertyStreamConfiguration: {
        if (!(input || output) || address.mElement != kAudioObjectPropertyElementMain) {
          return unknownProperty;
        }
        const auto& streams = input ? device.inputStreams : device.outputStreams;
        if (!streams) return unknownProperty;
        return Bytes{.data = AudioBufferListLayout::encode(*streams)};
      }
      case kAudioObjectPropertyElementName: {
        if (!(input || output)) return unknownProperty;
        const auto& names = input ? device.inputChannelNames : device.outputChannelNames;
        const std::size_t element = address.mElement;
        if (element < 1 || element > names.size() || !names[element - 1]) {
          return unknownProperty;
        }
        return StringValue{names[element - 1]};
      }
      default:
        return unknownProperty;
    }
  }

  static PropertyValue processValue(const DescribedProcess& process,
                                    const AudioObjectPropertyAddress& address) {
    if (!isGlobalMain(address)) return unknownProperty;
    switch (address.mSelector) {
      case kAudioProcessPropertyPID:
        if (!process.pid) return unknownProperty;
        return int32Value(*process.pid);
      case kAudioProcessPropertyBundleID:
        if (!process.bundleID) return unknownProperty;
        return StringValue{process.bundleID};
      default:
        return unknownProperty;
    }
  }

  std::shared_ptr<const HardwareDescription> hardware_;
};

}  // namespace

std::unique_ptr<HardwareLayer> makeDescribedHardwareLayer(
    std::shared_ptr<const HardwareDescription> description) {
  return std::make_unique<DescribedHardwareLayer>(std::move(description));
}

}  // namespace brisola
