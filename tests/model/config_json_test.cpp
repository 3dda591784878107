#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <nlohmann/json.hpp>
#include <set>
#include <tuple>
#include <variant>

#include "brisola/devices/core_audio_device_registry.hpp"
#include "brisola/editing/config_editor.hpp"
#include "brisola/ipc/exchange_records.hpp"
#include "brisola/model/json_coding.hpp"
#include "brisola/runtime/control_store.hpp"
#include "brisola/store/config_store.hpp"
#include "model/config_json.hpp"
#include "support/documents.hpp"
#include "support/thrown.hpp"

namespace brisola {
namespace {

using ::testing::HasSubstr;

using Json = nlohmann::json;

// A minimal valid document: one device with a pass-thru source and a system source.
Json baseDocument() {
  return Json::parse(R"({"schemaVersion":2,"ui":{"appearance":"system"},"devices":[{"id":"d",
      "name":"D","enabled":true,"sampleRate":48000,"channelCount":2,"wires":[],"monitors":[
      {"id":"m","name":"M","enabled":true,"muted":false,"gain":1,"deviceUID":"u","channelCount":2}],
      "sources":[
      {"id":"s","type":"passThru","name":"S","enabled":true,"muted":false,"gain":1,"channelCount":2,
       "metadata":{}},
      {"id":"t","type":"system","name":"T","enabled":true,"muted":false,"gain":1,"channelCount":2,
       "metadata":{}}]}]})");
}

std::string changed(const std::function<void(Json&)>& change) {
  Json document = baseDocument();
  change(document);
  return document.dump();
}

const std::string deeplyNested = std::string(100000, '[') + std::string(100000, ']');

template <class T = ConfigSnapshot>
DecodingError decodeFailure(const std::string& text) {
  return testing::thrown<DecodingError>([&] { decodeJSON<T>(text); })
      .value_or(DecodingError(DecodingError::Kind::dataCorrupted, "(none)", "decoded"));
}

TEST(ConfigJSON, AbsentAndNullOptionalKeysTakeTheirDefaultsAndAreWrittenBack) {
  for (bool withNulls : {false, true}) {
    SCOPED_TRACE(withNulls ? "null" : "absent");
    ConfigSnapshot snapshot = decodeJSON<ConfigSnapshot>(changed([&](Json& d) {
      // The id sorts after where uid would be; the default must still use it.
      d["devices"][0]["id"] = "later";
      if (!withNulls) return;
      for (auto key : {"volume", "uid", "icon", "channelGains"}) d["devices"][0][key] = nullptr;
      d["devices"][0]["sources"][0]["muteWhenCapturing"] = nullptr;
      d["devices"][0]["sources"][0]["metadata"] = {{"unknown", nullptr}, {"pid", nullptr}};
      d["ui"]["selectedDeviceID"] = nullptr;
    }));
    // Written back whole: the defaults appear, and what stays absent (no gain list, no
    // selection, empty metadata) is left out.
    Json expected = baseDocument();
    expected["devices"][0].update(Json::parse(
        R"({"id":"later","uid":"app.brisola.device.later","volume":1.0,"icon":"waveform.circle"})"));
    for (auto& source : expected["devices"][0]["sources"]) source["muteWhenCapturing"] = false;
    EXPECT_EQ(Json::parse(encodeJSON(snapshot)), expected);
  }
  // Unknown keys however deeply nested, any schema version, integral reals for integers and
  // integers for reals; a uid other than the derived one and an empty gain list are kept.
  const ConfigSnapshot snapshot = decodeJSON<ConfigSnapshot>(
      R"({"schemaVersion":7,"future":)" + deeplyNested + R"(,"ui":{"appearance":"dark","extra":1},
          "devices":[{"id":"d","name":"D","enabled":false,"sampleRate":44100,"uid":"other",
          "channelCount":4.0,"volume":2,"channelGains":[],"sources":[],"monitors":[],"wires":[]}]})");
  const DeviceConfig& device = snapshot.devices[0];
  EXPECT_EQ(std::tuple(snapshot.schemaVersion, device.sampleRate, device.channelCount,
                       device.volume, device.uid, snapshot.ui.appearance),
            std::tuple(7, 44100.0, 4, 2.0, "other", Appearance::dark));
  EXPECT_EQ(Json::parse(encodeJSON(snapshot))["devices"][0]["channelGains"], Json::array());
}

