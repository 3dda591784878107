// The whole product on a private PipeWire: the service, brisola-virtual-devices and the real
// helpers, with documents made by brisolactl, heard at null-sink "speakers".

#include <signal.h>
#include <sys/mman.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

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
using ::testing::Key;
using ::testing::UnorderedElementsAre;

constexpr auto pollInterval = 500ms;

class RoutedSound : public ::testing::Test {
 protected:
  void SetUp() override {
    ::shm_unlink("/brisolaruntime3");
    server_.useInThisProcess();
    server_.createNode({.name = "speakers"});
    server_.createNode({.name = "elsewhere"});
    server_.createNode({.name = "mic", .mediaClass = "Audio/Source/Virtual"});
    server_.setDefault("elsewhere");
    testing::writeToneWav(dir_ / "tone.wav", 2, 1000, 0.5, 120);
    environment_ = server_.environment();
    environment_["BRISOLA_CONFIG_PATH"] = (dir_ / "config.json").string();
    environment_["BRISOLA_HELPER_DIR"] = (testing::buildDirectory() / "service").string();
    environment_["BRISOLA_SERVICE_POLL_SECONDS"] = "0.5";
    environment_.erase("BRISOLA_HARDWARE_SIMULATION");
    devices_ = server_.start({program("brisola-virtual-devices")});
  }
  void TearDown() override {
    service_.reset();
    devices_.reset();
    ::shm_unlink("/brisolaruntime3");
  }

  static std::string program(const char* name) {
    return (testing::buildDirectory() / "service" / name).string();
  }

  void startService() {
    service_ = std::make_unique<testing::RunningProcess>(program("brisola-audio-service"),
                                                         std::vector<std::string>{}, environment_,
                                                         dir_.path(), dir_.path());
  }

  // Runs brisolactl on the test's document; the "id" of what it printed.
  std::string ctl(const std::vector<std::string>& arguments) {
    const auto result = testing::runToCompletion(testing::buildDirectory() / "tools" / "brisolactl",
                                                 arguments, environment_, dir_.path());
    EXPECT_EQ(result.status, 0) << result.err;
    const auto printed = nlohmann::json::parse(result.out, nullptr, false);
    return printed.is_object() && printed.contains("id") ? printed["id"].get<std::string>() : "";
  }

  // A process that plays the tone file, with a PID the document can name.
  std::unique_ptr<testing::RunningProcess> application(const std::string& target = "") {
    std::vector<std::string> argv{"pw-play"};
    if (!target.empty()) argv.insert(argv.end(), {"--target", target});
    argv.push_back((dir_ / "tone.wav").string());
    return server_.start(argv);
  }

  // The speakers' levels once they have been steady at `amplitudes` for 100 ms (or the last
  // levels heard, after `limit`).
  std::vector<double> settledLevels(AudioProbe::Recorder& recorder,
                                    const std::vector<double>& amplitudes,
                                    std::chrono::milliseconds limit = 10s) {
    std::vector<double> levels;
    testing::eventually(
        [&] { return testing::levelsMatch(levels = recorder.recentLevels(100ms), amplitudes); },
        limit, 20ms);
    return levels;
  }

  // The helpers the service runs now: their process names and ids.
  std::multimap<std::string, pid_t> helpers() const {
    return service_ ? testing::childrenOf(service_->pid()) : std::multimap<std::string, pid_t>{};
  }

  testing::PrivatePipeWire server_;
  testing::TempDir dir_;
  std::map<std::string, std::string> environment_;
  std::unique_ptr<testing::RunningProcess> devices_;
  std::unique_ptr<testing::RunningProcess> service_;
  AudioProbe probe_;
};

TEST_F(RoutedSound, ApplicationAndMicrophoneReachTheSpeakersAtTheProductOfTheirGains) {
  auto app = application("elsewhere");
  auto micTone = probe_.play({.amplitudes = {0.5, 0.5}, .name = "mic-tone"});
  server_.linkChannels("mic-tone", "mic");

  const auto device = ctl({"device", "add", "Studio"});
  ctl({"device", "volume", device, "0.5"});
  const auto tap = ctl(
      {"source", "add", device, "application", "--pid", std::to_string(app->pid()), "--no-wire"});
  ctl({"wire", "connect", device, "source:" + tap + ":1", "deviceOutput:" + device + ":1"});
  ctl({"source", "set", device, tap, "--gain", "0.5"});
  const auto mic =
      ctl({"source", "add", device, "hardwareInput", "--device-uid", "mic", "--no-wire"});
  ctl({"wire", "connect", device, "source:" + mic + ":2", "deviceOutput:" + device + ":2"});
  const auto monitor = ctl({"monitor", "add", device, "speakers"});
  ctl({"monitor", "set", device, monitor, "--gain", "0.5"});
  startService();

  auto speakers = probe_.record({.target = "speakers", .sinkMonitor = true});
  // tone 0.5 · source · device 0.5 · monitor 0.5: the application on the left (source 0.5),
  // the microphone's second channel on the right (source 1.0).
  expectLevels(settledLevels(*speakers, {0.0625, 0.125}), {0.0625, 0.125});

  const auto edited = std::chrono::steady_clock::now();
  ctl({"monitor", "set", device, monitor, "--gain", "1.0"});
  settledLevels(*speakers, {0.125, 0.25}, 5s);
  EXPECT_LT(std::chrono::steady_clock::now() - edited, 2 * pollInterval + 100ms)
      << "a monitor gain edit is heard within two cycles";
  expectLevels(speakers->recentLevels(100ms), {0.125, 0.25});

  // Unplugged, the monitor has nowhere to play; plugged back, it plays again.
  speakers.reset();
  server_.removeNode("speakers");
  ASSERT_TRUE(service_->waitForOutput("Stopping monitor", 3s)) << service_->standardOutput();
  server_.createNode({.name = "speakers"});
  const auto plugged = std::chrono::steady_clock::now();
  speakers = probe_.record({.target = "speakers", .sinkMonitor = true});
  expectLevels(settledLevels(*speakers, {0.125, 0.25}, 5s), {0.125, 0.25});
  EXPECT_LT(std::chrono::steady_clock::now() - plugged, 2 * pollInterval + 300ms);
}

