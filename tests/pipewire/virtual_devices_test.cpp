// brisola-virtual-devices on a private PipeWire, fed by the real publisher: what comes out of
// each device, measured in recorded sound.

#include <signal.h>
#include <sys/mman.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <nlohmann/json.hpp>
#include <set>

#include "brisola/devices/core_audio_device_registry.hpp"
#include "brisola/runtime/control_store.hpp"
#include "brisola/runtime/meter_store.hpp"
#include "runtime/shm_test_support.hpp"
#include "support/audio_probe.hpp"
#include "support/private_pipewire.hpp"
#include "support/process_runner.hpp"
#include "support/system_helpers.hpp"

namespace brisola {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::AudioProbe;
using testing::expectLevels;
using testing::sineLevel;

RuntimeDeviceControls device(std::string uid,
                             std::vector<RuntimeChannelRoute> routes = {{1, 1}, {2, 2}}) {
  return RuntimeDeviceControls(uid, "Device " + uid, "waveform.circle", 2, true, 1.0f, {}, true,
                               false, 1.0f, std::move(routes));
}

// The levels of 100 ms of sound after `settle`. A loaded machine may drop a graph cycle now
// and then: a window that misses is measured again, twice at most; a wrong mix misses every
// time.
std::vector<double> settled(const AudioProbe::Recorder& recorder,
                            const std::vector<double>& amplitudes,
                            std::chrono::milliseconds settle = 150ms) {
  auto levels = recorder.levelsAfter(settle, 100ms);
  for (int retry = 0; retry < 2 && !testing::levelsMatch(levels, amplitudes); ++retry) {
    levels = recorder.levelsAfter(0ms, 100ms);
  }
  return levels;
}

class VirtualDevices : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    server_ = std::make_unique<testing::PrivatePipeWire>();
    server_->useInThisProcess();
  }
  static void TearDownTestSuite() { server_.reset(); }

  // Every test starts the program before anything is published.
  void SetUp() override {
    ::shm_unlink("/brisolaruntime3");
    program_ = server_->start(
        {(testing::buildDirectory() / "service" / "brisola-virtual-devices").string()});
  }
  void TearDown() override {
    program_.reset();
    ::shm_unlink("/brisolaruntime3");
  }

  std::string programLog() const { return program_->standardError() + program_->standardOutput(); }

  // Publishes and waits until exactly these devices are usable: inputs and outputs.
  void publish(const std::vector<RuntimeDeviceControls>& devices) {
    RuntimeControlStoreV3::publish(devices);
    auto uids = [](const auto& items) {
      std::set<std::string> result;
      for (const auto& item : items) result.insert(item.uid);
      return result;
    };
    const auto wanted = uids(devices);
    const auto backend = HardwareBackend::current();
    ASSERT_TRUE(testing::eventually(
        [&] {
          const auto inventory = CoreAudioDeviceRegistry::deviceInventory(*backend->snapshot());
          return uids(inventory.inputs) == wanted && uids(inventory.outputs) == wanted;
        },
        10s, 10ms))
        << programLog();
  }

  static inline std::unique_ptr<testing::PrivatePipeWire> server_;
  std::unique_ptr<testing::RunningProcess> program_;
  AudioProbe probe_;
};

