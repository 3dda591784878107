#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <nlohmann/json.hpp>
#include <tuple>
#include <variant>

#include "brisola/model/json_coding.hpp"
#include "model/config_json.hpp"
#include "support/documents.hpp"
#include "support/thrown.hpp"

namespace brisola {
namespace {

using ::testing::HasSubstr;
using testing::richSnapshot;

using Json = nlohmann::json;

// A minimal valid document: one device with a pass-thru source and a system source.
Json baseDocument() {
  return Json::parse(R"({"schemaVersion":2,"ui":{"appearance":"system"},"devices":[{
      "id":"d","name":"D","enabled":true,"sampleRate":48000,"channelCount":2,
      "monitors":[{"id":"m","name":"M","enabled":true,"muted":false,"gain":1,"deviceUID":"u",
                   "channelCount":2}],
      "wires":[],
      "sources":[{"id":"s","type":"passThru","name":"S","enabled":true,"muted":false,"gain":1,
                  "channelCount":2,"metadata":{}},
                 {"id":"t","type":"system","name":"T","enabled":true,"muted":false,"gain":1,
                  "channelCount":2,"metadata":{}}]}]})");
}

std::string changed(const std::function<void(Json&)>& change) {
  Json document = baseDocument();
  change(document);
  return document.dump();
}

DecodingError decodeFailure(const std::string& text) {
  return testing::thrown<DecodingError>([&] { decodeJSON<ConfigSnapshot>(text); })
      .value_or(DecodingError(DecodingError::Kind::dataCorrupted, "(none)", ""));
}

// Checks that every object's keys appear in sorted order in the written text.
void expectKeysSortedEverywhere(const nlohmann::ordered_json& value, const std::string& where) {
  if (value.is_object()) {
    std::string previous;
    for (const auto& [key, member] : value.items()) {
      EXPECT_LT(previous, key) << "keys out of order in " << where;
      previous = key;
      expectKeysSortedEverywhere(member, where + "." + key);
    }
  } else if (value.is_array()) {
    for (const auto& element : value) expectKeysSortedEverywhere(element, where + "[]");
  }
}

TEST(ConfigJSON, AbsentAndNullOptionalKeysTakeTheirDefaultsAndAreWrittenBack) {
  for (bool withNulls : {false, true}) {
    SCOPED_TRACE(withNulls ? "null" : "absent");
    ConfigSnapshot snapshot = decodeJSON<ConfigSnapshot>(changed([&](Json& d) {
      // The id sorts after where uid would be; the default must still use it.
      d["devices"][0]["id"] = "later";
      if (!withNulls) return;
      for (const char* key : {"volume", "uid", "icon", "channelGains"}) {
        d["devices"][0][key] = nullptr;
      }
      d["devices"][0]["sources"][0]["muteWhenCapturing"] = nullptr;
      d["ui"]["selectedDeviceID"] = nullptr;
    }));
    const DeviceConfig& device = snapshot.devices.at(0);
    EXPECT_EQ(std::tuple(device.volume, device.uid, device.icon, device.channelGains),
              std::tuple(1.0, "app.brisola.device.later", "waveform.circle", std::nullopt));
    EXPECT_FALSE(device.sources.at(0).muteWhenCapturing);
    EXPECT_FALSE(snapshot.ui.selectedDeviceID.has_value());

    auto written = Json::parse(encodeJSON(snapshot));
    EXPECT_EQ(written["devices"][0]["uid"], "app.brisola.device.later");
    EXPECT_FALSE(written["devices"][0].contains("channelGains"));
    EXPECT_EQ(written["devices"][0]["sources"][0]["metadata"], Json::object());
    EXPECT_EQ(written["ui"], Json({{"appearance", "system"}}));
  }
  // A stored uid is kept even when it is not the derived form; an empty gain list survives.
  ConfigSnapshot snapshot = decodeJSON<ConfigSnapshot>(changed([](Json& d) {
    d["devices"][0]["uid"] = "other";
    d["devices"][0]["channelGains"] = Json::array();
  }));
  EXPECT_EQ(snapshot.devices[0].uid, "other");
  EXPECT_EQ(Json::parse(encodeJSON(snapshot))["devices"][0]["channelGains"], Json::array());
}

