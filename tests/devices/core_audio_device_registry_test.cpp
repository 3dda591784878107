#include "brisola/devices/core_audio_device_registry.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "devices/fixed_locale.hpp"
#include "support/test_hardware.hpp"

namespace brisola {
namespace {

using testing::bytesOf;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::TestHardware;
using Registry = CoreAudioDeviceRegistry;
using Json = nlohmann::json;

constexpr auto kInput = kAudioObjectPropertyScopeInput;
constexpr AudioObjectID kSystem = kAudioObjectSystemObject;

std::vector<std::string> names(const std::vector<AudioDeviceInfo>& devices) {
  std::vector<std::string> result;
  for (const auto& device : devices) result.push_back(device.name);
  return result;
}

std::vector<std::string> summaryNames(const HardwareLayer& hardware) {
  std::vector<std::string> result;
  for (const auto& summary : Registry::brisolaDeviceSummaries(hardware)) {
    result.push_back(summary.name);
  }
  return result;
}

class RegistryTest : public ::testing::Test {
 protected:
  testing::FixedICULocale locale_{"en_US"};
};

TEST_F(RegistryTest, NoDevicesOrProcessesGiveEmptyAnswersWhetherListedOrUnreadable) {
  for (const std::string lists : {"", R"("devices": [], "processes": [],)"}) {
    SCOPED_TRACE(lists.empty() ? "list queries fail" : "empty lists");
    TestHardware hardware("{" + lists + R"("applications": [{"pid": 1, "localizedName": "A",
                                                "activationPolicy": "regular"}]})");
    EXPECT_THAT(Registry::allDeviceUIDs(hardware), IsEmpty());
    EXPECT_FALSE(Registry::passThruDeviceIsLoaded(hardware));
    EXPECT_FALSE(Registry::containsDevice(hardware, ""));
    EXPECT_EQ(Registry::deviceInventory(hardware), AudioDeviceInventory{});
    EXPECT_THAT(Registry::brisolaDeviceSummaries(hardware), IsEmpty());
    EXPECT_THAT(Registry::applicationSourceCandidates(hardware), IsEmpty());
  }
}

TEST_F(RegistryTest, DeviceListIsReadInWholeIDsOfTheReportedSizeAndKeptInLayerOrder) {
  TestHardware hardware(R"({"devices": [{"objectID": 9, "uid": "uid-9"},
                                        {"objectID": 3, "uid": "uid-3"},
                                        {"objectID": 7, "uid": "uid-7"}]})");
  EXPECT_THAT(Registry::allDeviceUIDs(hardware), ElementsAre("uid-9", "uid-3", "uid-7"));
  // A size that is not a multiple of four reads the whole IDs it holds; below one ID's size,
  // or when the read fails after the size, there is no list.
  const AudioObjectPropertyAddress list{.mSelector = kAudioHardwarePropertyDevices};
  auto bytes = bytesOf(std::vector<AudioObjectID>{9, 3});
  bytes.resize(6);
  hardware.set(kSystem, list, {.bytes = bytes});
  EXPECT_THAT(Registry::allDeviceUIDs(hardware), ElementsAre("uid-9"));
  bytes.resize(3);
  hardware.set(kSystem, list, {.bytes = bytes});
  EXPECT_THAT(Registry::allDeviceUIDs(hardware), IsEmpty());
  hardware.set(kSystem, list,
               {.status = kAudioHardwareBadObjectError, .bytes = bytesOf<AudioObjectID>({9})});
  EXPECT_THAT(Registry::allDeviceUIDs(hardware), IsEmpty());
}

TEST_F(RegistryTest, UnreadableOrNullUIDOrNameLeavesTheDeviceOutWhereItIsNeeded) {
  TestHardware hardware(R"({"devices": [
      {"objectID": 11, "uid": "NoName", "outputStreams": [2]},
      {"objectID": 12, "uid": "NullName", "name": "x", "outputStreams": [2]},
      {"objectID": 13, "uid": "x", "name": "Null UID", "outputStreams": [2]},
      {"objectID": 14, "name": "No UID", "outputStreams": [2]},
      {"objectID": 15, "uid": "app.brisola.device.unnamed", "inputStreams": [2]}]})");
  hardware.set(12, {.mSelector = kAudioObjectPropertyName}, {})
      .set(13, {.mSelector = kAudioDevicePropertyDeviceUID}, {});
  EXPECT_THAT(Registry::allDeviceUIDs(hardware),
              ElementsAre("NoName", "NullName", "app.brisola.device.unnamed"));
  EXPECT_TRUE(Registry::containsDevice(hardware, "NoName"));
  EXPECT_EQ(Registry::deviceInventory(hardware), AudioDeviceInventory{});
  EXPECT_THAT(Registry::brisolaDeviceSummaries(hardware), IsEmpty());
}

