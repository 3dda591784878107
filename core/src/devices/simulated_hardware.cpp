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
#include "devices/hardware_description.hpp"
#include "model/json_support.hpp"

namespace brisola {

namespace {

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

HardwareDescription readSimulatedHardware(const Json& root) {
  ObjectIDRegistry ids;
  json::ObjectReader r(root, "");
  HardwareDescription hardware;

  hardware.devices = r.optional("devices", [&ids](const Json& value, const std::string& path) {
    return json::readArray<DescribedDevice>(
        value, path, [&ids](const Json& entry, const std::string& entryPath) {
          json::ObjectReader d(entry, entryPath);
          return DescribedDevice{
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
    return json::readArray<DescribedProcess>(
        value, path, [&ids](const Json& entry, const std::string& entryPath) {
          json::ObjectReader p(entry, entryPath);
          return DescribedProcess{
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
      return makeDescribedHardwareLayer(
          std::make_shared<const HardwareDescription>(readSimulatedHardware(json::parse(bytes))));
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