TEST_F(RoutedSound, NestedDeviceAndSystemCaptureFeedAnotherDevice) {
  auto micTone = probe_.play({.amplitudes = {0.5, 0.5}, .name = "mic-tone"});
  server_.linkChannels("mic-tone", "mic");
  const auto inner = ctl({"device", "add", "Inner"});
  ctl({"device", "volume", inner, "0.5"});
  ctl({"source", "add", inner, "hardwareInput", "--device-uid", "mic"});
  const auto outer = ctl({"device", "add", "Outer"});
  const auto nested = ctl({"source", "nest", outer, inner});
  ctl({"monitor", "add", outer, "speakers"});
  startService();

  auto speakers = probe_.record({.target = "speakers", .sinkMonitor = true});
  expectLevels(settledLevels(*speakers, {0.25, 0.25}), {0.25, 0.25});

  // What the default output plays ("elsewhere"), instead of the nested device.
  auto app = application();
  ctl({"source", "set", outer, nested, "--enabled", "false"});
  const auto system = ctl({"source", "add", outer, "system"});
  ctl({"source", "set", outer, system, "--gain", "0.5"});
  expectLevels(settledLevels(*speakers, {0.25, 0.25}), {0.25, 0.25});
}

TEST_F(RoutedSound, MuteWhenCapturingSilencesTheApplicationOnlyWhileItIsCaptured) {
  server_.setDefault("speakers");
  auto app = application();
  auto speakers = probe_.record({.target = "speakers", .sinkMonitor = true});
  expectLevels(settledLevels(*speakers, {0.5, 0.5}), {0.5, 0.5});

  const auto device = ctl({"device", "add", "Capture"});
  const auto tap =
      ctl({"source", "add", device, "application", "--pid", std::to_string(app->pid())});
  ctl({"source", "mute-when-capturing", device, tap, "true"});
  startService();
  expectLevels(settledLevels(*speakers, {0, 0}), {0, 0});
  auto mix = probe_.record({.target = std::string("app.brisola.device.") + device + ".mix"});
  expectLevels(settledLevels(*mix, {0.5, 0.5}), {0.5, 0.5});

  // A helper killed outright leaves nothing behind that keeps the application silent.
  for (const auto& [name, pid] : helpers()) {
    if (name == "brisola-process") ::kill(pid, SIGKILL);
  }
  expectLevels(settledLevels(*speakers, {0.5, 0.5}, 1500ms), {0.5, 0.5});
  // Restarted by the service, it captures and mutes again; without the source it lets go.
  expectLevels(settledLevels(*speakers, {0, 0}), {0, 0});
  ctl({"source", "set", device, tap, "--enabled", "false"});
  expectLevels(settledLevels(*speakers, {0.5, 0.5}), {0.5, 0.5});
}

TEST_F(RoutedSound, StoppingTheServiceLeavesNoHelperAndNoLinkOfOne) {
  auto app = application("elsewhere");
  const auto device = ctl({"device", "add", "Studio"});
  ctl({"source", "add", device, "application", "--pid", std::to_string(app->pid())});
  ctl({"monitor", "add", device, "speakers"});
  startService();
  auto speakers = probe_.record({.target = "speakers", .sinkMonitor = true});
  expectLevels(settledLevels(*speakers, {0.5, 0.5}), {0.5, 0.5});
  EXPECT_THAT(helpers(), UnorderedElementsAre(Key("brisola-monitor"), Key("brisola-process")));

  service_->signal(SIGTERM);
  ASSERT_EQ(service_->waitFor(5s), 0);
  EXPECT_THAT(helpers(), ::testing::IsEmpty());
  const auto links = server_.tool("pw-link", {"-l"}).out;
  EXPECT_TRUE(testing::eventually(
      [&] {
        const auto now = server_.tool("pw-link", {"-l"}).out;
        return now.find("brisola-monitor") == std::string::npos &&
               now.find("brisola-process-tap") == std::string::npos &&
               now.find("/helper_") == std::string::npos;
      },
      2s, 50ms))
      << links;
  expectLevels(settledLevels(*speakers, {0, 0}), {0, 0});
}

}  // namespace
}  // namespace brisola