TEST_F(RegistryTest, ChannelNamesThatOnlyRepeatTheNumberCarryNothing) {
  struct Row {
    const char* label;
    const char* names;  // of the two input channels (and beyond); null is no name
    std::optional<std::vector<std::string>> expected;
    std::optional<OSStatus> secondAnswers = std::nullopt;  // replaces the second name's query
  };
  const std::vector<Row> rows{
      {"own numbers, bare and after the word", R"(["1", "Channel 2", "Beyond"])", std::nullopt},
      {"blank and null names", R"(["  \n\t", "x"])", std::nullopt, kAudioHardwareNoError},
      {"another channel's number is a name", R"(["2", "Channel 1"])", {{"2", "Channel 1"}}},
      {"the word is compared exactly", R"(["channel 1", "Channel 2 "])", {{"channel 1", ""}}},
      {"a name whose query fails",
       R"(["Left", "Right"])",
       {{"Left", ""}},
       kAudioHardwareUnknownPropertyError},
      {"Unicode white space is trimmed", R"(["\u00a0Mic\u2028", "\u30002"])", {{"Mic", ""}}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    // Names of the other scope never leak in.
    TestHardware hardware(R"({"devices": [{"objectID": 20, "uid": "U", "name": "Interface",
        "inputStreams": [2], "outputChannelNames": ["Output"], "inputChannelNames": )" +
                          std::string(row.names) + "}]}");
    if (row.secondAnswers) {
      hardware.set(20, {kAudioObjectPropertyElementName, kInput, 2},
                   {.status = *row.secondAnswers});
    }
    const auto inventory = Registry::deviceInventory(hardware);
    ASSERT_EQ(inventory.inputs.size(), 1u);
    EXPECT_EQ(inventory.inputs[0].channelNames, row.expected);
  }
}

TEST_F(RegistryTest, ChannelCountIsTheSumOverTheBuffersThatLieInsideTheLayout) {
  auto claimingThreeBuffers = AudioBufferListLayout::encode(std::vector<std::uint32_t>{4});
  claimingThreeBuffers[0] = std::byte{3};
  const auto twoOneThree = AudioBufferListLayout::encode(std::vector<std::uint32_t>{2, 1, 3});
  struct Row {
    const char* label;
    const char* inputStreams;
    std::int64_t expected;
    std::optional<TestHardware::Answer> layout = std::nullopt;
  };
  const std::vector<Row> rows{
      {"three buffers", R"(, "inputStreams": [2, 1, 3])", 6},
      {"no buffers", R"(, "inputStreams": [])", 0},
      {"no layout", "", 0},
      {"shorter than the buffer count", "", 0,
       TestHardware::Answer{.bytes = std::vector<std::byte>(7)}},
      {"count beyond the data", "", 4, TestHardware::Answer{.bytes = claimingThreeBuffers}},
      {"read fails after the size", "", 0,
       TestHardware::Answer{.status = kAudioHardwareBadPropertySizeError, .bytes = twoOneThree}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    TestHardware hardware(R"({"devices": [{"objectID": 30, "uid": "app.brisola.device.x",
        "name": "X", "outputStreams": [2])" +
                          std::string(row.inputStreams) + "}]}");
    if (row.layout) {
      hardware.set(30, {kAudioDevicePropertyStreamConfiguration, kInput}, *row.layout);
    }
    EXPECT_THAT(Registry::brisolaDeviceSummaries(hardware),
                ElementsAre(HALDeviceSummary{"app.brisola.device.x", "X", row.expected, 2}));
  }
}