TEST(ConfigJSON, RichDocumentRoundTripsSortedPrettyAndWithShortestReals) {
  ConfigSnapshot original = testing::richSnapshot();
  original.devices[0].volume = 0.1 + 0.2;
  original.devices[1].sources[0].gain = 5e-324;  // smallest subnormal
  std::string text = encodeJSON(original);
  EXPECT_EQ(decodeJSON<ConfigSnapshot>(text), original);
  EXPECT_EQ(encodeJSON(decodeJSON<ConfigSnapshot>(text)), text) << "writing is not deterministic";
  for (const char* part :
       {"0.30000000000000004", "1e-05", "1.25", "\n  \"devices\": [", "custom.uid/with/slashes"})
    EXPECT_THAT(text, HasSubstr(part));
  // The keys of every object are written sorted: kept in written order, they dump as sorted.
  EXPECT_EQ(nlohmann::ordered_json::parse(text).dump(), Json::parse(text).dump());
  EXPECT_EQ(Json::parse(encodeJSON(ConfigSnapshot::empty())),
            Json::parse(R"({"devices":[],"schemaVersion":2,"ui":{"appearance":"system"}})"));
  // Text that is not UTF-8 and numbers that JSON cannot hold are refused at their own paths.
  auto refusal = [&] { return testing::thrown<EncodingError>([&] { encodeJSON(original); }); };
  original.devices[1].sources[0].name = "bad \xC3";
  EXPECT_EQ(refusal().value_or(EncodingError("", "")).path(), "devices[1].sources[0].name");
  original.devices[1].sources[0].name = "good";
  original.devices[1].sources[0].channelGains = std::vector<double>{1.0, std::nan("")};
  EXPECT_EQ(refusal(), EncodingError("devices[1].sources[0].channelGains[1]",
                                     "the number nan cannot be written as JSON"));
}

// The fast way reads what it takes exactly as the nlohmann way does, and leaves to it what it
// does not take; either way the decoder's answer is the nlohmann way's.
TEST(ConfigJSON, TheFastWayReadsAsTheNlohmannWayOrLeavesTheDocumentToIt) {
  const auto withDevice = [](const std::string& members) {
    return R"({"schemaVersion":2,"ui":{"appearance":"system"},"devices":[{"id":"d","name":"D",)"
           R"("enabled":true,"sampleRate":48000,"sources":[],"monitors":[],"wires":[],)" +
           members + "}]}";
  };
  const std::vector<std::pair<std::string, bool>> documents{
      {encodeJSON(testing::richSnapshot()), true},
      {withDevice(R"("channelCount":2.0,"volume":1e300,"channelGains":[5e-324,-0.0,3])"), true},
      {withDevice(R"("channelCount":-0,"uid":"\u00e9\u0000\ud83c\udfb5","icon":null)"), true},
      {withDevice(R"("channelCount":9223372036854775807,"volume":18446744073709551615)"), true},
      {withDevice(R"("channelCount":2,"name":"twice")"), false},
      {withDevice(R"("channelCount":2,"extra":1,"extra":2)"), false},
      {withDevice(R"("channelCount":2,"volume":123456789012345678901234567890)"), false},
      {"\xEF\xBB\xBF" + encodeJSON(ConfigSnapshot::empty()), false},
  };
  // A snapshot, or the error's description.
  using Outcome = std::variant<ConfigSnapshot, std::string>;
  auto outcome = [](const std::function<ConfigSnapshot()>& decode) {
    try {
      return Outcome(decode());
    } catch (const DecodingError& error) {
      return Outcome(error.what());
    }
  };
  for (const auto& [text, fast] : documents) {
    SCOPED_TRACE(text);
    const auto reference = outcome([&] { return json::readSnapshot(json::parse(text), ""); });
    EXPECT_EQ(outcome([&] { return decodeJSON<ConfigSnapshot>(text); }), reference);
    const auto fastRead = json::decodeSnapshotFast(text);
    EXPECT_EQ(fastRead.has_value(), fast);
    EXPECT_EQ(fastRead ? Outcome(*fastRead) : reference, reference);
  }
}

