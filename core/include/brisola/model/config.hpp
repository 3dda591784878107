#pragma once

// The configuration document: one JSON object holding the virtual devices, their sources,
// monitors and wires, and a little front-end state. Records are plain values; their JSON
// forms live in json_coding.hpp.

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "brisola/model/enum_cases.hpp"

namespace brisola {

// Product constants shared by every part of the library.
namespace BrisolaCore {
inline constexpr std::int64_t schemaVersion = 2;
inline constexpr double engineSampleRate = 48000.0;
inline constexpr std::int64_t runtimeAudioChannelCount = 2;
inline constexpr std::string_view defaultDeviceIcon = "waveform.circle";
inline constexpr std::string_view passThruDeviceUID = "dev.kestrine.pass-thru";
inline constexpr std::string_view passThruDeviceName = "Brisola";
inline constexpr std::string_view halBundleID = "app.brisola.hal";
inline constexpr std::string_view derivedDeviceUIDPrefix = "app.brisola.device.";

struct OperatingSystemVersion {
  int majorVersion = 0;
  int minorVersion = 0;
  int patchVersion = 0;
  bool operator==(const OperatingSystemVersion&) const = default;
  // "major.minor.patch", for example "14.4.0".
  std::string description() const;
};
inline constexpr OperatingSystemVersion minimumSupportedOS{14, 4, 0};

// "app.brisola.device." followed by the id, nothing in between.
std::string derivedDeviceUID(std::string_view deviceID);
}  // namespace BrisolaCore

// The product's names as used for files and bundles.
namespace Branding {
inline constexpr std::string_view productName = "Brisola";
inline constexpr std::string_view manufacturerName = "Brisola";
inline constexpr std::string_view dataDirectoryName = "Brisola";
inline constexpr std::string_view driverBundleBasename = "BrisolaHAL";
inline constexpr std::string_view legacyDataDirectoryName = "Kestrine";
inline constexpr std::array<std::string_view, 1> legacyDriverBundleBasenames{"KestrineHAL"};
}  // namespace Branding

enum class Appearance { system, light, dark };
enum class SourceType { passThru, application, system, hardwareInput, virtualDevice };
enum class EndpointKind { source, deviceOutput, monitor };

template <>
struct EnumCases<Appearance> {
  static constexpr std::array<std::pair<Appearance, std::string_view>, 3> cases{{
      {Appearance::system, "system"},
      {Appearance::light, "light"},
      {Appearance::dark, "dark"},
  }};
};

template <>
struct EnumCases<SourceType> {
  static constexpr std::array<std::pair<SourceType, std::string_view>, 5> cases{{
      {SourceType::passThru, "passThru"},
      {SourceType::application, "application"},
      {SourceType::system, "system"},
      {SourceType::hardwareInput, "hardwareInput"},
      {SourceType::virtualDevice, "virtualDevice"},
  }};
};

template <>
struct EnumCases<EndpointKind> {
  static constexpr std::array<std::pair<EndpointKind, std::string_view>, 3> cases{{
      {EndpointKind::source, "source"},
      {EndpointKind::deviceOutput, "deviceOutput"},
      {EndpointKind::monitor, "monitor"},
  }};
};

// Supplies a fresh identifier each time it is called.
using IdFactory = std::function<std::string()>;

struct UIState {
  std::optional<std::string> selectedDeviceID;
  Appearance appearance = Appearance::system;
  bool operator==(const UIState&) const = default;
};

struct SourceMetadata {
  std::optional<std::string> bundleIdentifier;
  std::optional<std::int32_t> pid;
  std::optional<std::uint64_t> processObjectID;
  std::optional<std::string> tapUUID;
  std::optional<std::string> deviceUID;
  std::optional<std::string> inputBackend;
  std::optional<std::string> sourceDeviceID;
  bool operator==(const SourceMetadata&) const = default;
};

struct SourceConfig {
  std::string id;
  SourceType type = SourceType::passThru;
  std::string name;
  bool enabled = false;
  bool muted = false;
  double gain = 0.0;
  std::optional<std::vector<double>> channelGains;
  std::int64_t channelCount = 0;
  bool muteWhenCapturing = false;
  SourceMetadata metadata;
  bool operator==(const SourceConfig&) const = default;
};

struct MonitorConfig {
  std::string id;
  std::string name;
  bool enabled = false;
  bool muted = false;
  double gain = 0.0;
  std::optional<std::vector<double>> channelGains;
  std::string deviceUID;
  std::int64_t channelCount = 0;
  bool operator==(const MonitorConfig&) const = default;
};

struct WireEndpoint {
  EndpointKind kind = EndpointKind::source;
  std::string ownerID;
  std::int64_t channel = 0;
  bool operator==(const WireEndpoint&) const = default;
};

struct Wire {
  std::string id;
  WireEndpoint from;
  WireEndpoint to;
  bool operator==(const Wire&) const = default;
};

// Wires channel c of one owner to channel c of another, c = 1...channelCount (none below 1),
// taking one id from idFactory per wire in channel order.
std::vector<Wire> channelForChannelWires(EndpointKind fromKind, std::string_view fromOwnerID,
                                         EndpointKind toKind, std::string_view toOwnerID,
                                         std::int64_t channelCount, const IdFactory& idFactory);

struct DeviceConfig {
  std::string id;
  std::string name;
  bool enabled = false;
  double sampleRate = 0.0;
  std::int64_t channelCount = 0;
  double volume = 1.0;
  std::optional<std::vector<double>> channelGains;
  // Derived from the id given above it when none is given; never re-derived afterwards.
  std::string uid = BrisolaCore::derivedDeviceUID(id);
  std::string icon = std::string(BrisolaCore::defaultDeviceIcon);
  std::vector<SourceConfig> sources;
  std::vector<MonitorConfig> monitors;
  std::vector<Wire> wires;
  bool operator==(const DeviceConfig&) const = default;

  // A stereo device whose pass-thru source is wired straight through. Calls idFactory
  // exactly four times: device, source, wire 1, wire 2.
  static DeviceConfig makeDefault(std::string name, double sampleRate, const IdFactory& idFactory);
};

struct ConfigSnapshot {
  std::int64_t schemaVersion = BrisolaCore::schemaVersion;
  std::vector<DeviceConfig> devices;
  UIState ui;
  bool operator==(const ConfigSnapshot&) const = default;

  // Current schema, no devices, nothing selected, system appearance.
  static ConfigSnapshot empty();
};

}  // namespace brisola