TEST_F(RegistryTest, InventoryPutsTheDefaultFirstThenFileBrowserOrderStably) {
  TestHardware hardware(R"({"devices": [
      {"objectID": 41, "uid": "a", "name": "Mic 10", "inputStreams": [1]},
      {"objectID": 42, "uid": "b", "name": "Zulu Speakers", "outputStreams": [2]},
      {"objectID": 43, "uid": "c", "name": "mic 9", "inputStreams": [1]},
      {"objectID": 44, "uid": "d", "name": "Speakers", "inputStreams": [2], "outputStreams": [2]},
      {"objectID": 45, "uid": "e", "name": "speakers", "outputStreams": [2]},
      {"objectID": 46, "uid": "f", "name": "Alpha", "outputStreams": [2]}],
    "defaultOutputDevice": 42, "defaultInputDevice": 44})");
  auto inventory = Registry::deviceInventory(hardware);
  EXPECT_THAT(names(inventory.inputs), ElementsAre("Speakers", "mic 9", "Mic 10"));
  // "Speakers" and "speakers" compare equal and keep their list order.
  EXPECT_THAT(names(inventory.outputs),
              ElementsAre("Zulu Speakers", "Alpha", "Speakers", "speakers"));
  // A device that is the default on one side only is default on that side only.
  EXPECT_EQ(inventory.inputs[0], (AudioDeviceInfo{"d", "Speakers", 2, true, std::nullopt}));
  EXPECT_EQ(inventory.outputs[2], (AudioDeviceInfo{"d", "Speakers", 2, false, std::nullopt}));
  EXPECT_TRUE(inventory.outputs[0].isDefault);

  // A default that is the unknown object, or that cannot be read, marks no device.
  hardware.set(kSystem, {kAudioHardwarePropertyDefaultOutputDevice}, {.bytes = bytesOf<int>({0})})
      .set(kSystem, {kAudioHardwarePropertyDefaultInputDevice},
           {.status = kAudioHardwareNotRunningError, .bytes = bytesOf<int>({44})});
  inventory = Registry::deviceInventory(hardware);
  EXPECT_THAT(names(inventory.inputs), ElementsAre("mic 9", "Mic 10", "Speakers"));
  EXPECT_THAT(names(inventory.outputs),
              ElementsAre("Alpha", "Speakers", "speakers", "Zulu Speakers"));
}

TEST_F(RegistryTest, ProductDevicesAreSummarisedWithZeroChannelsAndListedOnlyWhereTheyHaveSome) {
  TestHardware hardware(R"({"devices": [
      {"objectID": 60, "uid": "app.brisola.device.A", "name": "Mix", "inputStreams": [],
       "outputStreams": [2]},
      {"objectID": 61, "uid": "BuiltInSpeakerDevice", "name": "Speakers", "outputStreams": [2]},
      {"objectID": 62, "uid": "dev.kestrine.pass-thru", "name": "Brisola", "inputStreams": [2],
       "outputStreams": [2]}]})");
  EXPECT_THAT(Registry::brisolaDeviceSummaries(hardware),
              ElementsAre(HALDeviceSummary{"app.brisola.device.A", "Mix", 0, 2},
                          HALDeviceSummary{"dev.kestrine.pass-thru", "Brisola", 2, 2}));
  auto inventory = Registry::deviceInventory(hardware);
  EXPECT_THAT(names(inventory.inputs), ElementsAre("Brisola"));
  EXPECT_THAT(names(inventory.outputs), ElementsAre("Brisola", "Mix", "Speakers"));
  EXPECT_TRUE(Registry::passThruDeviceIsLoaded(hardware));
}

TEST_F(RegistryTest, SummariesSortByUnicodeScalarValueAndStably) {
  // U+FFFD before U+10000 (UTF-16 order says otherwise); "é" after "z" (a collation says
  // otherwise); "Z" before "a".
  TestHardware hardware(R"({"devices": [
      {"objectID": 70, "uid": "app.brisola.device.\ud800\udc00", "name": "linear b"},
      {"objectID": 71, "uid": "app.brisola.device.\ufffd", "name": "replacement"},
      {"objectID": 72, "uid": "app.brisola.device.\u00e9", "name": "e acute"},
      {"objectID": 73, "uid": "app.brisola.device.z", "name": "first z"},
      {"objectID": 74, "uid": "app.brisola.device.Z", "name": "capital"},
      {"objectID": 75, "uid": "app.brisola.device.z", "name": "second z"}]})");
  EXPECT_THAT(summaryNames(hardware),
              ElementsAre("capital", "first z", "second z", "e acute", "replacement", "linear b"));
}