// The base document with the value at a JSON pointer replaced.
std::string with(const char* pointer, const Json& value) {
  return changed([&](Json& d) { d[Json::json_pointer(pointer)] = value; });
}

TEST(ConfigJSON, ReadFailuresNameTheKeyPathAndTheProblem) {
  using Kind = DecodingError::Kind;
  const std::string wire = R"([{"id":"w","from":{"kind":"source","ownerID":"s","channel":1},
                                "to":{"kind":"output","ownerID":"d","channel":1}}])";
  const std::vector<std::tuple<std::string, Kind, std::string>> cases{
      {changed([](Json& d) { d["devices"][0]["sources"][1].erase("channelCount"); }),
       Kind::keyNotFound, "devices[0].sources[1].channelCount"},
      {with("/devices/0/sources/0/type", "PassThru"), Kind::unknownCase,
       "devices[0].sources[0].type"},
      {with("/devices/0/channelCount", 2.5), Kind::typeMismatch, "devices[0].channelCount"},
      {with("/devices/0/sources/0/metadata/pid", 4294967296ULL), Kind::valueOutOfRange,
       "devices[0].sources[0].metadata.pid"},
      {with("/devices/0/sources/1/metadata/processObjectID", -1), Kind::valueOutOfRange,
       "devices[0].sources[1].metadata.processObjectID"},
      {with("/devices/0/volume", "1.0"), Kind::typeMismatch, "devices[0].volume"},
      {with("/devices/0/sources/0/gain", nullptr), Kind::typeMismatch,
       "devices[0].sources[0].gain"},
      {with("/devices", Json::object()), Kind::typeMismatch, "devices"},
      {with("/devices/0/wires", Json::parse(wire)), Kind::unknownCase,
       "devices[0].wires[0].to.kind"},
      {"[]", Kind::typeMismatch, ""},
      {"schemaVersion: 2", Kind::dataCorrupted, ""},
      {R"({"schemaVersion":2,"devices":[],"ui":{"appearance":1e400}})", Kind::dataCorrupted, ""},
      {"{\"schemaVersion\":2,\"devices\":[],\"ui\":{\"appearance\":\"\xff\"}}", Kind::dataCorrupted,
       ""},
      {std::string(R"({"schemaVersion":2,"devices":[]})") + '\0' + "x", Kind::dataCorrupted, ""},
      {R"({"schemaVersion":2,"devices":[{"id":"a"},{"id":"b","name":"x","name":"y"}]})",
       Kind::dataCorrupted, "devices[1].name"},
      {R"({"schemaVersion":2,"devices":[],"schemaVersion":2})", Kind::dataCorrupted,
       "schemaVersion"},
      {R"({"schemaVersion":2,"devices":[)" + deeplyNested + "]}", Kind::typeMismatch, "devices[0]"},
      {std::string(100000, '['), Kind::dataCorrupted, ""},
  };
  for (const auto& [text, kind, path] : cases) {
    SCOPED_TRACE(text);
    DecodingError error = decodeFailure(text);
    EXPECT_EQ(std::pair(error.kind(), error.path()), std::pair(kind, path)) << error.what();
    EXPECT_THAT(error.what(), HasSubstr(path));
  }
}

