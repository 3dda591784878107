// Simulated hardware described by a JSON file (see examples/hardware-simulation.json):
//
//   devices[]            objectID (required, not 0 or 1), uid, name, inputStreams,
//                        outputStreams (channels per buffer), inputChannelNames,
//                        outputChannelNames (entry n-1 names channel n; null = no name)
//   defaultInputDevice, defaultOutputDevice
//   plugIns              bundle ID -> plug-in object ID; unlisted bundle IDs translate to 0
//   processes[]          objectID (required, not 0 or 1), pid, bundleID
//   applications[]       pid (required), localizedName, activationPolicy (required)
//
// An absent value makes its query fail; an absent device or process list makes the list query
// fail. Object IDs must be unique across devices and processes.

#include <cstring>
#include <filesystem>
#include <map>
#include <system_error>
#include <variant>

#include "brisola/devices/hardware_layer.hpp"
#include "brisola/platform/file_manager.hpp"
#include "devices/hardware_backends.hpp"
#include "model/json_support.hpp"

namespace brisola {

namespace {

struct SimulatedDevice {
  AudioObjectID objectID = kAudioObjectUnknown;
  std::optional<std::string> uid;
  std::optional<std::string> name;
  std::optional<std::vector<std::uint32_t>> inputStreams;
  std::optional<std::vector<std::uint32_t>> outputStreams;
  std::vector<std::optional<std::string>> inputChannelNames;
  std::vector<std::optional<std::string>> outputChannelNames;
};

struct SimulatedProcess {
  AudioObjectID objectID = kAudioObjectUnknown;
  std::optional<std::int32_t> pid;
  std::optional<std::string> bundleID;
};

struct SimulatedHardware {
  std::optional<std::vector<SimulatedDevice>> devices;
  std::optional<AudioObjectID> defaultInputDevice;
  std::optional<AudioObjectID> defaultOutputDevice;
  std::map<std::string, AudioObjectID, std::less<>> plugIns;
  std::optional<std::vector<SimulatedProcess>> processes;
  std::map<std::int32_t, RunningApplication> applications;
};

// Reading the file.

using json::Json;

AudioObjectID readUInt32(const Json& value, const std::string& path) {
  return static_cast<AudioObjectID>(
      json::readIntegerIn(value, path, 0, 0xFFFFFFFF, "unsigned 32-bit integer"));
}

// Remembers where every object ID was first used, so a clash names both places.
class ObjectIDRegistry {
 public:
  AudioObjectID read(const json::ObjectReader& reader) {
    AudioObjectID id = reader.required("objectID", readUInt32);
    const std::string path = json::childPath(reader.path(), "objectID");
    if (id == kAudioObjectUnknown) {
      json::fail(DecodingError::Kind::valueOutOfRange, path, "0 is the unknown object");
    }
    if (id == kAudioObjectSystemObject) {
      json::fail(DecodingError::Kind::valueOutOfRange, path, "1 is the system object");
    }
    auto [place, inserted] = used_.emplace(id, path);
    if (!inserted) {
      json::fail(DecodingError::Kind::valueOutOfRange, path,
                 "the object ID " + std::to_string(id) + " is already used at " + place->second);
    }
    return id;
  }

