#pragma once

// The editing operations the front end applies to a configuration document. Every operation
// changes the document it is given in place and returns a copy of what it changed, or throws a
// ConfigEditError and leaves the document exactly as it was: all checks run before the first
// change. Nothing here touches a file, a device or a clock, and nothing clamps or range-checks
// the values it stores; that is the validator's job.
//
// Devices, sources and monitors are found by the first element whose id equals the given text.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "brisola/ipc/exchange_records.hpp"
#include "brisola/model/config.hpp"

namespace brisola {

class ConfigEditError : public std::runtime_error {
 public:
  enum class Case {
    deviceNotFound,
    sourceNotFound,
    monitorNotFound,
    wireNotFound,
    invalidBenchmarkInput,
    invalidWireEndpoint,
    nestedDeviceCycle,
    invalidWireDirection,
    channelCountOutOfRange,
  };

  static ConfigEditError deviceNotFound(std::string identifier);
  static ConfigEditError sourceNotFound(std::string identifier);
  static ConfigEditError monitorNotFound(std::string identifier);
  static ConfigEditError wireNotFound(std::string identifier);
  static ConfigEditError invalidBenchmarkInput(std::string reason);
  static ConfigEditError invalidWireEndpoint(WireEndpoint endpoint);
  static ConfigEditError nestedDeviceCycle(std::string identifier);
  static ConfigEditError invalidWireDirection();
  // A channel count (given, or found in the document) that no edit builds channels for.
  static ConfigEditError channelCountOutOfRange(std::int64_t count);

  Case errorCase() const { return case_; }
  // The identifier of the *NotFound cases and of nestedDeviceCycle; empty otherwise.
  const std::string& identifier() const { return text_; }
  // The reason of invalidBenchmarkInput; empty otherwise.
  const std::string& reason() const { return text_; }
  // The endpoint of invalidWireEndpoint; none otherwise.
  const std::optional<WireEndpoint>& endpoint() const { return endpoint_; }

  bool operator==(const ConfigEditError& other) const {
    return case_ == other.case_ && text_ == other.text_ && endpoint_ == other.endpoint_;
  }