TEST(ConfigJSON, RichDocumentRoundTripsSortedPrettyAndWithShortestReals) {
  ConfigSnapshot original = richSnapshot();
  original.devices[0].volume = 0.1 + 0.2;
  original.devices[1].sources[0].gain = 5e-324;  // smallest subnormal
  std::string text = encodeJSON(original);
  EXPECT_EQ(decodeJSON<ConfigSnapshot>(text), original);
  EXPECT_EQ(encodeJSON(decodeJSON<ConfigSnapshot>(text)), text) << "writing is not deterministic";
  for (const char* part :
       {"0.30000000000000004", "1e-05", "1.25", "\n  \"devices\": [", "custom.uid/with/slashes"}) {
    EXPECT_THAT(text, HasSubstr(part));
  }
  EXPECT_EQ(text.find("\\/"), std::string::npos);
  expectKeysSortedEverywhere(nlohmann::ordered_json::parse(text), "document");
  EXPECT_EQ(Json::parse(encodeJSON(ConfigSnapshot::empty())),
            Json::parse(R"({"devices":[],"schemaVersion":2,"ui":{"appearance":"system"}})"));
  // Text that is not UTF-8 is refused at its own path.
  original.devices[1].sources[0].name = "bad \xC3";
  const auto error = testing::thrown<EncodingError>([&] { encodeJSON(original); });
  ASSERT_TRUE(error) << "text that is not UTF-8 was written";
  EXPECT_EQ(error->path(), "devices[1].sources[0].name") << error->what();
}

TEST(ConfigJSON, ReadingAcceptsWhatTheFormatAllows) {
  // Unknown keys, any schema version, integer-looking reals and whole-valued integers.
  ConfigSnapshot snapshot = decodeJSON<ConfigSnapshot>(
      R"({"schemaVersion":7,"future":{"x":[1,2]},"ui":{"appearance":"dark","extra":1},
          "devices":[{"id":"d","name":"D","enabled":false,"sampleRate":44100,
          "channelCount":4.0,"volume":2,"sources":[],"monitors":[],"wires":[]}]})");
  EXPECT_EQ(snapshot.schemaVersion, 7);
  EXPECT_EQ(snapshot.devices[0].sampleRate, 44100.0);
  EXPECT_EQ(snapshot.devices[0].channelCount, 4);
  EXPECT_EQ(snapshot.ui.appearance, Appearance::dark);

  auto nulls = decodeJSON<ConfigSnapshot>(changed([](Json& d) {
    d["devices"][0]["sources"][0]["metadata"] = {{"unknown", nullptr}, {"pid", nullptr}};
  }));
  EXPECT_EQ(nulls.devices[0].sources[0].metadata, SourceMetadata{});
}

// The fast way reads what it takes exactly as the nlohmann way does, and leaves to it what it
// does not take; either way the decoder's answer is the nlohmann way's.
TEST(ConfigJSON, TheFastWayReadsAsTheNlohmannWayOrLeavesTheDocumentToIt) {
  const auto withDevice = [](const char* members) {
    return std::string(R"({"schemaVersion":2,"ui":{"appearance":"system"},"devices":[{)") +
           R"("id":"d","name":"D","enabled":true,"sampleRate":48000,"sources":[],"monitors":[],)"
           R"("wires":[],)" +
           members + "}]}";
  };
  const std::vector<std::pair<std::string, bool>> documents{
      {encodeJSON(richSnapshot()), true},
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
    if (fastRead) {
      EXPECT_EQ(Outcome(*fastRead), reference);
    }
  }
}

struct FailureCase {
  const char* name;
  std::string text;
  DecodingError::Kind kind;
  std::string path;
};

