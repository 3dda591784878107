#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unicode/locid.h>

#include <atomic>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <regex>

#include "brisola/devices/core_audio_device_registry.hpp"
#include "brisola/platform/file_manager.hpp"
#include "support/system_helpers.hpp"
#include "support/test_hardware.hpp"

namespace brisola {
namespace {

using testing::bytesOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using testing::ScopedEnvironment;
using testing::TempDir;
using testing::TestHardware;
using testing::writeFile;
using Registry = CoreAudioDeviceRegistry;
using Json = nlohmann::json;

constexpr auto kInput = kAudioObjectPropertyScopeInput;
constexpr AudioObjectID kSystem = kAudioObjectSystemObject;

// Names of devices or summaries, in order.
template <class T>
std::vector<std::string> names(const std::vector<T>& devices) {
  std::vector<std::string> result;
  for (const auto& device : devices) result.push_back(device.name);
  return result;
}

// Every query answers as on a machine without devices, plug-ins or applications.
template <class... Layer>
void expectNothing(const Layer&... layer) {
  EXPECT_THAT(Registry::allDeviceUIDs(layer...), IsEmpty());
  EXPECT_FALSE(Registry::passThruDeviceIsLoaded(layer...) || Registry::halPlugInIsLoaded(layer...));
  EXPECT_EQ(Registry::deviceInventory(layer...), AudioDeviceInventory{});
  EXPECT_THAT(Registry::brisolaDeviceSummaries(layer...), IsEmpty());
  EXPECT_THAT(Registry::applicationSourceCandidates(layer...), IsEmpty());
}

// Ordering by name follows ICU's default locale, which comes from the environment (LANG,
// LC_ALL; "C" gives en_US_POSIX): the tests fix it for their duration.
class RegistryTest : public ::testing::Test {
 protected:
  RegistryTest() { setLocale(icu::Locale("en_US")); }
  ~RegistryTest() override { setLocale(previous_); }
  static void setLocale(const icu::Locale& locale) {
    UErrorCode status = U_ZERO_ERROR;
    icu::Locale::setDefault(locale, status);
  }
  icu::Locale previous_ = icu::Locale::getDefault();
};

TEST_F(RegistryTest, NoDevicesOrProcessesGiveEmptyAnswersWhetherListedOrUnreadable) {
  for (const std::string lists : {"", R"("devices": [], "processes": [],)"}) {
    SCOPED_TRACE(lists.empty() ? "list queries fail" : "empty lists");
    TestHardware hardware("{" + lists + R"("applications": [{"pid": 1, "localizedName": "A",
                                                "activationPolicy": "regular"}]})");
    expectNothing(hardware);
  }
}

TEST_F(RegistryTest, DeviceListIsReadInWholeIDsOfTheReportedSizeAndKeptInLayerOrder) {
  TestHardware hardware(R"({"devices": [{"objectID": 9, "uid": "uid-9"},
                                        {"objectID": 3, "uid": "uid-3"},
                                        {"objectID": 7, "uid": "uid-7"}]})");
  EXPECT_THAT(Registry::allDeviceUIDs(hardware), ElementsAre("uid-9", "uid-3", "uid-7"));
  // A size that is not a multiple of four reads the whole IDs it holds; below one ID's size,
  // or when the read fails after the size, there is no list.
  const auto ids = bytesOf<AudioObjectID>({9, 3});
  for (const auto& [answer, expected] :
       std::vector<std::pair<TestHardware::Answer, std::vector<std::string>>>{
           {{.bytes = {ids.begin(), ids.begin() + 6}}, {"uid-9"}},
           {{.bytes = {ids.begin(), ids.begin() + 3}}, {}},
           {{.status = kAudioHardwareBadObjectError, .bytes = ids}, {}}}) {
    hardware.set(kSystem, {.mSelector = kAudioHardwarePropertyDevices}, answer);
    EXPECT_EQ(Registry::allDeviceUIDs(hardware), expected);
  }
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
      // A hostile file used to make the registry name 2^32 channels (and loop for ever).
      {"absurd counts", R"(, "inputStreams": [4294967295, 4294967295])",
       Registry::maximumChannelCount},
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
  EXPECT_THAT(names(Registry::brisolaDeviceSummaries(hardware)),
              ElementsAre("capital", "first z", "second z", "e acute", "replacement", "linear b"));
}