 private:
  ConfigEditError(Case errorCase, const std::string& description, std::string text,
                  std::optional<WireEndpoint> endpoint);
  Case case_;
  std::string text_;
  std::optional<WireEndpoint> endpoint_;
};

namespace ConfigEditor {

// The most channels an edit builds wires or gains for; more is refused before anything is
// allocated (far above any device, far below what would take the memory).
inline constexpr std::int64_t maximumChannelCount = 4096;

// Fixed identifiers of the hardware-input benchmark device, so that the document holds at
// most one and the same inputs always give the same device.
inline constexpr std::string_view benchmarkDeviceID = "brisola-benchmark-device";
inline constexpr std::string_view benchmarkSourceID = "brisola-benchmark-source";
inline constexpr std::string_view benchmarkMonitorID = "brisola-benchmark-monitor";

// Lookups: the first device whose id equals deviceID, else deviceNotFound(deviceID).
DeviceConfig requireDevice(std::string_view deviceID, const ConfigSnapshot& in);
std::size_t requireDeviceIndex(std::string_view deviceID, const ConfigSnapshot& in);

// Per-channel gains after setting one channel. An absent list means unity on every channel
// and is kept absent whenever every entry is exactly 1.0. The list is padded with 1.0 up to
// channelCount but never cut; a channel outside 1...length leaves the gains as they were.
// Never throws ConfigEditError.
std::optional<std::vector<double>> updatedChannelGains(
    const std::optional<std::vector<double>>& gains, std::int64_t channelCount,
    std::int64_t channel, double gain);

// Device edits; each returns the device as it is after the change.
DeviceConfig selectDevice(std::string_view deviceID, ConfigSnapshot& in);
// The name is stored as given: not trimmed, and an empty name is accepted.
DeviceConfig renameDevice(std::string_view deviceID, std::string name, ConfigSnapshot& in);
DeviceConfig setDeviceEnabled(std::string_view deviceID, bool enabled, ConfigSnapshot& in);
// Also resizes the device's first pass-thru source to the new count and rewires it straight
// through (source channel c to device channel c), with fresh wire ids appended after the
// other wires.
DeviceConfig setDeviceChannelCount(std::string_view deviceID, std::int64_t channelCount,
                                   ConfigSnapshot& in);
DeviceConfig setDeviceVolume(std::string_view deviceID, double volume, ConfigSnapshot& in);
DeviceConfig setDeviceIcon(std::string_view deviceID, std::string icon, ConfigSnapshot& in);
DeviceConfig setDeviceChannelGain(std::string_view deviceID, std::int64_t channel, double gain,
                                  ConfigSnapshot& in);
// Removes every device with that id. If it was selected, the first remaining device (or
// nothing) becomes selected. Sources of other devices that nest it are left alone. Returns
// the whole document after the change.
ConfigSnapshot deleteDevice(std::string_view deviceID, ConfigSnapshot& in);

// Source and monitor edits; the device is looked up first, then the source or monitor
// inside it (sourceNotFound / monitorNotFound).
SourceConfig setSourceControls(std::string_view deviceID, std::string_view sourceID, bool enabled,
                               bool muted, double gain, ConfigSnapshot& in);
SourceConfig setSourceMuteWhenCapturing(std::string_view deviceID, std::string_view sourceID,
                                        bool muteWhenCapturing, ConfigSnapshot& in);
SourceConfig setSourceChannelGain(std::string_view deviceID, std::string_view sourceID,
                                  std::int64_t channel, double gain, ConfigSnapshot& in);
MonitorConfig setMonitorControls(std::string_view deviceID, std::string_view monitorID,
                                 bool enabled, bool muted, double gain, ConfigSnapshot& in);
MonitorConfig setMonitorChannelGain(std::string_view deviceID, std::string_view monitorID,
                                    std::int64_t channel, double gain, ConfigSnapshot& in);

// Joins two endpoints of the device: source → deviceOutput or deviceOutput → monitor, with
// owners that exist in the device and channels within their owners' counts. The direction is
// checked before either endpoint, and `from` before `to`. When a wire between exactly these
// endpoints exists, the first one is returned and nothing changes; otherwise a wire with a
// fresh UUID id is appended and returned.
Wire connectWire(std::string_view deviceID, const WireEndpoint& from, const WireEndpoint& to,
                 ConfigSnapshot& in);
// Removes every wire of the device with that id (wireNotFound when there is none) and returns
// the device.
DeviceConfig deleteWire(std::string_view deviceID, std::string_view wireID, ConfigSnapshot& in);

// Remove every source (monitor) of the device with that id, and every wire of the device that
// starts (ends) at one of them; sourceNotFound (monitorNotFound) when there is none. Return
// the device.
DeviceConfig deleteSource(std::string_view deviceID, std::string_view sourceID, ConfigSnapshot& in);
DeviceConfig deleteMonitor(std::string_view deviceID, std::string_view monitorID,
                           ConfigSnapshot& in);

// Whether nesting nestedID into parentID would close a cycle: they are the same device, or
// parentID can already be reached from nestedID by following virtualDevice sources.
bool wouldCreateNestedDeviceCycle(std::string_view parentID, std::string_view nestedID,
                                  const ConfigSnapshot& in);

// Appends to deviceID a virtualDevice source taking sourceDeviceID's output, wired straight
// through on max(1, min(source channels, device channels)) channels. idFactory is called once
// for the source, then once per wire in channel order, and never when a check fails.
SourceConfig addVirtualDeviceSource(std::string_view deviceID, std::string_view sourceDeviceID,
                                    ConfigSnapshot& in, const IdFactory& idFactory);

// A source or monitor to add, as a front end describes it. An empty name and a channel count
// below 1 are not given: what the hardware layer found fills them in, else a default.
struct NewSource {
  SourceType type = SourceType::system;
  std::string name;
  std::int64_t channelCount = 0;
  SourceMetadata metadata;
  // The running application of an application source, the input device of a hardwareInput
  // source, when the hardware layer knows it; ignored for other types.
  std::optional<ApplicationSourceCandidate> application;
  std::optional<AudioDeviceInfo> input;
  bool operator==(const NewSource&) const = default;
};

struct NewMonitor {
  std::string deviceUID;
  std::string name;
  std::int64_t channelCount = 0;
  // The output device with that UID, when the hardware layer knows it.
  std::optional<AudioDeviceInfo> output;
  bool operator==(const NewMonitor&) const = default;
};

// Append to deviceID an enabled, unmuted source (monitor) at unity gain and, when `wired`,
// wire it channel for channel to (from) the device's output on the channels both have. A count
// is the one given, else the found device's when positive, else 2. idFactory is called once for
// the element, then once per wire in channel order, and never when a check fails; more wires
// than maximumChannelCount are channelCountOutOfRange. Metadata is stored as given, unchecked:
// a source without identity is the validator's to report.
//
// An application source takes the metadata it lacks from the running application and is
// named after it, else after its bundle identifier, else "Application <pid>". A system source
// is named "System Audio". A hardwareInput source is named after its input device, else after
// its device UID, and only it takes the input's channel count.
SourceConfig addSource(std::string_view deviceID, const NewSource& source, bool wired,
                       ConfigSnapshot& in, const IdFactory& idFactory);
// Named after the output device, else after its UID.
MonitorConfig addMonitor(std::string_view deviceID, const NewMonitor& monitor, bool wired,
                         ConfigSnapshot& in, const IdFactory& idFactory);

// Replaces any earlier benchmark device with a fresh two-channel device fed by one hardware
// input on two adjacent channels starting at sourceFirstChannel, appends it at the end of the
// devices and selects it. Texts are trimmed. Throws invalidBenchmarkInput.
DeviceConfig prepareHardwareInputBenchmarkDevice(std::string_view inputUID,
                                                 std::string_view inputName,
                                                 std::int64_t inputChannelCount,
                                                 std::int64_t sourceFirstChannel,
                                                 ConfigSnapshot& in);
// As above, and the device also plays on one monitor. A blank sourceInputBackend is stored
// as absent.
DeviceConfig prepareHardwareInputMonitorBenchmarkDevice(
    std::string_view inputUID, std::string_view inputName, std::int64_t inputChannelCount,
    std::string_view monitorUID, std::string_view monitorName, std::int64_t monitorChannelCount,
    std::int64_t sourceFirstChannel, const std::optional<std::string>& sourceInputBackend,
    ConfigSnapshot& in);

}  // namespace ConfigEditor

}  // namespace brisola