TEST_F(VirtualDevices, MixFollowsEveryControlOfItsSlot) {
  publish({device("d1")});
  auto tone = probe_.play({.target = "d1", .amplitudes = {0.5, 0.25}});
  auto mix = probe_.record({.target = "d1.mix"});
  ASSERT_TRUE(mix->waitForMore(4800, 5s));

  struct Row {
    const char* label;
    std::vector<double> amplitudes;
    std::function<void(RuntimeDeviceControls&)> change;
    std::vector<RuntimeChannelRoute> routes = {{1, 1}, {2, 2}};
  };
  const std::vector<Row> rows{
      {"unity", {0.5, 0.25}},
      {"source, device and channel gains",
       {0.5 * 0.5 * 1.5, 0.25 * 0.5 * 1.5 * 0.5},
       [](auto& c) {
         c.sourceGain = 0.5f;
         c.deviceGain = 1.5f;
         c.channelGains[1] = 0.5f;
       }},
      {"muted", {0, 0}, [](auto& c) { c.muted = true; }},
      {"source switched off", {0, 0}, [](auto& c) { c.sourceEnabled = false; }},
      {"device switched off", {0, 0}, [](auto& c) { c.deviceEnabled = false; }},
      {"channels swapped", {0.25, 0.5}, {}, {{1, 2}, {2, 1}}},
      {"second channel dropped", {0.5, 0}, {}, {{1, 1}}},
      {"both onto the first", {0.75, 0}, {}, {{1, 1}, {2, 1}}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    auto controls = device("d1", row.routes);
    if (row.change) row.change(controls);
    RuntimeControlStoreV3::publish({controls});
    expectLevels(settled(*mix, row.amplitudes), row.amplitudes);
  }
}

TEST_F(VirtualDevices, AControlChangeIsHeardWithin50Milliseconds) {
  publish({device("d1")});
  auto tone = probe_.play({.target = "d1", .amplitudes = {0.5, 0.5}});
  auto mix = probe_.record({.target = "d1.mix"});  // at the graph's default quantum
  ASSERT_TRUE(mix->waitForMore(9600, 5s));

  for (int attempt = 0; attempt < 5; ++attempt) {
    auto controls = device("d1");
    controls.deviceGain = attempt % 2 == 0 ? 0.25f : 1.0f;
    const double expected = sineLevel(0.5 * controls.deviceGain);
    const auto published = std::chrono::steady_clock::now();
    RuntimeControlStoreV3::publish({controls});
    ASSERT_TRUE(mix->waitForMore(9600, 5s));
    const auto blocks = mix->blocks();
    const auto heard = std::find_if(blocks.begin(), blocks.end(), [&](const auto& block) {
      if (block.arrived < published) return false;
      return std::abs(mix->levels(block.firstFrame, block.firstFrame + block.frames)[0] -
                      expected) < 1.0;
    });
    ASSERT_NE(heard, blocks.end()) << "the new gain was never heard";
    EXPECT_LT(heard->arrived - published, 50ms);
  }
}

TEST_F(VirtualDevices, HelpersEntranceSkipsThePassThruStageButNotTheDevice) {
  auto controls = device("d1");
  controls.muted = true;
  controls.sourceGain = 0.5f;
  controls.deviceGain = 0.5f;
  publish({controls});
  auto passThru = probe_.play({.target = "d1", .amplitudes = {0.5, 0.5}});
  auto helper = probe_.play({.amplitudes = {0.5, 0.25}, .name = "helper-tone"});
  server_->link("helper-tone:output_FL", "brisola-mixer:d1/helper_FL");
  server_->link("helper-tone:output_FR", "brisola-mixer:d1/helper_FR");
  auto mix = probe_.record({.target = "d1.mix"});
  expectLevels(settled(*mix, {0.25, 0.125}, 200ms), {0.25, 0.125});

  controls.deviceEnabled = false;
  RuntimeControlStoreV3::publish({controls});
  expectLevels(settled(*mix, {0, 0}), {0, 0});
}

TEST_F(VirtualDevices, SixteenDevicesAndARemovedSlotLeavesTheOthersPlaying) {
  std::vector<RuntimeDeviceControls> devices;
  for (int i = 0; i < 16; ++i)
    devices.push_back(device("app.brisola.device.d" + std::to_string(i)));
  publish(devices);
  const auto hardware = HardwareBackend::current()->snapshot();
  EXPECT_TRUE(CoreAudioDeviceRegistry::halPlugInIsLoaded(*hardware));
  const auto inventory = CoreAudioDeviceRegistry::deviceInventory(*hardware);
  for (const auto& controls : devices) {
    auto listed = [&](const std::vector<AudioDeviceInfo>& side) {
      return std::any_of(side.begin(), side.end(), [&](const AudioDeviceInfo& info) {
        return info.uid == controls.uid && info.name == controls.name && info.channelCount == 2;
      });
    };
    EXPECT_TRUE(listed(inventory.inputs) && listed(inventory.outputs)) << controls.uid;
  }

  const std::string first = devices[0].uid;
  auto tone = probe_.play({.target = first, .amplitudes = {0.5, 0.5}});
  auto mix = probe_.record({.target = first + ".mix"});
  ASSERT_TRUE(mix->waitForMore(9600, 5s));
  // A loaded machine may drop a cycle now and then; a removal that disturbs the other devices
  // does it every time. Of three removals, at most one may coincide with a dropout.
  int disturbed = 0;
  for (const int slot : {7, 3, 11}) {
    const std::string removed = devices[static_cast<std::size_t>(slot)].uid;
    const std::size_t before = mix->frames();
    devices.erase(devices.begin() + slot);
    publish(devices);
    ASSERT_TRUE(mix->waitForMore(9600, 5s));
    for (std::size_t from = before; from + 480 <= mix->frames(); from += 480) {
      if (mix->levels(from, from + 480)[0] < sineLevel(0.5) - 0.1) {
        ++disturbed;
        break;
      }
    }
    EXPECT_FALSE(RuntimeMeterStore::reading(RuntimeMeterStore::outputOwnerID(removed)).has_value());
  }
  EXPECT_LE(disturbed, 1) << "removing a slot broke the sound of another device";
  expectLevels(settled(*mix, {0.5, 0.5}, 0ms), {0.5, 0.5});
}

TEST_F(VirtualDevices, MetersShowTheLevelsOfBothSides) {
  auto controls = device("d1");
  controls.deviceGain = 0.5f;
  publish({controls});
  auto tone = probe_.play({.target = "d1", .amplitudes = {0.5, 0.25}});
  auto mix = probe_.record({.target = "d1.mix"});
  ASSERT_TRUE(mix->waitForMore(9600, 5s));
  const auto ctl = testing::buildDirectory() / "tools" / "brisolactl";
  for (const auto& [side, gain] : {std::pair{"source", 1.0}, std::pair{"output", 0.5}}) {
    SCOPED_TRACE(side);
    const auto result = testing::runToCompletion(ctl, {"meter", "--device", "d1", "--side", side},
                                                 testing::currentEnvironment(), fs::current_path());
    ASSERT_EQ(result.status, 0) << result.err;
    const auto reading = nlohmann::json::parse(result.out);
    ASSERT_EQ(reading["levels"].size(), 2u);
    EXPECT_NEAR(20 * std::log10(reading["levels"][0].get<double>()), sineLevel(0.5 * gain), 0.5);
    EXPECT_NEAR(20 * std::log10(reading["levels"][1].get<double>()), sineLevel(0.25 * gain), 0.5);
    EXPECT_NEAR(reading["peaks"][0].get<double>(), 0.5 * gain, 0.01);
  }
}

TEST_F(VirtualDevices, BlockStatesAreLoggedOnceAndAStopRemovesEverything) {
  const auto logged = [&](const char* text) {
    return testing::eventually([&] { return programLog().find(text) != std::string::npos; }, 5s);
  };
  ASSERT_TRUE(logged("No control block"));
  // A block of another layout version: the magic, version 5, size, even sequence.
  testing::ShmObject block("/brisolaruntime3", 65536);
  const std::uint32_t header[] = {0x5354524B, 5, 65536, 2};
  for (std::size_t i = 0; i < 4; ++i) block.setU32(4 * i, header[i]);
  ASSERT_TRUE(logged("Cannot use the control block"));
  std::this_thread::sleep_for(200ms);  // twenty polls
  publish({device("d1")});
  ASSERT_TRUE(logged("Added device 'Device d1'"));
  // Updates in progress (an odd sequence) shorter than a poll interval, which some polls are
  // bound to meet: the device must not flap.
  const std::uint32_t sequence = block.u32(12);
  for (int update = 0; update < 12; ++update) {
    block.setU32(12, sequence + 1);
    std::this_thread::sleep_for(8ms);
    block.setU32(12, sequence);
    std::this_thread::sleep_for(30ms);
  }
  const std::string log = programLog();
  EXPECT_EQ(testing::countOccurrences(log, "Removed device"), 0) << log;
  for (const char* once : {"No control block", "Cannot use the control block", "Added device"})
    EXPECT_EQ(testing::countOccurrences(log, once), 1) << log;

  const auto meter = RuntimeMeterStore::outputOwnerID("d1");
  ASSERT_TRUE(RuntimeMeterStore::reading(meter).has_value());
  program_->signal(SIGTERM);
  EXPECT_EQ(program_->waitFor(5s), 0);
  EXPECT_THAT(programLog(), ::testing::HasSubstr("Stopped Brisola virtual devices"));
  EXPECT_FALSE(RuntimeMeterStore::reading(meter).has_value());
  const auto backend = HardwareBackend::current();
  EXPECT_TRUE(testing::eventually(
      [&] { return CoreAudioDeviceRegistry::allDeviceUIDs(*backend->snapshot()).empty(); }, 5s));
}

}  // namespace
}  // namespace brisola
