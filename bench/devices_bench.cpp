// Cost of one device inventory against simulated hardware: the service asks once per cycle.
// "FromFile" includes reading and parsing the file; "FromSnapshot" is the registry alone.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "brisola/devices/core_audio_device_registry.hpp"

namespace {

std::filesystem::path writeHardware(std::int64_t devices) {
  std::string text = R"({"defaultOutputDevice": 100, "devices": [)";
  for (std::int64_t i = 0; i < devices; ++i) {
    const std::string n = std::to_string(i);
    if (i > 0) text += ",";
    text += R"({"objectID": )" + std::to_string(100 + i) + R"(, "uid": "Device)" + n +
            R"(", "name": "Device )" + n +
            R"(", "inputStreams": [2], "outputStreams": [2],)"
            R"( "inputChannelNames": ["Left", "Right"], "outputChannelNames": [null, "2"]})";
  }
  text += "]}";
  auto path = std::filesystem::temp_directory_path() /
              ("brisola-devices-bench-" + std::to_string(::getpid()) + "-" +
               std::to_string(devices) + ".json");
  std::ofstream(path) << text;
  return path;
}

void DeviceInventoryFromFile(benchmark::State& state) {
  const auto path = writeHardware(state.range(0));
  const auto backend = brisola::HardwareBackend::simulated(path);
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        brisola::CoreAudioDeviceRegistry::deviceInventory(*backend->snapshot()));
  }
  std::filesystem::remove(path);
}

void DeviceInventoryFromSnapshot(benchmark::State& state) {
  const auto path = writeHardware(state.range(0));
  const auto snapshot = brisola::HardwareBackend::simulated(path)->snapshot();
  std::filesystem::remove(path);
  for (auto _ : state) {
    benchmark::DoNotOptimize(brisola::CoreAudioDeviceRegistry::deviceInventory(*snapshot));
  }
}

BENCHMARK(DeviceInventoryFromFile)->Arg(8)->Arg(64);
BENCHMARK(DeviceInventoryFromSnapshot)->Arg(8)->Arg(64);

}  // namespace

BENCHMARK_MAIN();
