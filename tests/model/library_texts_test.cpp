// The texts other programs and users read: every record's JSON form, every enumeration's
// spelling and every error's description.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <nlohmann/json.hpp>
#include <set>

#include "brisola/devices/core_audio_device_registry.hpp"
#include "brisola/editing/config_editor.hpp"
#include "brisola/ipc/exchange_records.hpp"
#include "brisola/runtime/control_store.hpp"
#include "brisola/store/config_store.hpp"
#include "support/documents.hpp"
#include "support/thrown.hpp"

namespace brisola {
namespace {

using Json = nlohmann::json;
using Keys = std::set<std::string>;

// Reads back equal, is written with exactly the required and optional keys, and is refused
// without a required key, the failure naming it.
template <class T>
void expectForm(const T& sample, const Keys& required, const Keys& optional = {}) {
  const std::string text = encodeJSON(sample);
  EXPECT_EQ(decodeJSON<T>(text), sample) << text;
  const Json written = Json::parse(text);
  Keys keys, expected = required;
  expected.insert(optional.begin(), optional.end());
  for (const auto& [key, value] : written.items()) keys.insert(key);
  EXPECT_EQ(keys, expected);
  for (const auto& key : keys) {
    SCOPED_TRACE("without " + key);
    Json missing = written;
    missing.erase(key);
    if (optional.contains(key)) {
      EXPECT_NO_THROW(decodeJSON<T>(missing.dump()));
      continue;
    }
    const auto error = testing::thrown<DecodingError>([&] { decodeJSON<T>(missing.dump()); });
    EXPECT_EQ(error.value_or(DecodingError({}, "(none)", "")),
              DecodingError(DecodingError::Kind::keyNotFound, key, "the required key is missing"));
  }
}

TEST(JSONForms, EveryRecordRoundTripsWithItsKeysAndNamesAMissingOne) {
  const ConfigSnapshot rich = testing::richSnapshot();
  const DeviceConfig& studio = rich.devices[0];
  expectForm(rich, {"schemaVersion", "devices", "ui"});
  expectForm(
      studio,
      {"id", "name", "enabled", "sampleRate", "channelCount", "sources", "monitors", "wires"},
      {"volume", "channelGains", "uid", "icon"});
  expectForm(studio.sources[1],
             {"id", "type", "name", "enabled", "muted", "gain", "channelCount", "metadata"},
             {"channelGains", "muteWhenCapturing"});
  expectForm(studio.monitors[0],
             {"id", "name", "enabled", "muted", "gain", "deviceUID", "channelCount"},
             {"channelGains"});
  expectForm(studio.wires[0], {"id", "from", "to"});

  const ValidationIssue issue{"device.emptyName", "Quote \" and caf\u00E9.", "devices[0].name"};
  expectForm(issue, {"code", "message", "path"});
  const ValidationResult validation{.errors = {issue, issue}, .warnings = {}};
  expectForm(validation, {"errors", "warnings"});
  expectForm(HealthReport{.agentVersion = "1.2.3",
                          .minimumSupportedOS = "14.4.0",
                          .configURL = "/x/Application Support/Brisola/config.json",
                          .deviceCount = 3,
                          .validation = validation,
                          .audioCapturePermission = PermissionStatus::granted,
                          .microphonePermission = PermissionStatus::notDetermined,
                          .halDriverLoaded = true},
             {"agentVersion", "minimumSupportedOS", "configURL", "deviceCount", "validation",
              "audioCapturePermission", "microphonePermission", "halDriverLoaded"});
  expectForm(ApplicationSourceCandidate{.displayName = "A",
                                        .bundleIdentifier = "com.example.a",
                                        .pid = 2147483647,
                                        .processObjectID = 18446744073709551615ULL},
             {"displayName"}, {"bundleIdentifier", "pid", "processObjectID"});
  const AudioDeviceInfo mic{.uid = "mic",
                            .name = "Mic",
                            .channelCount = 2,
                            .isDefault = true,
                            .channelNames = std::vector<std::string>{"Left", ""}};
  expectForm(mic, {"uid", "name", "channelCount", "isDefault"}, {"channelNames"});
  expectForm(AudioDeviceInventory{.inputs = {mic}, .outputs = {}}, {"inputs", "outputs"});
  expectForm(DeviceTemplate{.name = "New", .sampleRate = 44100.5, .channelCount = 4},
             {"name", "sampleRate", "channelCount"});
  expectForm(InstallResult{.succeeded = false, .message = "Driver/plug-in missing"},
             {"succeeded", "message"});
  expectForm(HALDeviceSummary{"app.brisola.device.\xC3\xA9/1", "Mix \"A\"", 0, 2},
             {"uid", "name", "inputChannelCount", "outputChannelCount"});
  expectForm(RuntimeChannelRoute{3, 1}, {"sourceChannel", "outputChannel"});
  const RuntimeDeviceControls controls("u/1", "n", "i", 8, true, 0.1f, {0.1f, 1.5f}, false, true,
                                       0.5f, {{1, 2}, {3, 4}});
  expectForm(controls, {"uid", "name", "icon", "channelCount", "deviceEnabled", "deviceGain",
                        "channelGains", "sourceEnabled", "muted", "sourceGain", "routes"});
  // Floats as their own shortest decimal, not the digits of the widened double.
  EXPECT_THAT(encodeJSON(controls), ::testing::HasSubstr("\"deviceGain\": 0.1,"));
}

template <class E>
std::string spellings() {
  std::string text;
  for (const auto& [value, name] : allCases<E>()) {
    EXPECT_EQ(enumFromName<E>(name), value);
    text += std::string(text.empty() ? "" : " ") + std::string(name);
  }
  return text;
}

TEST(JSONForms, EnumerationsAreSpelledExactlyAndNoOtherWay) {
  EXPECT_EQ(spellings<SourceType>(), "passThru application system hardwareInput virtualDevice");
  EXPECT_EQ(spellings<EndpointKind>(), "source deviceOutput monitor");
  EXPECT_EQ(spellings<Appearance>(), "system light dark");
  EXPECT_EQ(spellings<PermissionStatus>(), "notDetermined granted denied restricted unknown");
  EXPECT_EQ(spellings<ApplicationActivationPolicy>(), "regular accessory prohibited");
  EXPECT_EQ(enumFromName<SourceType>("PassThru"), std::nullopt);
  EXPECT_EQ(decodeJSON<PermissionStatus>("\"denied\""), PermissionStatus::denied);
  EXPECT_THROW(decodeJSON<PermissionStatus>("\"Granted\""), DecodingError);
}

std::string decodingFailure(const std::string& text) {
  const auto error = testing::thrown<DecodingError>([&] { decodeJSON<Wire>(text); });
  return error ? error->what() : "decoded";
}

TEST(ErrorTexts, EveryErrorDescribesItselfInFull) {
  using Edit = ConfigEditError;
  using Shm = RuntimeControlStoreError;
  const ValidationIssue issue{"c", "m", "p"};
  const std::vector<std::pair<std::string, std::string>> rows{
      {ConfigStoreError::missingConfig("/d/config.json").what(),
       "No Brisola config exists at /d/config.json."},
      {ConfigStoreError::invalidConfig({.errors = {issue}, .warnings = {issue, issue}}).what(),
       "Config contains 1 validation error(s)."},
      {Edit::deviceNotFound("d/1").what(), "No device exists with ID 'd/1'."},
      {Edit::sourceNotFound("s").what(), "No source exists with ID 's'."},
      {Edit::monitorNotFound("m").what(), "No monitor exists with ID 'm'."},
      {Edit::wireNotFound("it's").what(), "No wire exists with ID 'it's'."},
      {Edit::invalidWireEndpoint({EndpointKind::monitor, "spk", -2}).what(),
       "Wire endpoint monitor:spk:-2 is not valid for the device."},
      {Edit::nestedDeviceCycle("b").what(),
       "Adding device 'b' as a source would create a nested-device cycle."},
      {Edit::invalidWireDirection().what(),
       "Wire direction must be source-to-deviceOutput or deviceOutput-to-monitor."},
      {Edit::invalidBenchmarkInput("input UID must not be empty").what(),
       "Invalid benchmark input: input UID must not be empty."},
      {Shm::openFailed(13).what(), "Could not open Brisola runtime shared memory: errno 13."},
      {Shm::resizeFailed(22).what(), "Could not size Brisola runtime shared memory: errno 22."},
      {Shm::mapFailed(12).what(), "Could not map Brisola runtime shared memory: errno 12."},
      {Shm::writeFailed(28).what(),
       "Could not write Brisola runtime shared memory: errno 28 (No space left on device)."},
      {Shm::invalidState().what(),
       "Brisola runtime shared memory did not contain a valid control state."},
      {decodingFailure(R"({"id":"w","from":{}})"),
       "Invalid JSON at from.kind: the required key is missing."},
      {decodingFailure(R"({"id":"w","from":{"kind":"source","ownerID":1}})"),
       "Invalid JSON at from.ownerID: expected a string, found the integer 1."},
      {decodingFailure("[true]"),
       "Invalid JSON at the top level: expected an object, found an array."},
      {[] {
         ConfigSnapshot snapshot = testing::richSnapshot();
         snapshot.devices[1].sources[0].channelGains = std::vector<double>{1.0, std::nan("")};
         const auto error = testing::thrown<EncodingError>([&] { encodeJSON(snapshot); });
         return std::string(error ? error->what() : "encoded");
       }(),
       "Cannot write JSON at devices[1].sources[0].channelGains[1]: the number nan cannot be "
       "written as JSON."},
  };
  for (const auto& [description, expected] : rows) EXPECT_EQ(description, expected);
  // The parser's own words, without its "[json.exception...] " prefix.
  EXPECT_THAT(decodingFailure("{\"id\":"),
              ::testing::MatchesRegex("The data is not valid JSON: [a-z].*\\."));
  // Equality follows the case and the payload, not the description alone.
  EXPECT_NE(Edit::deviceNotFound("x"), Edit::sourceNotFound("x"));
  EXPECT_NE(Edit::invalidWireEndpoint({}), Edit::invalidWireEndpoint({.channel = 1}));
  EXPECT_NE(Shm::openFailed(13), Shm::mapFailed(13));
}

}  // namespace
}  // namespace brisola
