// One poll cycle of the service, as it runs once per poll interval: heartbeat, document load,
// publish, device inventory (simulated hardware read from its file), planning and reconcile
// against helpers already running. Three ways, on the same files:
//   CycleAsBefore     every step done in full each cycle, as the service did before it kept
//                     anything: read and decode with nlohmann, open, write and close the block,
//                     plan;
//   Cycle             the service itself, nothing changed since the last cycle;
//   CycleAfterChange  the service itself, the document replaced before every cycle by one with
//                     a device's volume moved (the replacement is not timed).
//   build/bench/bench_service_cycle --benchmark_min_time=1
// With --write-files DIRECTORY DEVICES it only writes the document and the hardware file it
// measures on (config.json, hardware.json), for bench/service_cpu.sh to run the real service on.
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
#include "brisola/store/config_store.hpp"
#include "common/service_log.hpp"
#include "model/config_json.hpp"
#include "runtime/control_block.hpp"
#include "service/brisola_service.hpp"
#include "service/route_planner.hpp"
#include "supervision/route_supervisor.hpp"
#include "support/documents.hpp"
#include "support/fake_helpers.hpp"

namespace brisola {
namespace {

namespace fs = std::filesystem;
using namespace brisola::testing;

constexpr int hardwarePairs = 8;

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

enum class Way { asBefore, unchanged, afterChange };

void measure(benchmark::State& state, Way way) {
  const fs::path directory =
      fs::temp_directory_path() / ("brisola-cycle-bench-" + std::to_string(::getpid()));
  fs::create_directories(directory);
  for (auto name :
       {HelperPaths::monitorName, HelperPaths::hardwareSourceName, HelperPaths::processTapName}) {
    executable(directory / name);
  }
  ConfigSnapshot document = typicalDocument(state.range(0));
  const fs::path documentPath = directory / "config.json";
  std::ofstream(documentPath) << encodeJSON(document);
  std::ofstream(directory / "hardware.json") << hardwareFile();

  const std::string controlName = "/brisolabench-cycle-" + std::to_string(::getpid());
  const auto hardware = HardwareBackend::simulated(directory / "hardware.json");
  const fs::path heartbeat = directory / "service-heartbeat";
  FakeLauncher launcher;
  const Environment environment{{"BRISOLA_CONFIG_PATH", documentPath.string()},
                                {"BRISOLA_HELPER_DIR", directory.string()}};

  RuntimeControlWriter writer(controlName);
  ServicePorts ports;
  ports.publish = [&](const ConfigSnapshot& snapshot) {
    writer.publish(RuntimeDeviceControls::forDocument(snapshot));
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

  const auto fileManager = FileManager::defaultManager();
  // The two versions of the document a change switches between, encoded once: the front end
  // saves in its own process, and its allocations must not weigh on the service's here.
  std::string versions[2];
  for (int v = 0; v < 2; ++v) {
    document.devices[0].volume = v == 0 ? 0.5 : 1.0;
    versions[v] = encodeJSON(document);
  }
  std::int64_t saves = 0;
  for (auto _ : state) {
    switch (way) {
      case Way::asBefore: {
        ports.heartbeat();
        ConfigSnapshot snapshot = ConfigMigration::migrate(
            json::readSnapshot(json::parse(fileManager->contents(documentPath)), ""));
        RuntimeControlStoreV3::publish(controlName.c_str(),
                                       RuntimeDeviceControls::forDocument(snapshot),
                                       SharedMemorySystem::posix());
        ports.supervisor->reconcile(
            RoutePlanner::desiredRoutes(snapshot, ports.inventory(), service.helperPaths()));
        break;
      }
      case Way::afterChange:
        state.PauseTiming();
        std::ofstream(directory / "config.new") << versions[++saves % 2];
        fs::rename(directory / "config.new", documentPath);
        state.ResumeTiming();
        service.runCycle();
        break;
      case Way::unchanged:
        service.runCycle();
        break;
    }
  }

  state.counters["routes"] = static_cast<double>(ports.supervisor->routes().size());
  state.counters["logged"] = static_cast<double>(quiet.lines().size());
  ports.supervisor->stopAllRoutes();
  SharedMemorySystem::posix().unlink(controlName.c_str());
  fs::remove_all(directory);
}

void CycleAsBefore(benchmark::State& state) {
  measure(state, Way::asBefore);
}
void Cycle(benchmark::State& state) {
  measure(state, Way::unchanged);
}
void CycleAfterChange(benchmark::State& state) {
  measure(state, Way::afterChange);
}

BENCHMARK(CycleAsBefore)->Arg(10)->Arg(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(Cycle)->Arg(10)->Arg(1000)->Unit(benchmark::kMicrosecond);
BENCHMARK(CycleAfterChange)->Arg(10)->Arg(1000)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace brisola

int main(int argc, char** argv) {
  using namespace brisola;
  if (argc == 4 && std::string_view(argv[1]) == "--write-files") {
    const fs::path directory = argv[2];
    fs::create_directories(directory);
    std::ofstream(directory / "config.json") << encodeJSON(typicalDocument(std::stoll(argv[3])));
    std::ofstream(directory / "hardware.json") << hardwareFile();
    return 0;
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