TEST(MakeDefault, TakesIdentifiersFromTheFactoryInContractOrder) {
  DeviceConfig expected{.id = "n1", .enabled = true, .sampleRate = 44100.0, .channelCount = 2};
  expected.sources = {testing::passThruSource("n2")};
  expected.wires = {testing::wire("n3", testing::sourceEnd("n2", 1), testing::outputEnd("n1", 1)),
                    testing::wire("n4", testing::sourceEnd("n2", 2), testing::outputEnd("n1", 2))};
  testing::CountingIdFactory factory{.prefix = "n"};
  EXPECT_EQ(DeviceConfig::makeDefault("", 44100.0, std::ref(factory)), expected);
  EXPECT_EQ(factory.calls, 4);
}

// The texts other programs and users read: every record's JSON form, every enumeration's
// spelling and every error's description.

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
    EXPECT_EQ(decodeFailure<T>(missing.dump()),
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
  expectForm(
      HealthReport{"1.2.3", "14.4.0", "/x/Application Support/Brisola/config.json", 3, validation,
                   PermissionStatus::granted, PermissionStatus::notDetermined, true},
      {"agentVersion", "minimumSupportedOS", "configURL", "deviceCount", "validation",
       "audioCapturePermission", "microphonePermission", "halDriverLoaded"});
  expectForm(ApplicationSourceCandidate{"A", "com.example.a", 2147483647, 18446744073709551615ULL},
             {"displayName"}, {"bundleIdentifier", "pid", "processObjectID"});
  const AudioDeviceInfo mic{"mic", "Mic", 2, true, std::vector<std::string>{"Left", ""}};
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
  EXPECT_EQ(decodeJSON<PermissionStatus>("\"denied\""), PermissionStatus::denied);
  EXPECT_THROW(decodeJSON<PermissionStatus>("\"Granted\""), DecodingError);
}

TEST(ErrorTexts, EveryErrorDescribesItselfInFull) {
  using Edit = ConfigEditError;
  using Shm = RuntimeControlStoreError;
  const std::vector<std::pair<std::string, std::string>> rows{
      {ConfigStoreError::missingConfig("/d/c").what(), "No Brisola config exists at /d/c."},
      {ConfigStoreError::invalidConfig({.errors = {{}}, .warnings = {{}, {}}}).what(),
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
      {Edit::invalidBenchmarkInput("no UID").what(), "Invalid benchmark input: no UID."},
      {Shm::openFailed(13).what(), "Could not open Brisola runtime shared memory: errno 13."},
      {Shm::resizeFailed(22).what(), "Could not size Brisola runtime shared memory: errno 22."},
      {Shm::mapFailed(12).what(), "Could not map Brisola runtime shared memory: errno 12."},
      {Shm::writeFailed(28).what(),
       "Could not write Brisola runtime shared memory: errno 28 (No space left on device)."},
      {Shm::invalidState().what(),
       "Brisola runtime shared memory did not contain a valid control state."},
      {decodeFailure<Wire>(R"({"id":"w","from":{}})").what(),
       "Invalid JSON at from.kind: the required key is missing."},
      {decodeFailure<Wire>(R"({"id":"w","from":{"kind":"source","ownerID":1}})").what(),
       "Invalid JSON at from.ownerID: expected a string, found the integer 1."},
      {decodeFailure<Wire>("[true]").what(),
       "Invalid JSON at the top level: expected an object, found an array."},
      {EncodingError("a[1]", "it cannot be written").what(),
       "Cannot write JSON at a[1]: it cannot be written."},
  };
  for (const auto& [description, expected] : rows) EXPECT_EQ(description, expected);
  // The parser's own words, without its "[json.exception...] " prefix.
  EXPECT_THAT(decodeFailure<Wire>("{\"id\":").what(),
              ::testing::MatchesRegex("The data is not valid JSON: [a-z].*\\."));
  // Equality follows the case and the payload, not the description alone.
  EXPECT_NE(Edit::deviceNotFound("x"), Edit::sourceNotFound("x"));
  EXPECT_NE(Edit::invalidWireEndpoint({}), Edit::invalidWireEndpoint({.channel = 1}));
  EXPECT_NE(Shm::openFailed(13), Shm::mapFailed(13));
}

}  // namespace
}  // namespace brisola
