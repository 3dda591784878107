#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

#include "brisola/validation/validation.hpp"

namespace brisola {
namespace {

// Identifiers shaped like the UUID texts the library makes (36 characters, so none fits in a
// string's inline buffer).
std::string identifier(const char* kind, std::size_t device, std::size_t element = 0) {
  char text[64];
  std::snprintf(text, sizeof text, "%08zX-%-4.4s-4000-8000-%012zX", device, kind, element);
  return text;
}

SourceConfig makeSource(std::string id, SourceType type, std::string name) {
  return SourceConfig{.id = std::move(id),
                      .type = type,
                      .name = std::move(name),
                      .enabled = true,
                      .gain = 1.0,
                      .channelCount = 2};
}

// A device as the front end builds them: pass-thru, an application, the system and a
// microphone mixed onto two channels and played on one monitor; every tenth device also
// takes the previous device's output.
DeviceConfig typicalDevice(std::size_t index) {
  DeviceConfig device{.id = identifier("DEVI", index),
                      .name = "Device " + std::to_string(index),
                      .enabled = true,
                      .sampleRate = 48000,
                      .channelCount = 2,
                      .channelGains = std::vector<double>{1.0, 0.8}};
  device.sources.push_back(makeSource(identifier("PASS", index), SourceType::passThru, "Pass"));
  SourceConfig application = makeSource(identifier("APPL", index), SourceType::application, "App");
  application.metadata.bundleIdentifier = "com.example.player";
  application.muteWhenCapturing = true;
  device.sources.push_back(application);
  device.sources.push_back(makeSource(identifier("SYST", index), SourceType::system, "System"));
  SourceConfig microphone =
      makeSource(identifier("MICR", index), SourceType::hardwareInput, "Microphone");
  microphone.metadata.deviceUID = "BuiltInMicrophoneDevice";
  device.sources.push_back(microphone);
  if (index % 10 == 9) {
    SourceConfig nested = makeSource(identifier("NEST", index), SourceType::virtualDevice, "Mix");
    nested.metadata.sourceDeviceID = identifier("DEVI", index - 1);
    device.sources.push_back(nested);
  }
  device.monitors.push_back(MonitorConfig{.id = identifier("MONI", index),
                                          .name = "Headphones",
                                          .enabled = true,
                                          .gain = 1.0,
                                          .channelGains = std::vector<double>{1.0, 1.0},
                                          .deviceUID = "BuiltInHeadphoneDevice",
                                          .channelCount = 2});
  std::size_t wire = 0;
  for (const auto& source : device.sources) {
    for (std::int64_t channel = 1; channel <= 2; ++channel) {
      device.wires.push_back(Wire{.id = identifier("WIRE", index, wire++),
                                  .from = {EndpointKind::source, source.id, channel},
                                  .to = {EndpointKind::deviceOutput, device.id, channel}});
    }
  }
  for (std::int64_t channel = 1; channel <= 2; ++channel) {
    device.wires.push_back(Wire{.id = identifier("WIRE", index, wire++),
                                .from = {EndpointKind::deviceOutput, device.id, channel},
                                .to = {EndpointKind::monitor, device.monitors[0].id, channel}});
  }
  return device;
}

ConfigSnapshot document(std::size_t deviceCount) {
  ConfigSnapshot snapshot = ConfigSnapshot::empty();
  for (std::size_t i = 0; i < deviceCount; ++i) snapshot.devices.push_back(typicalDevice(i));
  snapshot.ui.selectedDeviceID = snapshot.devices.front().id;
  return snapshot;
}

void validateDocument(benchmark::State& state) {
  const auto deviceCount = static_cast<std::size_t>(state.range(0));
  const ConfigSnapshot snapshot = document(deviceCount);
  const ConfigValidator validator;
  if (!validator.validate(snapshot).isValid()) {
    state.SkipWithError("the benchmark document is not valid");
    return;
  }
  for (auto _ : state) benchmark::DoNotOptimize(validator.validate(snapshot));
  state.SetItemsProcessed(state.iterations() * state.range(0));
  state.counters["devices"] = static_cast<double>(deviceCount);
}
BENCHMARK(validateDocument)->Arg(10)->Arg(10'000)->Unit(benchmark::kMicrosecond);

// Every device nests the next: the graph search runs ten thousand deep.
void validateNestedChain(benchmark::State& state) {
  ConfigSnapshot snapshot = document(static_cast<std::size_t>(state.range(0)));
  for (std::size_t i = 0; i + 1 < snapshot.devices.size(); ++i) {
    SourceConfig nested = makeSource(identifier("CHAI", i), SourceType::virtualDevice, "Next");
    nested.metadata.sourceDeviceID = snapshot.devices[i + 1].id;
    snapshot.devices[i].sources.push_back(nested);
  }
  const ConfigValidator validator;
  for (auto _ : state) benchmark::DoNotOptimize(validator.validate(snapshot));
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(validateNestedChain)->Arg(10'000)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace brisola

BENCHMARK_MAIN();
