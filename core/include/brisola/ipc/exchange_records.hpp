#pragma once

// Records the core library hands to the product's other programs, with their JSON forms.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "brisola/model/enum_cases.hpp"
#include "brisola/model/json_coding.hpp"
#include "brisola/validation/validation.hpp"

namespace brisola {

struct DeviceTemplate {
  std::string name;
  double sampleRate = 0.0;
  std::int64_t channelCount = 0;
  bool operator==(const DeviceTemplate&) const = default;
};

enum class PermissionStatus { notDetermined, granted, denied, restricted, unknown };

template <>
struct EnumCases<PermissionStatus> {
  static constexpr std::array<std::pair<PermissionStatus, std::string_view>, 5> cases{{
      {PermissionStatus::notDetermined, "notDetermined"},
      {PermissionStatus::granted, "granted"},
      {PermissionStatus::denied, "denied"},
      {PermissionStatus::restricted, "restricted"},
      {PermissionStatus::unknown, "unknown"},
  }};
};

struct HealthReport {
  std::string agentVersion;
  std::string minimumSupportedOS;
  std::string configURL;
  std::int64_t deviceCount = 0;
  ValidationResult validation;
  PermissionStatus audioCapturePermission = PermissionStatus::unknown;
  PermissionStatus microphonePermission = PermissionStatus::unknown;
  bool halDriverLoaded = false;
  bool operator==(const HealthReport&) const = default;
};

struct ApplicationSourceCandidate {
  std::string displayName;
  std::optional<std::string> bundleIdentifier;
  std::optional<std::int32_t> pid;
  std::optional<std::uint64_t> processObjectID;
  bool operator==(const ApplicationSourceCandidate&) const = default;
};

struct AudioDeviceInfo {
  std::string uid;
  std::string name;
  std::int64_t channelCount = 0;
  bool isDefault = false;
  std::optional<std::vector<std::string>> channelNames;
  bool operator==(const AudioDeviceInfo&) const = default;
};

struct AudioDeviceInventory {
  std::vector<AudioDeviceInfo> inputs;
  std::vector<AudioDeviceInfo> outputs;
  bool operator==(const AudioDeviceInventory&) const = default;
};

struct InstallResult {
  bool succeeded = false;
  std::string message;
  bool operator==(const InstallResult&) const = default;
};

std::string encodeJSON(const DeviceTemplate& value);
std::string encodeJSON(PermissionStatus value);
std::string encodeJSON(const HealthReport& value);
std::string encodeJSON(const ApplicationSourceCandidate& value);
std::string encodeJSON(const std::vector<ApplicationSourceCandidate>& value);
std::string encodeJSON(const AudioDeviceInfo& value);
std::string encodeJSON(const AudioDeviceInventory& value);
std::string encodeJSON(const InstallResult& value);

DeviceTemplate decodeJSON(std::string_view bytes, JSONTag<DeviceTemplate>);
PermissionStatus decodeJSON(std::string_view bytes, JSONTag<PermissionStatus>);
HealthReport decodeJSON(std::string_view bytes, JSONTag<HealthReport>);
ApplicationSourceCandidate decodeJSON(std::string_view bytes, JSONTag<ApplicationSourceCandidate>);
std::vector<ApplicationSourceCandidate> decodeJSON(
    std::string_view bytes, JSONTag<std::vector<ApplicationSourceCandidate>>);
AudioDeviceInfo decodeJSON(std::string_view bytes, JSONTag<AudioDeviceInfo>);
AudioDeviceInventory decodeJSON(std::string_view bytes, JSONTag<AudioDeviceInventory>);
InstallResult decodeJSON(std::string_view bytes, JSONTag<InstallResult>);

}  // namespace brisola