TEST_F(RegistryTest, EqualKeysKeepTheirListOrderHoweverLongTheList) {
  // Long enough, and mixed enough, that an unstable sort moves equal elements. Names of one
  // group differ only in case; UIDs of one group are equal.
  constexpr std::uint32_t count = 48;
  const char* const groups[3][2] = {{"Zulu", "zulu"}, {"Alpha", "ALPHA"}, {"Mid", "mid"}};
  const char* const groupUIDs[3] = {"app.brisola.device.z", "app.brisola.device.a",
                                    "app.brisola.device.m"};
  auto groupOf = [](std::uint32_t i) { return (i * 5 + i / 7) % 3; };
  Json file{
      {"devices", Json::array()}, {"processes", Json::array()}, {"applications", Json::array()}};
  for (std::uint32_t i = 0; i < count; ++i) {
    const char* name = groups[groupOf(i)][i % 2];
    const std::uint32_t device = 200 + (i * 7) % count;  // list order differs from ID order
    file["devices"].push_back({{"objectID", device},
                               {"uid", groupUIDs[groupOf(i)]},
                               {"name", name},
                               {"outputStreams", Json::array({2})}});
    file["processes"].push_back(
        {{"objectID", 1000 + device}, {"pid", i + 1}, {"bundleID", "com.example.app"}});
    file["applications"].push_back(
        {{"pid", i + 1}, {"localizedName", name}, {"activationPolicy", "regular"}});
  }
  TestHardware hardware(file.dump());

  // Alpha, then Mid, then Zulu; within a group, list order.
  std::vector<std::string> expectedNames;
  std::vector<std::uint64_t> expectedProcesses, processes;
  for (std::uint32_t group : {1u, 2u, 0u}) {
    for (std::uint32_t i = 0; i < count; ++i) {
      if (groupOf(i) != group) continue;
      expectedNames.push_back(groups[group][i % 2]);
      expectedProcesses.push_back(1000 + 200 + (i * 7) % count);
    }
  }
  for (const auto& candidate : Registry::applicationSourceCandidates(hardware)) {
    processes.push_back(candidate.processObjectID.value_or(0));
  }
  EXPECT_EQ(names(Registry::deviceInventory(hardware).outputs), expectedNames);
  EXPECT_EQ(summaryNames(hardware), expectedNames);
  EXPECT_EQ(processes, expectedProcesses);
}

TEST(RegistryUIDTest, ProductUIDsAreThePassThruAndThePrefixedOnes) {
  const std::vector<std::pair<std::string, bool>> rows{
      {"dev.kestrine.pass-thru", true},     {"app.brisola.device.", true},
      {"dev.kestrine.device.legacy", true}, {"dev.kestrine.pass-thru2", false},
      {"Dev.Kestrine.Pass-Thru", false},    {"APP.BRISOLA.DEVICE.X", false},
      {"x.app.brisola.device.X", false},    {"app.brisola.device", false}};
  for (const auto& [uid, expected] : rows) {
    EXPECT_EQ(Registry::isBrisolaDeviceUID(uid), expected) << uid;
  }
}

TEST_F(RegistryTest, PlugInIsLoadedOnlyWhenItsBundleIDTranslatesToAnObject) {
  EXPECT_FALSE(Registry::halPlugInIsLoaded(TestHardware("{}")));
  struct Row {
    const char* plugIns;
    bool translationFails, expected;
  };
  for (const Row& row : {Row{R"({"app.brisola.hal": 7})", false, true},
                         Row{R"({"app.brisola.hal": 0})", false, false},
                         Row{R"({"app.brisola.hal2": 7})", false, false},
                         Row{R"({"app.brisola.hal": 7})", true, false}}) {
    SCOPED_TRACE(::testing::Message() << row.plugIns << " " << row.translationFails);
    TestHardware hardware(std::string(R"({"plugIns": )") + row.plugIns + "}");
    if (row.translationFails) {
      hardware.set(kSystem, {kAudioHardwarePropertyTranslateBundleIDToPlugIn},
                   {.status = kAudioHardwareUnknownPropertyError, .bytes = bytesOf<int>({7})});
    }
    EXPECT_EQ(Registry::halPlugInIsLoaded(hardware), row.expected);
  }
}