TEST_F(RegistryTest, EqualKeysKeepTheirListOrderHoweverLongTheList) {
  // Long enough, and mixed enough, that an unstable sort moves equal elements. Names of one
  // group differ only in case; UIDs of one group are equal.
  constexpr std::uint32_t count = 48;
  const char* const groups[3][2] = {{"Zulu", "zulu"}, {"Alpha", "ALPHA"}, {"Mid", "mid"}};
  auto groupOf = [](std::uint32_t i) { return (i * 5 + i / 7) % 3; };
  Json file{
      {"devices", Json::array()}, {"processes", Json::array()}, {"applications", Json::array()}};
  for (std::uint32_t i = 0; i < count; ++i) {
    const char* name = groups[groupOf(i)][i % 2];
    const std::uint32_t device = 200 + (i * 7) % count;  // list order differs from ID order
    file["devices"].push_back({{"objectID", device},
                               {"uid", "app.brisola.device." + std::string(groups[groupOf(i)][0])},
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
  EXPECT_EQ(names(Registry::brisolaDeviceSummaries(hardware)), expectedNames);
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
  // The plug-in list, whether translating fails, and the answer.
  for (const auto& [plugIns, translationFails, expected] :
       std::vector<std::tuple<std::string, bool, bool>>{
           {R"({"app.brisola.hal": 7})", false, true},
           {R"({"app.brisola.hal": 0})", false, false},
           {R"({"app.brisola.hal2": 7})", false, false},
           {R"({"app.brisola.hal": 7})", true, false}}) {
    SCOPED_TRACE(plugIns + (translationFails ? " failing" : ""));
    TestHardware hardware(R"({"plugIns": )" + plugIns + "}");
    if (translationFails) {
      hardware.set(kSystem, {kAudioHardwarePropertyTranslateBundleIDToPlugIn},
                   {.status = kAudioHardwareUnknownPropertyError, .bytes = bytesOf<int>({7})});
    }
    EXPECT_EQ(Registry::halPlugInIsLoaded(hardware), expected);
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
      {{1, "com.example.u", "\u00DCBER AGENT"}, false},  // lower-cased beyond ASCII
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
}

constexpr const char* kVariable = "BRISOLA_HARDWARE_SIMULATION";

// Replaces the file in one step, as a user swapping hardware files under a running service
// would.
void replaceFile(const std::filesystem::path& path, std::string_view bytes) {
  const auto temporary = path.parent_path() / ".replacement.json";
  writeFile(temporary, bytes);
  std::filesystem::rename(temporary, path);
}

class SimulatedHardwareTest : public RegistryTest {
 protected:
  TempDir dir_;
  std::filesystem::path file_ = dir_ / "hardware.json";
};

TEST_F(SimulatedHardwareTest, ExampleFileDescribesAMachineTheExampleDocumentCanUse) {
  auto layer = HardwareBackend::simulated(std::filesystem::path(BRISOLA_SOURCE_DIR) / "examples" /
                                          "hardware-simulation.json")
                   ->snapshot();
  ASSERT_EQ(layer->unavailableReason(), std::nullopt);

  // The example document plays on the speakers and records from the USB interface.
  EXPECT_TRUE(Registry::containsDevice(*layer, "USBAudioInterface"));
  EXPECT_TRUE(Registry::passThruDeviceIsLoaded(*layer) && Registry::halPlugInIsLoaded(*layer));
  auto inventory = Registry::deviceInventory(*layer);
  ASSERT_FALSE(inventory.inputs.empty() || inventory.outputs.empty());
  EXPECT_TRUE(inventory.inputs[0].isDefault && inventory.outputs[0].isDefault);
  EXPECT_EQ(inventory.outputs[0].uid, "BuiltInSpeakerDevice");
  EXPECT_THAT(Registry::applicationSourceCandidates(*layer),
              ElementsAre(::testing::Field(&ApplicationSourceCandidate::displayName, "Sketchpad")));
}

// The environment names the file, and every call without a view reads it afresh.
TEST_F(SimulatedHardwareTest, TheEnvironmentNamesTheFileAndEveryCallReadsItAfresh) {
  ScopedEnvironment simulation(kVariable, file_.string());
  writeFile(file_, R"({"devices": [
      {"objectID": 41, "uid": "Mic", "name": "Mic", "inputStreams": [2]},
      {"objectID": 42, "uid": "app.brisola.device.x", "name": "Mix", "outputStreams": [2]}],
    "processes": [{"objectID": 90, "pid": 10, "bundleID": "com.example.app"}],
    "applications": [{"pid": 10, "localizedName": "App", "activationPolicy": "regular"}]})");
  EXPECT_EQ(HardwareBackend::current()->status(), std::nullopt);
  const auto layer = HardwareBackend::current()->snapshot();
  EXPECT_THAT(Registry::allDeviceUIDs(), ElementsAre("Mic", "app.brisola.device.x"));
  EXPECT_TRUE(Registry::containsDevice("Mic"));
  EXPECT_EQ(Registry::deviceInventory(), Registry::deviceInventory(*layer));
  EXPECT_EQ(Registry::brisolaDeviceSummaries().size(), 1u);
  EXPECT_EQ(Registry::applicationSourceCandidates().size(), 1u);
  EXPECT_FALSE(Registry::passThruDeviceIsLoaded() || Registry::halPlugInIsLoaded());

  // The driver is loaded and the other devices unplugged: the next call sees it.
  replaceFile(file_, R"({"devices": [{"objectID": 41, "uid": "dev.kestrine.pass-thru"}],
                        "plugIns": {"app.brisola.hal": 7}})");
  EXPECT_TRUE(Registry::passThruDeviceIsLoaded() && Registry::halPlugInIsLoaded());
  EXPECT_THAT(Registry::applicationSourceCandidates(), IsEmpty());
}

// Counts whole-file reads.
class CountingFileManager : public FileManagerWrapper {
 public:
  using FileManagerWrapper::FileManagerWrapper;
  std::string contents(const std::filesystem::path& path) const override {
    ++reads;
    return FileManagerWrapper::contents(path);
  }
  mutable std::atomic<int> reads{0};
};

TEST_F(SimulatedHardwareTest, OneSnapshotIsOneReadAndKeepsItsViewWhileTheFileChanges) {
  auto files = std::make_shared<CountingFileManager>(FileManager::defaultManager());
  auto backend = HardwareBackend::simulated(file_, files);
  writeFile(file_, R"({"devices": [{"objectID": 41, "uid": "Old", "name": "Old",
                                    "outputStreams": [2]}]})");
  auto before = backend->snapshot();
  replaceFile(file_, R"({"devices": [{"objectID": 41, "uid": "New", "name": "New",
                                      "outputStreams": [2]}]})");

  EXPECT_THAT(names(Registry::deviceInventory(*before).outputs), ElementsAre("Old"));
  EXPECT_THAT(Registry::allDeviceUIDs(*before), ElementsAre("Old"));
  EXPECT_EQ(files->reads, 1);
  EXPECT_THAT(Registry::allDeviceUIDs(*backend->snapshot()), ElementsAre("New"));
  EXPECT_EQ(files->reads, 2);
}