 private:
  std::map<AudioObjectID, std::string> used_;
};

std::vector<std::uint32_t> readStreams(const Json& value, const std::string& path) {
  return json::readArray<std::uint32_t>(value, path, readUInt32);
}

std::vector<std::optional<std::string>> readChannelNames(const Json& value,
                                                         const std::string& path) {
  return json::readArray<std::optional<std::string>>(
      value, path, [](const Json& entry, const std::string& entryPath) {
        return entry.is_null() ? std::nullopt
                               : std::optional<std::string>(json::readString(entry, entryPath));
      });
}

using PlugInMap = std::map<std::string, AudioObjectID, std::less<>>;

PlugInMap readPlugIns(const Json& value, const std::string& path) {
  if (!value.is_object()) json::typeMismatch(value, path, "an object");
  PlugInMap plugIns;
  for (const auto& [bundleID, id] : value.items()) {
    plugIns.emplace(bundleID, readUInt32(id, json::childPath(path, bundleID)));
  }
  return plugIns;
}

struct SimulatedApplication {
  std::int32_t pid = 0;
  RunningApplication application;
};

SimulatedApplication readApplication(const Json& value, const std::string& path) {
  json::ObjectReader a(value, path);
  return SimulatedApplication{
      .pid = a.required("pid", json::readInteger<std::int32_t>),
      .application =
          RunningApplication{
              .localizedName = a.optional("localizedName", json::readString),
              .activationPolicy =
                  a.required("activationPolicy", json::readEnum<ApplicationActivationPolicy>),
          },
  };
}

SimulatedHardware readSimulatedHardware(const Json& root) {
  ObjectIDRegistry ids;
  json::ObjectReader r(root, "");
  SimulatedHardware hardware;

  hardware.devices = r.optional("devices", [&ids](const Json& value, const std::string& path) {
    return json::readArray<SimulatedDevice>(
        value, path, [&ids](const Json& entry, const std::string& entryPath) {
          json::ObjectReader d(entry, entryPath);
          return SimulatedDevice{
              .objectID = ids.read(d),
              .uid = d.optional("uid", json::readString),
              .name = d.optional("name", json::readString),
              .inputStreams = d.optional("inputStreams", readStreams),
              .outputStreams = d.optional("outputStreams", readStreams),
              .inputChannelNames = d.optional("inputChannelNames", readChannelNames)
                                       .value_or(std::vector<std::optional<std::string>>{}),
              .outputChannelNames = d.optional("outputChannelNames", readChannelNames)
                                        .value_or(std::vector<std::optional<std::string>>{}),
          };
        });
  });
  hardware.defaultInputDevice = r.optional("defaultInputDevice", readUInt32);
  hardware.defaultOutputDevice = r.optional("defaultOutputDevice", readUInt32);

  hardware.plugIns = r.optional("plugIns", readPlugIns).value_or(PlugInMap{});

  hardware.processes = r.optional("processes", [&ids](const Json& value, const std::string& path) {
    return json::readArray<SimulatedProcess>(
        value, path, [&ids](const Json& entry, const std::string& entryPath) {
          json::ObjectReader p(entry, entryPath);
          return SimulatedProcess{
              .objectID = ids.read(p),
              .pid = p.optional("pid", json::readInteger<std::int32_t>),
              .bundleID = p.optional("bundleID", json::readString),
          };
        });
  });

  const auto applications =
      r.optional("applications", [](const Json& value, const std::string& path) {
        return json::readArray<SimulatedApplication>(value, path, readApplication);
      });
  if (applications) {
    for (std::size_t i = 0; i < applications->size(); ++i) {
      const auto& [pid, application] = (*applications)[i];
      if (!hardware.applications.emplace(pid, application).second) {
        json::fail(DecodingError::Kind::valueOutOfRange,
                   json::childPath(json::indexPath("applications", i), "pid"),
                   "another application already has the pid " + std::to_string(pid));
      }
    }
  }
  return hardware;
}

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

class SimulatedHardwareLayer final : public HardwareLayer {
 public:
  explicit SimulatedHardwareLayer(SimulatedHardware hardware) : hardware_(std::move(hardware)) {}

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
    auto found = hardware_.applications.find(pid);
    if (found == hardware_.applications.end()) return std::nullopt;
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
    if (hardware_.devices) {
      for (const auto& device : *hardware_.devices) {
        if (device.objectID == objectID) return deviceValue(device, address);
      }
    }
    if (hardware_.processes) {
      for (const auto& process : *hardware_.processes) {
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
        if (!hardware_.devices) return unknownProperty;
        return idList(*hardware_.devices);
      case kAudioHardwarePropertyProcessObjectList:
        if (!hardware_.processes) return unknownProperty;
        return idList(*hardware_.processes);
      case kAudioHardwarePropertyDefaultInputDevice:
        return optionalID(hardware_.defaultInputDevice);
      case kAudioHardwarePropertyDefaultOutputDevice:
        return optionalID(hardware_.defaultOutputDevice);
      case kAudioHardwarePropertyTranslateBundleIDToPlugIn: {
        if (qualifier == nullptr) return Failure{kAudioHardwareIllegalOperationError};
        if (qualifier->size != AudioObjectPropertyQualifier::stringReferenceSize) {
          return Failure{kAudioHardwareBadPropertySizeError};
        }
        auto found = hardware_.plugIns.find(qualifier->string);
        return uint32Value(found == hardware_.plugIns.end() ? kAudioObjectUnknown : found->second);
      }
      default:
        return unknownProperty;
    }
  }

  static PropertyValue deviceValue(const SimulatedDevice& device,
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

  static PropertyValue processValue(const SimulatedProcess& process,
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

  SimulatedHardware hardware_;
};

class SimulatedHardwareBackend final : public HardwareBackend {
 public:
  SimulatedHardwareBackend(std::filesystem::path file, std::shared_ptr<FileManager> fileManager)
      : file_(std::move(file)), fileManager_(std::move(fileManager)) {}

  std::unique_ptr<HardwareLayer> snapshot() const override {
    std::string bytes;
    try {
      bytes = fileManager_->contents(file_);
    } catch (const std::filesystem::filesystem_error& error) {
      return makeUnavailableHardwareLayer("Cannot read the simulated hardware file " +
                                          file_.string() + ": " + error.code().message());
    } catch (const std::exception& error) {
      return makeUnavailableHardwareLayer("Cannot read the simulated hardware file " +
                                          file_.string() + ": " + error.what());
    }
    try {
      return std::make_unique<SimulatedHardwareLayer>(readSimulatedHardware(json::parse(bytes)));
    } catch (const DecodingError& error) {
      return makeUnavailableHardwareLayer("The simulated hardware file " + file_.string() +
                                          " is malformed: " + error.what());
    }
  }

 private:
  std::filesystem::path file_;
  std::shared_ptr<FileManager> fileManager_;
};

}  // namespace

std::unique_ptr<HardwareBackend> HardwareBackend::simulated(
    std::filesystem::path file, std::shared_ptr<FileManager> fileManager) {
  return std::make_unique<SimulatedHardwareBackend>(std::move(file), std::move(fileManager));
}

std::unique_ptr<HardwareBackend> HardwareBackend::simulated(std::filesystem::path file) {
  return simulated(std::move(file), FileManager::defaultManager());
}

}  // namespace brisola
