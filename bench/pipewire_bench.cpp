// Cost of one view of the hardware from a real PipeWire (a private server with N null sinks),
// as the service takes one per cycle: the snapshot alone, and the snapshot with the inventory.
// In steady state a snapshot copies the cached description: no round trip to the server.

#include <benchmark/benchmark.h>

#include "brisola/devices/core_audio_device_registry.hpp"
#include "support/private_pipewire.hpp"

namespace {

brisola::testing::PrivatePipeWire& serverWithSinks(std::int64_t count) {
  static brisola::testing::PrivatePipeWire server;
  static std::int64_t created = 0;
  server.useInThisProcess();
  for (; created < count; ++created) {
    server.createNode({.name = "sink" + std::to_string(created),
                       .description = "Sink " + std::to_string(created)});
  }
  return server;
}

void PipeWireSnapshot(benchmark::State& state) {
  serverWithSinks(state.range(0));
  const auto backend = brisola::HardwareBackend::pipeWire();
  if (backend->status()) state.SkipWithError(backend->status()->c_str());
  for (auto _ : state) benchmark::DoNotOptimize(backend->snapshot());
}

void PipeWireSnapshotAndInventory(benchmark::State& state) {
  serverWithSinks(state.range(0));
  const auto backend = brisola::HardwareBackend::pipeWire();
  std::size_t outputs = 0;
  for (auto _ : state) {
    auto inventory = brisola::CoreAudioDeviceRegistry::deviceInventory(*backend->snapshot());
    outputs = inventory.outputs.size();
    benchmark::DoNotOptimize(inventory);
  }
  state.counters["outputs"] = static_cast<double>(outputs);
}

// The server only grows: each size runs both measurements before the next size is made.
BENCHMARK(PipeWireSnapshot)->Arg(10);
BENCHMARK(PipeWireSnapshotAndInventory)->Arg(10);
BENCHMARK(PipeWireSnapshot)->Arg(100);
BENCHMARK(PipeWireSnapshotAndInventory)->Arg(100);

}  // namespace

BENCHMARK_MAIN();
