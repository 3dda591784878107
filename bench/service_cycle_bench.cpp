// One poll cycle of the service in its steady state, as it runs once per poll interval:
// heartbeat, document load, publish, device inventory (simulated hardware read from its file),
// planning and reconcile against helpers already running.
//   build/bench/bench_service_cycle --benchmark_min_time=1
// Helpers are fakes that run until stopped, the control block lives under a private name, and every
// file sits in a private temporary directory: the benchmark touches nothing of the service's.

#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "brisola/devices/core_audio_device_registry.hpp"
#include "brisola/model/json_coding.hpp"
#include "brisola/runtime/heartbeat.hpp"
#include "common/service_log.hpp"
#include "runtime/control_block.hpp"
#include "service/brisola_service.hpp"
#include "supervision/route_supervisor.hpp"
#include "support/documents.hpp"

namespace brisola {
namespace {

namespace fs = std::filesystem;
using namespace brisola::testing;

constexpr int hardwarePairs = 8;

// Runs until asked to end, like a well-behaved helper.
class FakeChild final : public ChildProcess {
 public:
  pid_t pid() const override { return 1; }
  bool isRunning() override { return !ended_; }
  int terminationStatus() const override { return 0; }
  void terminate() override { ended_ = true; }
  void kill() override { ended_ = true; }

 private:
  bool ended_ = false;
};

class FakeLauncher final : public ProcessLauncher {
 public:
  LaunchResult launch(const fs::path&, const EnvironmentMap&) override {
    return std::make_unique<FakeChild>();
  }
};

// Every device as a user typically builds one: a pass-thru source, a microphone and a monitor,
// so each device plans two helpers.
ConfigSnapshot typicalDocument(std::int64_t deviceCount) {
  ConfigSnapshot snapshot;
  for (std::int64_t i = 0; i < deviceCount; ++i) {
    const std::string id = "device-" + std::to_string(i);
    const std::string hardware = std::to_string(i % hardwarePairs);
    DeviceConfig device = stereoDevice(id, "Device " + std::to_string(i));
    device.sources.push_back(hardwareSource(id + "-mic", "Mic" + hardware));
    device.monitors.push_back(monitor(id + "-out", "Out" + hardware));
    device.wires.push_back(wire(id + "-w3", sourceEnd(id + "-mic", 1), outputEnd(id, 1)));
    device.wires.push_back(wire(id + "-w4", outputEnd(id, 1), monitorEnd(id + "-out", 1)));
    device.wires.push_back(wire(id + "-w5", outputEnd(id, 2), monitorEnd(id + "-out", 2)));
    snapshot.devices.push_back(std::move(device));
  }
  return snapshot;
}

std::string hardwareFile() {
  std::string text = R"({"devices": [)";
  for (int i = 0; i < hardwarePairs; ++i) {
    const std::string n = std::to_string(i);
    if (i > 0) text += ",";
    text += R"({"objectID": )" + std::to_string(100 + 2 * i) + R"(, "uid": "Mic)" + n +
            R"(", "name": "Mic )" + n + R"(", "inputStreams": [2], "outputStreams": []},)";
    text += R"({"objectID": )" + std::to_string(101 + 2 * i) + R"(, "uid": "Out)" + n +
            R"(", "name": "Out )" + n + R"(", "inputStreams": [], "outputStreams": [2]})";
  }
  return text + "]}";
}

void executable(const fs::path& path) {
  std::ofstream(path) << "#!/bin/sh\n";
  fs::permissions(path, fs::perms::owner_all);
}

void ServiceCycle(benchmark::State& state) {
  const fs::path directory =
      fs::temp_directory_path() / ("brisola-cycle-bench-" + std::to_string(::getpid()));
  fs::create_directories(directory);
  for (auto name :
       {HelperPaths::monitorName, HelperPaths::hardwareSourceName, HelperPaths::processTapName}) {
    executable(directory / name);
  }
  std::ofstream(directory / "config.json") << encodeJSON(typicalDocument(state.range(0)));
  std::ofstream(directory / "hardware.json") << hardwareFile();

  const std::string controlName = "/brisolabench-cycle-" + std::to_string(::getpid());
  const auto hardware = HardwareBackend::simulated(directory / "hardware.json");
  const fs::path heartbeat = directory / "service-heartbeat";
  FakeLauncher launcher;
  const Environment environment{{"BRISOLA_CONFIG_PATH", (directory / "config.json").string()},
                                {"BRISOLA_HELPER_DIR", directory.string()}};

  ServicePorts ports;
  ports.publish = [&](const ConfigSnapshot& snapshot) {
    RuntimeControlStoreV3::publish(controlName.c_str(),
                                   RuntimeDeviceControls::forDocument(snapshot),
                                   SharedMemorySystem::posix());
  };
  ports.inventory = [&] { return CoreAudioDeviceRegistry::deviceInventory(*hardware->snapshot()); };
  ports.heartbeat = [&] { ServiceHeartbeat::beat(heartbeat, std::chrono::system_clock::now()); };
  ports.supervisor = std::make_shared<RouteSupervisor>(EnvironmentMap(environment), launcher,
                                                       SteadyClock::shared());
  // The start lines of the first cycle are not what is measured.
  BrisolaServiceLog::Capture quiet;
  BrisolaService service(environment, {"bench"}, ports);
  service.runCycle();
  if (ports.supervisor->routes().size() != 2 * static_cast<std::size_t>(state.range(0))) {
    state.SkipWithError("the document did not plan two helpers per device");
  }

  for (auto _ : state) service.runCycle();

  state.counters["routes"] = static_cast<double>(ports.supervisor->routes().size());
  state.counters["logged"] = static_cast<double>(quiet.lines().size());
  ports.supervisor->stopAllRoutes();
  SharedMemorySystem::posix().unlink(controlName.c_str());
  fs::remove_all(directory);
}

BENCHMARK(ServiceCycle)->Arg(10)->Arg(1000)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace brisola

BENCHMARK_MAIN();
