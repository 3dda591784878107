// What the audio programs cost, on a private PipeWire at the graph's default quantum, as CPU
// time of each process over ten seconds of stereo sound at 48 kHz:
// - brisola-virtual-devices with 16 devices carrying sound, and the latency its mixer adds
//   (where a tone starts in a device's mix against where it starts in its entrance's own
//   monitor, as positions of the driver's clock);
// - each helper moving a tone: an application captured, a microphone read, a mix played.
// The control block is the real one: do not run it beside a running service.

#include <sys/mman.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include "brisola/devices/core_audio_device_registry.hpp"
#include "brisola/runtime/control_store.hpp"
#include "support/audio_probe.hpp"
#include "support/private_pipewire.hpp"
#include "support/process_runner.hpp"
#include "support/system_helpers.hpp"

namespace {

using namespace brisola;
using namespace std::chrono_literals;

// CPU time of each thread of a process by the thread's name and id, to the nanosecond (scheduler
// statistics), with the number of times it was switched in.
struct ThreadCost {
  double seconds = 0;
  double switches = 0;
};
std::map<std::string, ThreadCost> threadCosts(pid_t pid) {
  std::map<std::string, ThreadCost> costs;
  const auto tasks = std::filesystem::path("/proc") / std::to_string(pid) / "task";
  std::error_code error;
  for (const auto& task : std::filesystem::directory_iterator(tasks, error)) {
    std::ifstream schedstat(task.path() / "schedstat"), comm(task.path() / "comm");
    std::string name;
    double nanoseconds = 0, waiting = 0, slices = 0;
    if (std::getline(comm, name) && schedstat >> nanoseconds >> waiting >> slices) {
      auto& cost = costs[name + " (" + task.path().filename().string() + ")"];
      cost.seconds += nanoseconds / 1e9;
      cost.switches += slices;
    }
  }
  return costs;
}

double cpuSeconds(pid_t pid) {
  double total = 0;
  for (const auto& [name, cost] : threadCosts(pid)) total += cost.seconds;
  return total;
}

RuntimeDeviceControls stereo(const std::string& uid) {
  return RuntimeDeviceControls(uid, uid, "waveform.circle", 2, true, 1.0f, {}, true, false, 1.0f,
                               {{1, 1}, {2, 2}});
}

bool waitForDevices(std::size_t count) {
  return testing::eventually(
      [&] {
        auto inventory = CoreAudioDeviceRegistry::deviceInventory();
        return inventory.inputs.size() == count && inventory.outputs.size() == count;
      },
      20s, 20ms);
}

// The graph position of the first sample above `threshold` in a recording.
std::optional<std::uint64_t> onset(const testing::AudioProbe::Recorder& recorder,
                                   float threshold = 0.01f) {
  for (const auto& block : recorder.blocks()) {
    for (std::size_t i = 0; i < block.frames; ++i) {
      if (std::abs(recorder.samples(0)[block.firstFrame + i]) > threshold) {
        return block.graphPosition + i;
      }
    }
  }
  return std::nullopt;
}

}  // namespace