TEST(ConfigJSON, ReadFailuresNameTheKeyPathAndTheProblem) {
  using Kind = DecodingError::Kind;
  auto device = [](Json& d) -> Json& { return d["devices"][0]; };
  auto source = [&](Json& d, int i) -> Json& { return device(d)["sources"][i]; };
  std::vector<FailureCase> cases = {
      {"missing channelCount in the second source",
       changed([&](Json& d) { source(d, 1).erase("channelCount"); }), Kind::keyNotFound,
       "devices[0].sources[1].channelCount"},
      {"enumeration in the wrong case",
       changed([&](Json& d) { source(d, 0)["type"] = "PassThru"; }), Kind::unknownCase,
       "devices[0].sources[0].type"},
      {"fractional integer", changed([&](Json& d) { device(d)["channelCount"] = 2.5; }),
       Kind::typeMismatch, "devices[0].channelCount"},
      {"pid beyond 32 bits",
       changed([&](Json& d) { source(d, 0)["metadata"]["pid"] = 4294967296ULL; }),
       Kind::valueOutOfRange, "devices[0].sources[0].metadata.pid"},
      {"negative process object",
       changed([&](Json& d) { source(d, 1)["metadata"]["processObjectID"] = -1; }),
       Kind::valueOutOfRange, "devices[0].sources[1].metadata.processObjectID"},
      {"string for a number", changed([&](Json& d) { device(d)["volume"] = "1.0"; }),
       Kind::typeMismatch, "devices[0].volume"},
      {"null for a required key", changed([&](Json& d) { source(d, 0)["gain"] = nullptr; }),
       Kind::typeMismatch, "devices[0].sources[0].gain"},
      {"object for a list", changed([](Json& d) { d["devices"] = Json::object(); }),
       Kind::typeMismatch, "devices"},
      {"wire endpoint kind", changed([&](Json& d) {
         device(d)["wires"] = Json::parse(R"([{"id":"w","from":{"kind":"source","ownerID":"s",
             "channel":1},"to":{"kind":"output","ownerID":"d","channel":1}}])");
       }),
       Kind::unknownCase, "devices[0].wires[0].to.kind"},
      {"array at the top", "[]", Kind::typeMismatch, ""},
      {"not JSON", "schemaVersion: 2", Kind::dataCorrupted, ""},
      {"number beyond a double", R"({"schemaVersion":2,"devices":[],"ui":{"appearance":1e400}})",
       Kind::dataCorrupted, ""},
      {"invalid UTF-8", "{\"schemaVersion\":2,\"devices\":[],\"ui\":{\"appearance\":\"\xff\"}}",
       Kind::dataCorrupted, ""},
      {"garbage after a NUL byte", std::string(R"({"schemaVersion":2,"devices":[]})") + '\0' + "x",
       Kind::dataCorrupted, ""},
      {"repeated key in an array element",
       R"({"schemaVersion":2,"devices":[{"id":"a"},{"id":"b","name":"x","name":"y"}]})",
       Kind::dataCorrupted, "devices[1].name"},
      {"repeated top-level key", R"({"schemaVersion":2,"devices":[],"schemaVersion":2})",
       Kind::dataCorrupted, "schemaVersion"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    DecodingError error = decodeFailure(c.text);
    EXPECT_EQ(error.kind(), c.kind) << error.what();
    EXPECT_EQ(error.path(), c.path) << error.what();
    if (!c.path.empty()) {
      EXPECT_THAT(error.what(), HasSubstr(c.path));
    }
  }
}

TEST(ConfigJSON, DeeplyNestedGarbageFailsOrIsIgnoredWithoutCrashing) {
  const std::size_t depth = 100000;
  std::string nested = std::string(depth, '[') + std::string(depth, ']');
  // Under an unknown key the structure is parsed and ignored.
  std::string document =
      R"({"schemaVersion":2,"devices":[],"ui":{"appearance":"system"},"x":)" + nested + "}";
  EXPECT_EQ(decodeJSON<ConfigSnapshot>(document), ConfigSnapshot::empty());
  // In place of a device it is a type error at that element.
  document = R"({"schemaVersion":2,"ui":{"appearance":"system"},"devices":[)" + nested + "]}";
  EXPECT_EQ(decodeFailure(document).path(), "devices[0]");
  // Unbalanced: not JSON.
  EXPECT_EQ(decodeFailure(std::string(depth, '[')).kind(), DecodingError::Kind::dataCorrupted);
}

TEST(MakeDefault, TakesIdentifiersFromTheFactoryInContractOrder) {
  testing::CountingIdFactory factory{.prefix = "n"};
  DeviceConfig device = DeviceConfig::makeDefault("", 44100.0, std::ref(factory));
  EXPECT_EQ(factory.calls, 4);
  DeviceConfig expected{.id = "n1", .enabled = true, .sampleRate = 44100.0, .channelCount = 2};
  expected.sources = {testing::passThruSource("n2")};
  expected.wires = {testing::wire("n3", testing::sourceEnd("n2", 1), testing::outputEnd("n1", 1)),
                    testing::wire("n4", testing::sourceEnd("n2", 2), testing::outputEnd("n1", 2))};
  EXPECT_EQ(device, expected);
  EXPECT_EQ(device.uid, "app.brisola.device.n1");
}

}  // namespace
}  // namespace brisola
