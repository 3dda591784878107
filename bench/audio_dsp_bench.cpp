// The audio thread's own work in one graph cycle of 1024 frames: a device's gain stage and its
// two level meters, for one stereo device (multiply by the devices that carry sound).

#include <benchmark/benchmark.h>

#include <cmath>
#include <vector>

#include "common/gain_stage.hpp"

namespace {

using namespace brisola::audio;

constexpr std::uint32_t frames = 1024;

void DeviceCycle(benchmark::State& state) {
  std::vector<float> left(frames), right(frames), outLeft(frames), outRight(frames);
  for (std::uint32_t n = 0; n < frames; ++n) {
    left[n] = static_cast<float>(0.5 * std::sin(n * 0.13));
    right[n] = static_cast<float>(0.25 * std::sin(n * 0.07));
  }
  GainStage stage;
  stage.gain = 0.8f;
  const std::vector<brisola::RuntimeChannelRoute> routes{{1, 1}, {2, 2}};
  stage.setRoutes(routes);
  stage.outputGains[1] = 0.5f;
  const float* in[] = {left.data(), right.data()};
  const float* helpers[] = {nullptr, nullptr};
  float* out[] = {outLeft.data(), outRight.data()};
  LevelMeter entrance, output;
  for (auto _ : state) {
    entrance.measure(in, frames);
    render(stage, in, helpers, out, frames);
    output.measure(std::span<const float* const>(out, 2), frames);
    benchmark::DoNotOptimize(outLeft.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(state.iterations() * frames);
}

BENCHMARK(DeviceCycle);

}  // namespace

BENCHMARK_MAIN();