int main() {
  ::shm_unlink("/brisolaruntime3");
  testing::PrivatePipeWire server;
  server.useInThisProcess();
  auto program =
      server.start({(testing::buildDirectory() / "service" / "brisola-virtual-devices").string()});
  testing::AudioProbe probe;

  // Latency, on one device.
  RuntimeControlStoreV3::publish({stereo("latency")});
  if (!waitForDevices(1)) return std::puts("the device did not appear"), 1;
  auto monitor = probe.record({.target = "latency", .sinkMonitor = true, .name = "monitor-rec"});
  auto mix = probe.record({.target = "latency.mix", .name = "mix-rec"});
  std::this_thread::sleep_for(500ms);
  auto tone = probe.play({.target = "latency", .amplitudes = {0.5, 0.5}});
  std::this_thread::sleep_for(1s);
  const auto in = onset(*monitor), out = onset(*mix);
  if (in && out) {
    std::printf("added latency: %lld samples (%.2f ms) at the graph's quantum\n",
                static_cast<long long>(*out) - static_cast<long long>(*in),
                (static_cast<double>(*out) - static_cast<double>(*in)) / 48.0);
  } else {
    std::puts("added latency: no onset heard");
  }
  tone.reset();
  monitor.reset();
  mix.reset();

  // CPU, with 16 devices playing.
  std::vector<RuntimeDeviceControls> devices;
  for (int i = 0; i < 16; ++i) devices.push_back(stereo("bench" + std::to_string(i)));
  RuntimeControlStoreV3::publish(devices);
  if (!waitForDevices(16)) return std::puts("the devices did not appear"), 1;
  {
    std::this_thread::sleep_for(1s);
    const double idleBefore = cpuSeconds(program->pid());
    std::this_thread::sleep_for(10s);
    std::printf("16 devices, silent and unused: %.2f%% of one core\n",
                10 * (cpuSeconds(program->pid()) - idleBefore));
  }
  std::vector<std::unique_ptr<testing::AudioProbe::Stream>> streams;
  for (const auto& device : devices) {
    streams.push_back(probe.play({.target = device.uid, .amplitudes = {0.5, 0.5}}));
    streams.push_back(probe.record({.target = device.uid + ".mix", .seconds = 1}));
  }
  std::this_thread::sleep_for(2s);
  const auto threadsBefore = threadCosts(program->pid());
  const double before = cpuSeconds(program->pid());
  const auto start = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(10s);
  const double used = cpuSeconds(program->pid()) - before;
  // Where it goes: each thread's share and its wake-ups per second.
  for (const auto& [name, cost] : threadCosts(program->pid())) {
    const auto was = threadsBefore.find(name);
    if (was == threadsBefore.end()) continue;
    std::printf("  thread %s: %.2f%% of one core, %.0f wake-ups a second\n", name.c_str(),
                10 * (cost.seconds - was->second.seconds),
                (cost.switches - was->second.switches) / 10);
  }
  const double elapsed =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("16 stereo devices: %.3f s of CPU in %.1f s = %.2f%% of one core\n", used, elapsed,
              100 * used / elapsed);
  if (std::getenv("BRISOLA_BENCH_PAUSE")) {  // time to look at the running program
    std::printf("pausing: pid %d\n", program->pid());
    std::fflush(stdout);
    std::this_thread::sleep_for(60s);
  }
  streams.clear();

  // The helpers, each moving a tone, all at once.
  RuntimeControlStoreV3::publish({stereo("helped")});
  if (!waitForDevices(1)) return std::puts("the device did not appear"), 1;
  server.createNode({.name = "speakers"});
  server.createNode({.name = "elsewhere"});
  server.createNode({.name = "mic", .mediaClass = "Audio/Source/Virtual"});
  testing::TempDir files;
  testing::writeToneWav(files / "tone.wav", 2, 1000, 0.5, 60);
  auto app = server.start({"pw-play", "--target", "elsewhere", (files / "tone.wav").string()});
  auto micTone = probe.play({.amplitudes = {0.5, 0.5}, .name = "mic-tone"});
  testing::eventually([&] { return server.nodeID("mic-tone") != 0; }, 5s, 20ms);
  server.linkChannels("mic-tone", "mic");
  auto helper = [&](const char* name, std::map<std::string, std::string> variables) {
    std::vector<std::string> argv{"/usr/bin/env"};
    for (const auto& [key, value] : variables) argv.push_back(key + "=" + value);
    argv.push_back((testing::buildDirectory() / "service" / name).string());
    return server.start(argv);
  };
  std::vector<std::pair<std::string, std::unique_ptr<testing::RunningProcess>>> helpers;
  helpers.emplace_back(
      "brisola-process-tap",
      helper("brisola-process-tap", {{"BRISOLA_TAP_OUTPUT_UID", "helped"},
                                     {"BRISOLA_TAP_SOURCE_ID", "s1"},
                                     {"BRISOLA_TAP_MODE", "application"},
                                     {"BRISOLA_TAP_PID", std::to_string(app->pid())},
                                     {"BRISOLA_TAP_ROUTES", "1:1,2:2"}}));
  helpers.emplace_back("brisola-hardware-source",
                       helper("brisola-hardware-source", {{"BRISOLA_SOURCE_INPUT_UID", "mic"},
                                                          {"BRISOLA_SOURCE_ID", "s2"},
                                                          {"BRISOLA_SOURCE_OUTPUT_UID", "helped"},
                                                          {"BRISOLA_SOURCE_ROUTES", "1:1,2:2"}}));
  helpers.emplace_back("brisola-monitor",
                       helper("brisola-monitor", {{"BRISOLA_MONITOR_INPUT_UID", "helped"},
                                                  {"BRISOLA_MONITOR_ID", "m1"},
                                                  {"BRISOLA_MONITOR_OUTPUT_UID", "speakers"},
                                                  {"BRISOLA_MONITOR_ROUTES", "1:1,2:2"}}));
  auto speakers = probe.record({.target = "speakers", .sinkMonitor = true, .seconds = 1});
  std::this_thread::sleep_for(2s);
  std::vector<double> helperBefore;
  for (auto& [name, process] : helpers) helperBefore.push_back(cpuSeconds(process->pid()));
  const auto helperStart = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(10s);
  const double helperElapsed =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - helperStart).count();
  const auto level = speakers->recentLevels(100ms);
  for (std::size_t i = 0; i < helpers.size(); ++i) {
    const double spent = cpuSeconds(helpers[i].second->pid()) - helperBefore[i];
    std::printf("%s: %.3f s of CPU in %.1f s = %.2f%% of one core%s\n", helpers[i].first.c_str(),
                spent, helperElapsed, 100 * spent / helperElapsed,
                helpers[i].second->running() ? "" : " (it stopped!)");
  }
  std::printf("the speakers heard %.1f dBFS\n", level[0]);
  program->stop();
  ::shm_unlink("/brisolaruntime3");
  return 0;
}
