#pragma once

// A hardware layer made of a table of property values, for driving the device registry query
// by query. Every property not in the table fails with kAudioHardwareUnknownPropertyError and
// has no property; every query is logged.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <variant>
#include <vector>

#include "brisola/devices/hardware_layer.hpp"

namespace brisola::testing {

class FakeHardwareLayer : public HardwareLayer {
 public:
  struct Query {
    enum class Kind { has, size, data, string };
    Kind kind;
    AudioObjectID object;
    AudioObjectPropertyAddress address;
    std::uint32_t capacity = 0;  // of a data query
  };

  class DeviceBuilder {
   public:
    DeviceBuilder(FakeHardwareLayer& layer, AudioObjectID id) : layer_(layer), id_(id) {}
    DeviceBuilder& uid(std::optional<std::string> value) {
      layer_.setString(id_, {.mSelector = kAudioDevicePropertyDeviceUID}, std::move(value));
      return *this;
    }
    DeviceBuilder& name(std::optional<std::string> value) {
      layer_.setString(id_, {.mSelector = kAudioObjectPropertyName}, std::move(value));
      return *this;
    }
    // One buffer per entry with that many channels.
    DeviceBuilder& streams(AudioObjectPropertyScope scope, std::vector<std::uint32_t> channels) {
      layer_.setBytes(id_, {.mSelector = kAudioDevicePropertyStreamConfiguration, .mScope = scope},
                      AudioBufferListLayout::encode(channels));
      return *this;
    }
    DeviceBuilder& inputs(std::vector<std::uint32_t> channels) {
      return streams(kAudioObjectPropertyScopeInput, std::move(channels));
    }
    DeviceBuilder& outputs(std::vector<std::uint32_t> channels) {
      return streams(kAudioObjectPropertyScopeOutput, std::move(channels));
    }
    // nullopt: the property exists but gives the null string.
    DeviceBuilder& channelName(AudioObjectPropertyScope scope, std::uint32_t channel,
                               std::optional<std::string> name) {
      layer_.setString(
          id_, {.mSelector = kAudioObjectPropertyElementName, .mScope = scope, .mElement = channel},
          std::move(name));
      return *this;
    }

   private:
    FakeHardwareLayer& layer_;
    AudioObjectID id_;
  };

  // Raw table entries. `qualifier` selects entries of qualified queries by the qualifier text.
  void setBytes(AudioObjectID object, AudioObjectPropertyAddress address,
                std::vector<std::byte> bytes, std::string qualifier = {});
  void setString(AudioObjectID object, AudioObjectPropertyAddress address,
                 std::optional<std::string> value);
  // The property exists, but its size query and its data query answer with these statuses.
  void setStatuses(AudioObjectID object, AudioObjectPropertyAddress address, OSStatus sizeStatus,
                   OSStatus dataStatus, std::string qualifier = {});

  // Conveniences in the registry's terms.
  void setDeviceList(const std::vector<AudioObjectID>& devices);
  void setProcessList(const std::vector<AudioObjectID>& processes);
  void setDefaultDevice(AudioObjectPropertySelector selector, AudioObjectID device);
  void setPlugIn(const std::string& bundleID, AudioObjectID plugIn);
  DeviceBuilder device(AudioObjectID id) { return DeviceBuilder(*this, id); }
  void setProcess(AudioObjectID process, std::optional<std::int32_t> pid,
                  std::optional<std::string> bundleID);
  void setApplication(std::int32_t pid, RunningApplication application) {
    applications_[pid] = std::move(application);
  }

  const std::vector<Query>& log() const { return log_; }

  bool hasProperty(AudioObjectID objectID,
                   const AudioObjectPropertyAddress& address) const override;
  OSStatus getPropertyDataSize(AudioObjectID objectID, const AudioObjectPropertyAddress& address,
                               const AudioObjectPropertyQualifier* qualifier,
                               std::uint32_t& outDataSize) const override;
  OSStatus getPropertyData(AudioObjectID objectID, const AudioObjectPropertyAddress& address,
                           const AudioObjectPropertyQualifier* qualifier, std::uint32_t& ioDataSize,
                           void* outData) const override;
  AudioObjectStringProperty getPropertyString(
      AudioObjectID objectID, const AudioObjectPropertyAddress& address) const override;
  std::optional<RunningApplication> runningApplication(std::int32_t pid) const override;

 private:
  using Key = std::tuple<AudioObjectID, AudioObjectPropertySelector, AudioObjectPropertyScope,
                         AudioObjectPropertyElement, std::string>;
  struct Entry {
    OSStatus sizeStatus = kAudioHardwareNoError;
    OSStatus dataStatus = kAudioHardwareNoError;
    std::variant<std::vector<std::byte>, std::optional<std::string>> value;
  };

  static Key key(AudioObjectID object, const AudioObjectPropertyAddress& address,
                 std::string qualifier) {
    return {object, address.mSelector, address.mScope, address.mElement, std::move(qualifier)};
  }
  const Entry* find(AudioObjectID object, const AudioObjectPropertyAddress& address,
                    const AudioObjectPropertyQualifier* qualifier) const;

  std::map<Key, Entry> table_;
  std::map<std::int32_t, RunningApplication> applications_;
  mutable std::vector<Query> log_;
};

}  // namespace brisola::testing