TEST_F(SimulatedHardwareTest, BrokenOrMissingHardwareGivesEmptyAnswersAndSaysWhy) {
  struct Row {
    std::optional<std::string> variable;  // nullopt: unset; "<file>": the test's file
    std::optional<std::string> contents;  // nullopt: no file
    std::vector<std::string> reasonParts;
  };
  const std::string f = "<file>";
  const std::vector<Row> rows{
      {std::nullopt, std::nullopt, {"No PipeWire", "<dir>"}},
      {f, std::nullopt, {f, "No such file or directory"}},
      {"<dir>", std::nullopt, {"<dir>", "Is a directory"}},
      {f, "<fifo>", {f, "Invalid argument"}},  // read without blocking
      {f, "{\"devices\": [", {f, "is malformed", "not valid JSON"}},
      {f, "[]", {"is malformed", "the top level", "an object"}},
      {f, R"({"devices": [{"uid": "x"}]})", {"devices[0].objectID", "required key is missing"}},
      {f, R"({"devices": [{"objectID": 4294967296}]})", {"devices[0].objectID", "unsigned 32"}},
      {f, R"({"processes": [{"objectID": 1}]})", {"processes[0].objectID", "system object"}},
      {f,
       R"({"devices": [{"objectID": 41}], "processes": [{"objectID": 41}]})",
       {"processes[0].objectID", "already used at devices[0].objectID"}},
      {f,
       R"({"devices": [{"objectID": 41, "inputChannelNames": [3]}]})",
       {"devices[0].inputChannelNames[0]", "a string"}},
      {f,
       R"({"applications": [{"pid": 1, "activationPolicy": "x"}]})",
       {"applications[0].activationPolicy", "\"x\""}},
      {f,
       R"({"applications": [{"pid": 1, "activationPolicy": "regular"},
                                {"pid": 1, "activationPolicy": "regular"}]})",
       {"applications[1].pid"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.variable.value_or("unset") + " " + row.contents.value_or("(no file)"));
    TempDir dir;
    const auto file = dir / "hardware.json";
    auto resolve = [&](const std::string& text) {
      return std::regex_replace(std::regex_replace(text, std::regex("<file>"), file.string()),
                                std::regex("<dir>"), dir.path().string());
    };
    if (row.contents == "<fifo>") {
      ::mkfifo(file.c_str(), 0600);
    } else if (row.contents) {
      writeFile(file, *row.contents);
    }
    ScopedEnvironment simulation(
        kVariable, row.variable ? std::optional(resolve(*row.variable)) : std::nullopt);
    ScopedEnvironment noServer("PIPEWIRE_RUNTIME_DIR", dir.path().string());

    const auto reason = HardwareBackend::current()->status();
    ASSERT_TRUE(reason.has_value());
    for (const auto& part : row.reasonParts) EXPECT_THAT(*reason, HasSubstr(resolve(part)));

    expectNothing();
  }
}

}  // namespace
}  // namespace brisola