// Candidates: one process each (object ID 100 + its index), with its running application.

struct Process {
  std::optional<std::int32_t> pid;
  std::optional<std::string> bundleID;
  std::optional<std::string> name;  // of a running application
  const char* policy = "regular";   // nullptr: no running application
};

std::vector<ApplicationSourceCandidate> candidatesOf(const std::vector<Process>& processes) {
  Json file{{"processes", Json::array()}, {"applications", Json::array()}};
  for (std::size_t i = 0; i < processes.size(); ++i) {
    const Process& process = processes[i];
    Json entry{{"objectID", 100 + i}};
    if (process.pid) entry["pid"] = *process.pid;
    if (process.bundleID) entry["bundleID"] = *process.bundleID;
    file["processes"].push_back(entry);
    if (!process.pid || process.policy == nullptr) continue;
    Json application{{"pid", *process.pid}, {"activationPolicy", process.policy}};
    if (process.name) application["localizedName"] = *process.name;
    file["applications"].push_back(application);
  }
  return Registry::applicationSourceCandidates(TestHardware(file.dump()));
}

TEST_F(RegistryTest, OnlyOrdinaryApplicationsWithABundleIDAreCandidates) {
  const std::vector<std::pair<Process, bool>> rows{
      {{4242, "com.example.sketchpad", "Sketchpad"}, true},
      {{1, "com.example.s", "SKETCHPAD HELPER"}, false},
      {{1, "com.example.u",
        "\xC3\x9C"
        "BER AGENT"},
       false},  // lower-cased beyond ASCII
      {{1, "com.example.s", "Mail ServiceExtension"}, false},
      {{1, "com.example.h", "Helperbot"}, true},
      {{1, "com.example.tool", "Speaker Daemonstration Tool"}, false},
      {{1, "com.example.pid", "PID Tuner"}, false},
      {{1, "com.example.Widget.APPEX", "Widget"}, false},
      {{1, "com.example.updater.aGeNt", "Updater"}, false},
      {{1, "", "Recorder"}, false},
      {{1, "com.example.menu", "Menu", "accessory"}, false},
      {{1, "com.example.gone", "Gone", nullptr}, false},
      {{0, "com.example.zero", "Zero"}, false},
      {{std::nullopt, "com.example.nopid", "NoPid"}, false},
  };
  for (const auto& [process, shown] : rows) {
    SCOPED_TRACE(process.name.value_or("") + " / " + process.bundleID.value_or(""));
    EXPECT_EQ(candidatesOf({process}).size(), shown ? 1u : 0u);
  }
}

TEST_F(RegistryTest, CandidatesCarryTheirIdentityAndSortInFileBrowserOrderWithoutMerging) {
  // Without a usable name the bundle ID stands in.
  EXPECT_THAT(
      candidatesOf({{4242, "com.example.sketchpad", "Sketchpad"},
                    {77, "com.example.unnamed", std::nullopt},
                    {78, "com.example.blank", ""}}),
      ElementsAre(ApplicationSourceCandidate{"com.example.blank", "com.example.blank", 78, 102},
                  ApplicationSourceCandidate{"com.example.unnamed", "com.example.unnamed", 77, 101},
                  ApplicationSourceCandidate{"Sketchpad", "com.example.sketchpad", 4242, 100}));
  const auto candidates = candidatesOf({{10, "com.example.zeta", "zeta"},
                                        {11, "com.example.alpha10", "Alpha 10"},
                                        {12, "com.example.alpha2", "Alpha 2"},
                                        {13, "com.example.alpha2", "alpha 2"}});
  std::vector<std::string> shown;
  for (const auto& candidate : candidates) shown.push_back(candidate.displayName);
  EXPECT_THAT(shown, ElementsAre("Alpha 2", "alpha 2", "Alpha 10", "zeta"));
  EXPECT_EQ(candidates[1].pid, 13);
}

}  // namespace
}  // namespace brisola
