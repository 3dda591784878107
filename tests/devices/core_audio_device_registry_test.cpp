#include "brisola/devices/core_audio_device_registry.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <functional>
#include <nlohmann/json.hpp>

#include "devices/fixed_locale.hpp"
#include "support/devices_fake_hardware.hpp"

namespace brisola {
namespace {

using ::testing::ElementsAre;
using testing::FakeHardwareLayer;
using ::testing::IsEmpty;

constexpr auto kInput = kAudioObjectPropertyScopeInput;
constexpr auto kOutput = kAudioObjectPropertyScopeOutput;

std::vector<std::string> names(const std::vector<AudioDeviceInfo>& devices) {
  std::vector<std::string> result;
  for (const auto& device : devices) result.push_back(device.name);
  return result;
}

std::vector<std::string> summaryNames(const HardwareLayer& hardware) {
  std::vector<std::string> result;
  for (const auto& summary : CoreAudioDeviceRegistry::brisolaDeviceSummaries(hardware)) {
    result.push_back(summary.name);
  }
  return result;
}

std::vector<std::string> displayNames(const std::vector<ApplicationSourceCandidate>& candidates) {
  std::vector<std::string> result;
  for (const auto& candidate : candidates) result.push_back(candidate.displayName);
  return result;
}

class RegistryTest : public ::testing::Test {
 protected:
  testing::FixedICULocale locale_{"en_US"};
  FakeHardwareLayer hardware_;
};

TEST_F(RegistryTest, NoDevicesGivesEmptyAnswersWhetherTheListIsEmptyOrUnreadable) {
  for (bool listed : {false, true}) {
    SCOPED_TRACE(listed ? "empty device list" : "device list query fails");
    FakeHardwareLayer hardware;
    if (listed) hardware.setDeviceList({});
    EXPECT_THAT(CoreAudioDeviceRegistry::allDeviceUIDs(hardware), IsEmpty());
    EXPECT_FALSE(CoreAudioDeviceRegistry::passThruDeviceIsLoaded(hardware));
    EXPECT_FALSE(CoreAudioDeviceRegistry::containsDevice(hardware, ""));
    EXPECT_EQ(CoreAudioDeviceRegistry::deviceInventory(hardware), AudioDeviceInventory{});
    EXPECT_THAT(CoreAudioDeviceRegistry::brisolaDeviceSummaries(hardware), IsEmpty());
  }
}

TEST_F(RegistryTest, DeviceListIsReadInWholeIDsOfTheReportedSizeAndKeptInLayerOrder) {
  for (AudioObjectID id : {9u, 3u, 7u}) hardware_.device(id).uid("uid-" + std::to_string(id));
  hardware_.setDeviceList({9, 3, 7});
  EXPECT_THAT(CoreAudioDeviceRegistry::allDeviceUIDs(hardware_),
              ElementsAre("uid-9", "uid-3", "uid-7"));

  // A size that is not a multiple of four reads the whole IDs it holds.
  auto bytes = std::vector<std::byte>(6);
  AudioObjectID nine = 9;
  std::memcpy(bytes.data(), &nine, sizeof nine);
  hardware_.setBytes(kAudioObjectSystemObject, {.mSelector = kAudioHardwarePropertyDevices}, bytes);
  EXPECT_THAT(CoreAudioDeviceRegistry::allDeviceUIDs(hardware_), ElementsAre("uid-9"));

  // Below one ID's size there is no list at all.
  hardware_.setBytes(kAudioObjectSystemObject, {.mSelector = kAudioHardwarePropertyDevices},
                     std::vector<std::byte>(3, std::byte{9}));
  EXPECT_THAT(CoreAudioDeviceRegistry::allDeviceUIDs(hardware_), IsEmpty());

  // The size answers but the read fails: no list.
  hardware_.setDeviceList({9, 3, 7});
  hardware_.setStatuses(kAudioObjectSystemObject, {.mSelector = kAudioHardwarePropertyDevices},
                        kAudioHardwareNoError, kAudioHardwareBadObjectError);
  EXPECT_THAT(CoreAudioDeviceRegistry::allDeviceUIDs(hardware_), IsEmpty());
}

TEST_F(RegistryTest, UnreadableUIDOrNameLeavesTheDeviceOutWhereItIsNeeded) {
  hardware_.device(11).uid("NoName").outputs({2});  // name query fails
  hardware_.device(12).uid("NullName").name(std::nullopt).outputs({2});
  hardware_.device(13).uid(std::nullopt).name("Null UID").outputs({2});
  hardware_.device(14).name("No UID").outputs({2});
  hardware_.device(15).uid("app.brisola.device.unnamed").inputs({2});
  hardware_.setDeviceList({11, 12, 13, 14, 15});

  EXPECT_THAT(CoreAudioDeviceRegistry::allDeviceUIDs(hardware_),
              ElementsAre("NoName", "NullName", "app.brisola.device.unnamed"));
  EXPECT_TRUE(CoreAudioDeviceRegistry::containsDevice(hardware_, "NoName"));
  EXPECT_EQ(CoreAudioDeviceRegistry::deviceInventory(hardware_), AudioDeviceInventory{});
  EXPECT_THAT(CoreAudioDeviceRegistry::brisolaDeviceSummaries(hardware_), IsEmpty());
}

TEST_F(RegistryTest, ChannelNamesThatOnlyRepeatTheNumberCarryNothing) {
  struct Row {
    const char* label;
    std::vector<std::optional<std::optional<std::string>>> names;  // outer nullopt: no property
    std::optional<std::vector<std::string>> expected;
  };
  // The property exists and its read succeeds, but without a string.
  const std::optional<std::optional<std::string>> nullName{std::in_place, std::nullopt};
  const std::vector<Row> rows{
      {"own numbers, bare and after the word", {{"1"}, {"Channel 2"}}, std::nullopt},
      {"blank and null names", {{"  \n\t"}, nullName}, std::nullopt},
      {"another channel's number is a name", {{"2"}, {"Channel 1"}}, {{"2", "Channel 1"}}},
      {"the word is compared exactly", {{"channel 1"}, {"Channel 2 "}}, {{"channel 1", ""}}},
      {"Unicode white space is trimmed",
       {{"\xC2\xA0Mic\xE2\x80\xA8"},
        {"\xE3\x80\x80"
         "2"}},
       {{"Mic", ""}}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    FakeHardwareLayer hardware;
    hardware.setDeviceList({20});
    auto device = hardware.device(20).uid("U").name("Interface").inputs({2});
    for (std::uint32_t channel = 1; channel <= row.names.size(); ++channel) {
      if (const auto& name = row.names[channel - 1]) device.channelName(kInput, channel, *name);
    }
    // Names of the other scope and beyond the channel count never leak in.
    device.channelName(kOutput, 1, "Output Name").channelName(kInput, 3, "Beyond");

    auto inventory = CoreAudioDeviceRegistry::deviceInventory(hardware);
    ASSERT_EQ(inventory.inputs.size(), 1u);
    EXPECT_EQ(inventory.inputs[0].channelNames, row.expected);
  }
}

TEST_F(RegistryTest, ChannelNameQueryThatFailsLeavesThatChannelUnnamed) {
  hardware_.setDeviceList({20});
  hardware_.device(20).uid("U").name("Interface").outputs({2}).channelName(kOutput, 2, "Right");
  hardware_.setStatuses(
      20, {.mSelector = kAudioObjectPropertyElementName, .mScope = kOutput, .mElement = 1},
      kAudioHardwareNoError, kAudioHardwareUnknownPropertyError);
  auto inventory = CoreAudioDeviceRegistry::deviceInventory(hardware_);
  ASSERT_EQ(inventory.outputs.size(), 1u);
  EXPECT_EQ(inventory.outputs[0].channelNames, (std::vector<std::string>{"", "Right"}));
}

TEST_F(RegistryTest, ChannelCountIsTheSumOverAllBuffersOfTheLayout) {
  struct Row {
    const char* label;
    std::optional<std::vector<std::byte>> layout;  // nullopt: the size query fails
    std::int64_t expected;
    OSStatus dataStatus = kAudioHardwareNoError;
  };
  auto claimingThreeBuffers = AudioBufferListLayout::encode(std::vector<std::uint32_t>{4});
  const std::uint32_t three = 3;
  std::memcpy(claimingThreeBuffers.data(), &three, sizeof three);
  const auto twoOneThree = AudioBufferListLayout::encode(std::vector<std::uint32_t>{2, 1, 3});
  const std::vector<Row> rows{
      {"three buffers", twoOneThree, 6},
      {"no buffers", AudioBufferListLayout::encode({}), 0},
      {"shorter than the buffer count", std::vector<std::byte>(7), 0},
      {"count beyond the data", claimingThreeBuffers, 4},
      {"no layout", std::nullopt, 0},
      {"read fails after the size", twoOneThree, 0, kAudioHardwareBadPropertySizeError},
  };
  const AudioObjectPropertyAddress layout{.mSelector = kAudioDevicePropertyStreamConfiguration,
                                          .mScope = kInput};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    FakeHardwareLayer hardware;
    hardware.setDeviceList({30});
    hardware.device(30).uid("app.brisola.device.x").name("X").outputs({2});
    if (row.layout) hardware.setBytes(30, layout, *row.layout);
    if (row.dataStatus != kAudioHardwareNoError) {
      hardware.setStatuses(30, layout, kAudioHardwareNoError, row.dataStatus);
    }
    auto summaries = CoreAudioDeviceRegistry::brisolaDeviceSummaries(hardware);
    ASSERT_EQ(summaries.size(), 1u);
    EXPECT_EQ(summaries[0].inputChannelCount, row.expected);
    EXPECT_EQ(summaries[0].outputChannelCount, 2);
  }

  // The data is read into a buffer of exactly the size the size query reported.
  hardware_.setDeviceList({30});
  hardware_.device(30).uid("U").name("X").inputs({1, 1, 1});
  CoreAudioDeviceRegistry::deviceInventory(hardware_);
  std::vector<std::pair<FakeHardwareLayer::Query::Kind, std::uint32_t>> queries;
  for (const auto& query : hardware_.log()) {
    if (query.object == 30 && query.address == layout)
      queries.emplace_back(query.kind, query.capacity);
  }
  EXPECT_THAT(queries, ElementsAre(std::pair(FakeHardwareLayer::Query::Kind::size, 0u),
                                   std::pair(FakeHardwareLayer::Query::Kind::data,
                                             AudioBufferListLayout::byteSize(3))));
}

TEST_F(RegistryTest, InventoryPutsTheDefaultFirstThenFileBrowserOrderStably) {
  hardware_.setDeviceList({41, 42, 43, 44, 45, 46});
  hardware_.device(41).uid("a").name("Mic 10").inputs({1});
  hardware_.device(42).uid("b").name("Zulu Speakers").outputs({2});
  hardware_.device(43).uid("c").name("mic 9").inputs({1});
  hardware_.device(44).uid("d").name("Speakers").inputs({2}).outputs({2});
  hardware_.device(45).uid("e").name("speakers").outputs({2});
  hardware_.device(46).uid("f").name("Alpha").outputs({2});
  hardware_.setDefaultDevice(kAudioHardwarePropertyDefaultOutputDevice, 42);
  hardware_.setDefaultDevice(kAudioHardwarePropertyDefaultInputDevice, 44);

  auto inventory = CoreAudioDeviceRegistry::deviceInventory(hardware_);
  EXPECT_THAT(names(inventory.inputs), ElementsAre("Speakers", "mic 9", "Mic 10"));
  // "Speakers" and "speakers" compare equal and keep their list order.
  EXPECT_THAT(names(inventory.outputs),
              ElementsAre("Zulu Speakers", "Alpha", "Speakers", "speakers"));
  // A device that is the default on one side only is default on that side only.
  EXPECT_EQ(inventory.inputs[0], (AudioDeviceInfo{"d", "Speakers", 2, true, std::nullopt}));
  EXPECT_EQ(inventory.outputs[2], (AudioDeviceInfo{"d", "Speakers", 2, false, std::nullopt}));
  EXPECT_TRUE(inventory.outputs[0].isDefault);
}

TEST_F(RegistryTest, DefaultThatIsZeroOrUnreadableMarksNoDevice) {
  hardware_.setDeviceList({50, 51});
  hardware_.device(50).uid("a").name("B").outputs({2});
  hardware_.device(51).uid("b").name("A").outputs({2});
  hardware_.setDefaultDevice(kAudioHardwarePropertyDefaultOutputDevice, kAudioObjectUnknown);
  hardware_.setStatuses(kAudioObjectSystemObject,
                        {.mSelector = kAudioHardwarePropertyDefaultInputDevice},
                        kAudioHardwareNoError, kAudioHardwareNotRunningError);
  auto inventory = CoreAudioDeviceRegistry::deviceInventory(hardware_);
  EXPECT_THAT(names(inventory.outputs), ElementsAre("A", "B"));
  for (const auto& device : inventory.outputs) EXPECT_FALSE(device.isDefault);
}

TEST_F(RegistryTest, ProductDeviceWithoutInputsIsSummarisedWithZeroAndListedOnlyAsOutput) {
  hardware_.setDeviceList({60, 61, 62});
  hardware_.device(60).uid("app.brisola.device.A").name("Mix").inputs({}).outputs({2});
  hardware_.device(61).uid("BuiltInSpeakerDevice").name("Speakers").outputs({2});
  hardware_.device(62).uid("dev.kestrine.pass-thru").name("Brisola").inputs({2}).outputs({2});

  EXPECT_THAT(CoreAudioDeviceRegistry::brisolaDeviceSummaries(hardware_),
              ElementsAre(HALDeviceSummary{"app.brisola.device.A", "Mix", 0, 2},
                          HALDeviceSummary{"dev.kestrine.pass-thru", "Brisola", 2, 2}));
  auto inventory = CoreAudioDeviceRegistry::deviceInventory(hardware_);
  EXPECT_THAT(names(inventory.inputs), ElementsAre("Brisola"));
  EXPECT_THAT(names(inventory.outputs), ElementsAre("Brisola", "Mix", "Speakers"));
  EXPECT_TRUE(CoreAudioDeviceRegistry::passThruDeviceIsLoaded(hardware_));
}

TEST_F(RegistryTest, SummariesSortByUnicodeScalarValueAndStably) {
  // U+FFFD before U+10000 (UTF-16 order says otherwise); "é" after "z" (a collation says
  // otherwise); "Z" before "a".
  const std::vector<std::pair<std::string, std::string>> devices{
      {"app.brisola.device.\xF0\x90\x80\x80", "linear b"},
      {"app.brisola.device.\xEF\xBF\xBD", "replacement"},
      {"app.brisola.device.\xC3\xA9", "e acute"},
      {"app.brisola.device.z", "first z"},
      {"app.brisola.device.Z", "capital"},
      {"app.brisola.device.z", "second z"},
  };
  std::vector<AudioObjectID> ids;
  for (std::size_t i = 0; i < devices.size(); ++i) {
    const auto id = static_cast<AudioObjectID>(70 + i);
    hardware_.device(id).uid(devices[i].first).name(devices[i].second);
    ids.push_back(id);
  }
  hardware_.setDeviceList(ids);
  EXPECT_THAT(summaryNames(hardware_),
              ElementsAre("capital", "first z", "second z", "e acute", "replacement", "linear b"));
}

TEST_F(RegistryTest, EqualKeysKeepTheirListOrderHoweverLongTheList) {
  // Long enough, and mixed enough, that an unstable sort moves equal elements. Names of one
  // group differ only in case; UIDs of one group are equal.
  constexpr std::uint32_t count = 48;
  const std::array<std::array<const char*, 2>, 3> groups{
      {{"Zulu", "zulu"}, {"Alpha", "ALPHA"}, {"Mid", "mid"}}};
  const std::array<const char*, 3> groupUIDs{"app.brisola.device.z", "app.brisola.device.a",
                                             "app.brisola.device.m"};
  auto groupOf = [](std::uint32_t i) { return (i * 5 + i / 7) % 3; };
  std::vector<AudioObjectID> devices;
  std::vector<AudioObjectID> processes;
  for (std::uint32_t i = 0; i < count; ++i) {
    const char* name = groups[groupOf(i)][i % 2];
    const AudioObjectID device = 200 + (i * 7) % count;  // list order differs from ID order
    devices.push_back(device);
    hardware_.device(device).uid(groupUIDs[groupOf(i)]).name(name).outputs({2});
    processes.push_back(1000 + device);
    hardware_.setProcess(1000 + device, static_cast<std::int32_t>(i + 1), "com.example.app");
    hardware_.setApplication(static_cast<std::int32_t>(i + 1), {.localizedName = name});
  }
  hardware_.setDeviceList(devices);
  hardware_.setProcessList(processes);

  // Alpha, then Mid, then Zulu; within a group, list order.
  std::vector<std::string> expectedNames;
  std::vector<AudioObjectID> expectedProcesses;
  for (std::uint32_t group : {1u, 2u, 0u}) {
    for (std::uint32_t i = 0; i < count; ++i) {
      if (groupOf(i) != group) continue;
      expectedNames.push_back(groups[group][i % 2]);
      expectedProcesses.push_back(1000 + 200 + (i * 7) % count);
    }
  }
  std::vector<AudioObjectID> candidateProcesses;
  for (const auto& candidate : CoreAudioDeviceRegistry::applicationSourceCandidates(hardware_)) {
    candidateProcesses.push_back(static_cast<AudioObjectID>(candidate.processObjectID.value_or(0)));
  }
  EXPECT_EQ(names(CoreAudioDeviceRegistry::deviceInventory(hardware_).outputs), expectedNames);
  EXPECT_EQ(summaryNames(hardware_), expectedNames);
  EXPECT_EQ(candidateProcesses, expectedProcesses);
}

TEST(RegistryUIDTest, ProductUIDsAreThePassThruAndThePrefixedOnes) {
  const std::vector<std::pair<std::string, bool>> rows{
      {"dev.kestrine.pass-thru", true},     {"app.brisola.device.", true},
      {"dev.kestrine.device.legacy", true}, {"dev.kestrine.pass-thru2", false},
      {"Dev.Kestrine.Pass-Thru", false},    {"APP.BRISOLA.DEVICE.X", false},
      {"x.app.brisola.device.X", false},    {"app.brisola.device", false}};
  for (const auto& [uid, expected] : rows) {
    SCOPED_TRACE(uid);
    EXPECT_EQ(CoreAudioDeviceRegistry::isBrisolaDeviceUID(uid), expected);
  }
}

TEST_F(RegistryTest, PlugInIsLoadedOnlyWhenItsBundleIDTranslatesToAnObject) {
  struct Row {
    const char* bundleID;
    AudioObjectID plugIn;
    bool translationFails, expected;
  };
  for (const Row& row :
       {Row{"app.brisola.hal", 7, false, true}, Row{"app.brisola.hal", 0, false, false},
        Row{"app.brisola.hal2", 7, false, false}, Row{"app.brisola.hal", 7, true, false}}) {
    SCOPED_TRACE(::testing::Message()
                 << row.bundleID << " " << row.plugIn << " " << row.translationFails);
    FakeHardwareLayer hardware;
    EXPECT_FALSE(CoreAudioDeviceRegistry::halPlugInIsLoaded(hardware));
    hardware.setPlugIn(row.bundleID, row.plugIn);
    if (row.translationFails) {
      hardware.setStatuses(kAudioObjectSystemObject,
                           {.mSelector = kAudioHardwarePropertyTranslateBundleIDToPlugIn},
                           kAudioHardwareNoError, kAudioHardwareUnknownPropertyError, row.bundleID);
    }
    EXPECT_EQ(CoreAudioDeviceRegistry::halPlugInIsLoaded(hardware), row.expected);
  }
}

// Candidates.

struct Process {
  std::optional<std::int32_t> pid;
  std::optional<std::string> bundleID;
  std::optional<RunningApplication> application;
};

RunningApplication regular(std::optional<std::string> name) {
  return {.localizedName = std::move(name),
          .activationPolicy = ApplicationActivationPolicy::regular};
}

class CandidateTest : public RegistryTest {
 protected:
  // Each process gets object ID 100 + its index.
  std::vector<ApplicationSourceCandidate> candidatesOf(const std::vector<Process>& processes) {
    FakeHardwareLayer hardware;
    std::vector<AudioObjectID> ids;
    for (std::size_t i = 0; i < processes.size(); ++i) {
      const auto id = static_cast<AudioObjectID>(100 + i);
      ids.push_back(id);
      hardware.setProcess(id, processes[i].pid, processes[i].bundleID);
      if (processes[i].application && processes[i].pid) {
        hardware.setApplication(*processes[i].pid, *processes[i].application);
      }
    }
    hardware.setProcessList(ids);
    return CoreAudioDeviceRegistry::applicationSourceCandidates(hardware);
  }
};

TEST_F(CandidateTest, OnlyOrdinaryApplicationsWithABundleIDPassTheFilters) {
  struct Row {
    const char* label;
    Process process;
    bool shown;
  };
  const std::vector<Row> rows{
      {"ordinary application", {4242, "com.example.sketchpad", regular("Sketchpad")}, true},
      {"helper by name in capitals", {1, "com.example.s", regular("SKETCHPAD HELPER")}, false},
      {"non-ASCII name lower-cased",
       {1, "com.example.u",
        regular("\xC3\x9C"
                "BER AGENT")},
       false},
      {"service extension", {1, "com.example.s", regular("Mail ServiceExtension")}, false},
      {"word starting with helper", {1, "com.example.h", regular("Helperbot")}, true},
      {"daemonstration", {1, "com.example.tool", regular("Speaker Daemonstration Tool")}, false},
      {"name beginning with PID", {1, "com.example.pid", regular("PID Tuner")}, false},
      {"appex bundle", {1, "com.example.Widget.APPEX", regular("Widget")}, false},
      {"agent bundle", {1, "com.example.updater.aGeNt", regular("Updater")}, false},
      {"empty bundle ID", {1, "", regular("Recorder")}, false},
      {"accessory policy",
       {1, "com.example.menu", RunningApplication{"Menu", ApplicationActivationPolicy::accessory}},
       false},
      {"no running application", {1, "com.example.gone", std::nullopt}, false},
      {"pid 0", {0, "com.example.zero", regular("Zero")}, false},
      {"pid unreadable", {std::nullopt, "com.example.nopid", regular("NoPid")}, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    EXPECT_EQ(candidatesOf({row.process}).size(), row.shown ? 1u : 0u);
  }
}

TEST_F(CandidateTest, CandidatesCarryTheirIdentityAndSortInFileBrowserOrderWithoutMerging) {
  // Without a usable name the bundle ID stands in.
  auto candidates = candidatesOf({
      {4242, "com.example.sketchpad", regular("Sketchpad")},
      {77, "com.example.unnamed", regular(std::nullopt)},
      {78, "com.example.blank", regular("")},
  });
  EXPECT_THAT(
      candidates,
      ElementsAre(ApplicationSourceCandidate{"com.example.blank", "com.example.blank", 78, 102},
                  ApplicationSourceCandidate{"com.example.unnamed", "com.example.unnamed", 77, 101},
                  ApplicationSourceCandidate{"Sketchpad", "com.example.sketchpad", 4242, 100}));
  candidates = candidatesOf({
      {10, "com.example.zeta", regular("zeta")},
      {11, "com.example.alpha10", regular("Alpha 10")},
      {12, "com.example.alpha2", regular("Alpha 2")},
      {13, "com.example.alpha2", regular("alpha 2")},
  });
  EXPECT_THAT(displayNames(candidates), ElementsAre("Alpha 2", "alpha 2", "Alpha 10", "zeta"));
  EXPECT_EQ(candidates[1].pid, 13);
}

TEST_F(CandidateTest, NoProcessListGivesNoCandidates) {
  FakeHardwareLayer hardware;
  hardware.setApplication(1, regular("Orphan"));
  EXPECT_THAT(CoreAudioDeviceRegistry::applicationSourceCandidates(hardware), IsEmpty());
  hardware.setProcessList({});
  EXPECT_THAT(CoreAudioDeviceRegistry::applicationSourceCandidates(hardware), IsEmpty());
}

TEST(HALDeviceSummaryJSONTest, RoundTripsWithExactlyItsFourKeysAllRequired) {
  const HALDeviceSummary summary{"app.brisola.device.\xC3\xA9/1", "Mix \"A\"", 0, 2};
  const std::string text = encodeJSON(summary);
  EXPECT_EQ(decodeJSON<HALDeviceSummary>(text), summary);
  EXPECT_EQ(text,
            "{\n  \"inputChannelCount\": 0,\n  \"name\": \"Mix \\\"A\\\"\",\n"
            "  \"outputChannelCount\": 2,\n  \"uid\": \"app.brisola.device.\xC3\xA9/1\"\n}");
  for (const char* missing : {"uid", "name", "inputChannelCount", "outputChannelCount"}) {
    SCOPED_TRACE(missing);
    auto object = nlohmann::json::parse(text);
    object.erase(missing);
    try {
      decodeJSON<HALDeviceSummary>(object.dump());
      ADD_FAILURE() << "decoded";
    } catch (const DecodingError& error) {
      EXPECT_EQ(error.path(), missing);
    }
  }
}

}  // namespace
}  // namespace brisola
