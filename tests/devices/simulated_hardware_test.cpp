#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <atomic>
#include <filesystem>

#include "brisola/devices/core_audio_device_registry.hpp"
#include "brisola/platform/file_manager.hpp"
#include "devices/fixed_locale.hpp"
#include "support/system_helpers.hpp"

namespace brisola {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using testing::ScopedEnvironment;
using testing::TempDir;
using testing::writeFile;

constexpr const char* kVariable = "BRISOLA_HARDWARE_SIMULATION";

// Replaces the file in one step, as a user swapping hardware files under a running service
// would.
void replaceFile(const std::filesystem::path& path, std::string_view bytes) {
  const auto temporary = path.parent_path() / ".replacement.json";
  writeFile(temporary, bytes);
  std::filesystem::rename(temporary, path);
}

class SimulatedHardwareTest : public ::testing::Test {
 protected:
  testing::FixedICULocale locale_{"en_US"};
  TempDir dir_;
  std::filesystem::path file_ = dir_ / "hardware.json";
};

TEST_F(SimulatedHardwareTest, ExampleFileDescribesAMachineTheExampleDocumentCanUse) {
  auto layer = HardwareBackend::simulated(std::filesystem::path(BRISOLA_SOURCE_DIR) / "examples" /
                                          "hardware-simulation.json")
                   ->snapshot();
  ASSERT_EQ(layer->unavailableReason(), std::nullopt);

  // The example document plays on the speakers and records from the USB interface.
  EXPECT_TRUE(CoreAudioDeviceRegistry::containsDevice(*layer, "USBAudioInterface"));
  EXPECT_TRUE(CoreAudioDeviceRegistry::passThruDeviceIsLoaded(*layer));
  EXPECT_TRUE(CoreAudioDeviceRegistry::halPlugInIsLoaded(*layer));
  auto inventory = CoreAudioDeviceRegistry::deviceInventory(*layer);
  ASSERT_FALSE(inventory.inputs.empty());
  EXPECT_TRUE(inventory.inputs[0].isDefault);
  ASSERT_FALSE(inventory.outputs.empty());
  EXPECT_EQ(inventory.outputs[0].uid, "BuiltInSpeakerDevice");
  EXPECT_TRUE(inventory.outputs[0].isDefault);
  auto candidates = CoreAudioDeviceRegistry::applicationSourceCandidates(*layer);
  ASSERT_EQ(candidates.size(), 1u);
  EXPECT_EQ(candidates[0].displayName, "Sketchpad");
}

// The environment names the file, and every call without a view reads it afresh.
TEST_F(SimulatedHardwareTest, TheEnvironmentNamesTheFileAndEveryCallReadsItAfresh) {
  using Registry = CoreAudioDeviceRegistry;
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
  EXPECT_FALSE(Registry::passThruDeviceIsLoaded());
  EXPECT_FALSE(Registry::halPlugInIsLoaded());

  // The driver is loaded and the other devices unplugged: the next call sees it.
  replaceFile(file_, R"({"devices": [{"objectID": 41, "uid": "dev.kestrine.pass-thru"}],
                        "plugIns": {"app.brisola.hal": 7}})");
  EXPECT_TRUE(Registry::passThruDeviceIsLoaded());
  EXPECT_TRUE(Registry::halPlugInIsLoaded());
  EXPECT_THAT(Registry::applicationSourceCandidates(), IsEmpty());
}

// A hostile file used to make the registry name 2^32 channels (and loop for ever at the top).
TEST_F(SimulatedHardwareTest, AbsurdChannelCountsAreBounded) {
  ScopedEnvironment simulation(kVariable, file_.string());
  writeFile(file_, R"({"devices": [{"objectID": 41, "uid": "Huge", "name": "Huge",
      "inputStreams": [4294967295, 4294967295], "inputChannelNames": ["A"]}]})");
  const auto inventory = CoreAudioDeviceRegistry::deviceInventory();
  ASSERT_EQ(inventory.inputs.size(), 1u);
  EXPECT_EQ(inventory.inputs[0].channelCount, CoreAudioDeviceRegistry::maximumChannelCount);
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

  EXPECT_THAT(CoreAudioDeviceRegistry::deviceInventory(*before).outputs,
              ElementsAre(::testing::Field(&AudioDeviceInfo::name, "Old")));
  EXPECT_THAT(CoreAudioDeviceRegistry::allDeviceUIDs(*before), ElementsAre("Old"));
  EXPECT_EQ(files->reads, 1);
  EXPECT_THAT(CoreAudioDeviceRegistry::allDeviceUIDs(*backend->snapshot()), ElementsAre("New"));
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
    auto resolve = [&](std::string text) {
      for (const auto& [placeholder, path] :
           {std::pair{std::string("<file>"), file.string()},
            std::pair{std::string("<dir>"), dir.path().string()}}) {
        if (auto at = text.find(placeholder); at != std::string::npos) {
          text.replace(at, placeholder.size(), path);
        }
      }
      return text;
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

    EXPECT_THAT(CoreAudioDeviceRegistry::allDeviceUIDs(), IsEmpty());
    EXPECT_FALSE(CoreAudioDeviceRegistry::passThruDeviceIsLoaded());
    EXPECT_FALSE(CoreAudioDeviceRegistry::halPlugInIsLoaded());
    EXPECT_EQ(CoreAudioDeviceRegistry::deviceInventory(), AudioDeviceInventory{});
    EXPECT_THAT(CoreAudioDeviceRegistry::brisolaDeviceSummaries(), IsEmpty());
    EXPECT_THAT(CoreAudioDeviceRegistry::applicationSourceCandidates(), IsEmpty());
  }
}

}  // namespace
}  // namespace brisola
