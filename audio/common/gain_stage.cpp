#include "common/gain_stage.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>

#include "brisola/runtime/runtime_controls.hpp"

namespace brisola::audio {

void GainStage::setRoutes(std::span<const RuntimeChannelRoute> oneBased) {
  routeCount = 0;
  for (const auto& route : oneBased) {
    if (routeCount == routes.size()) break;
    const auto inRange = [](std::int64_t channel) {
      return channel >= 1 && channel <= static_cast<std::int64_t>(maximumChannels);
    };
    if (!inRange(route.sourceChannel) || !inRange(route.outputChannel)) continue;
    routes[routeCount++] = {static_cast<std::uint8_t>(route.sourceChannel - 1),
                            static_cast<std::uint8_t>(route.outputChannel - 1)};
  }
}

std::size_t GainStage::inputChannelsUsed() const {
  std::size_t used = 0;
  for (std::size_t i = 0; i < routeCount; ++i)
    used = std::max<std::size_t>(used, routes[i].from + 1u);
  return used;
}

std::size_t GainStage::outputChannelsUsed() const {
  std::size_t used = 0;
  for (std::size_t i = 0; i < routeCount; ++i)
    used = std::max<std::size_t>(used, routes[i].to + 1u);
  return used;
}

void render(const GainStage& stage, std::span<const float* const> in,
            std::span<const float* const> add, std::span<float* const> out, std::uint32_t frames) {
  for (std::size_t o = 0; o < out.size(); ++o) {
    float* target = out[o];
    if (target == nullptr) continue;
    if (o < add.size() && add[o] != nullptr) {
      std::copy(add[o], add[o] + frames, target);
    } else {
      std::fill(target, target + frames, 0.0f);
    }
  }
  for (std::size_t i = 0; i < stage.routeCount; ++i) {
    const auto [from, to] = stage.routes[i];
    if (from >= in.size() || to >= out.size() || in[from] == nullptr || out[to] == nullptr) {
      continue;
    }
    const float gain = stage.gain * stage.inputGains[from];
    if (gain == 0.0f) continue;
    const float* source = in[from];
    float* target = out[to];
    for (std::uint32_t n = 0; n < frames; ++n) target[n] += gain * source[n];
  }
  for (std::size_t o = 0; o < out.size() && o < maximumChannels; ++o) {
    float* target = out[o];
    const float gain = stage.outputGains[o];
    if (target == nullptr || gain == 1.0f) continue;
    for (std::uint32_t n = 0; n < frames; ++n) target[n] *= gain;
  }
}

std::optional<std::vector<RuntimeChannelRoute>> parseRoutes(std::string_view text) {
  std::vector<RuntimeChannelRoute> routes;
  while (!text.empty()) {
    const auto comma = text.find(',');
    const auto item = text.substr(0, comma);
    const auto colon = item.find(':');
    if (colon == std::string_view::npos) return std::nullopt;
    RuntimeChannelRoute route;
    auto number = [](std::string_view digits, std::int64_t& value) {
      auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
      return !digits.empty() && error == std::errc() && end == digits.data() + digits.size();
    };
    if (!number(item.substr(0, colon), route.sourceChannel) ||
        !number(item.substr(colon + 1), route.outputChannel)) {
      return std::nullopt;
    }
    routes.push_back(route);
    if (comma == std::string_view::npos) break;
    text.remove_prefix(comma + 1);
    if (text.empty()) return std::nullopt;  // a trailing comma
  }
  return routes;
}

std::optional<std::vector<float>> parseGains(std::string_view text) {
  std::vector<float> gains;
  while (!text.empty()) {
    const auto comma = text.find(',');
    const std::string item(text.substr(0, comma));
    char* end = nullptr;
    const double value = std::strtod(item.c_str(), &end);
    if (item.empty() || end != item.c_str() + item.size()) return std::nullopt;
    gains.push_back(narrowedToFloat(value));
    if (comma == std::string_view::npos) break;
    text.remove_prefix(comma + 1);
    if (text.empty()) return std::nullopt;
  }
  return gains;
}

namespace {

// Four floats in one register (SSE on x86-64, NEON on ARM): the sum of squares and the maximum
// are reductions the compiler may not vectorise on its own without fast-math.
using Float4 = float __attribute__((vector_size(16)));
using Int4 = std::int32_t __attribute__((vector_size(16)));

}  // namespace

void LevelMeter::measure(std::span<const float* const> channels, std::uint32_t frames) {
  for (std::size_t c = 0; c < channels.size() && c < maximumChannels; ++c) {
    Float4 sums[2] = {};
    Float4 peaks[2] = {};
    float tailSum = 0.0f;
    float tailPeak = 0.0f;
    if (const float* samples = channels[c]; samples != nullptr) {
      std::uint32_t n = 0;
      for (; n + 8 <= frames; n += 8) {
        for (int half = 0; half < 2; ++half) {
          Float4 block;
          std::memcpy(&block, samples + n + 4 * half, sizeof block);
          sums[half] += block * block;
          const auto magnitude = reinterpret_cast<Float4>(reinterpret_cast<Int4>(block) &
                                                          std::numeric_limits<std::int32_t>::max());
          peaks[half] = magnitude > peaks[half] ? magnitude : peaks[half];
        }
      }
      for (; n < frames; ++n) {
        tailSum += samples[n] * samples[n];
        tailPeak = std::max(tailPeak, std::fabs(samples[n]));
      }
    }
    const Float4 sum4 = sums[0] + sums[1];
    const Float4 peak4 = peaks[0] > peaks[1] ? peaks[0] : peaks[1];
    float sum = tailSum;
    float peak = tailPeak;
    for (int k = 0; k < 4; ++k) {
      sum += sum4[k];
      peak = std::max(peak, peak4[k]);
    }
    const float level = frames > 0 ? std::sqrt(sum / static_cast<float>(frames)) : 0.0f;
    levels_[c].store(level, std::memory_order_relaxed);
    peaks_[c].store(peak, std::memory_order_relaxed);
  }
}

void LevelMeter::read(std::span<float> levels, std::span<float> peaks) const {
  for (std::size_t c = 0; c < levels.size() && c < maximumChannels; ++c) {
    levels[c] = levels_[c].load(std::memory_order_relaxed);
  }
  for (std::size_t c = 0; c < peaks.size() && c < maximumChannels; ++c) {
    peaks[c] = peaks_[c].load(std::memory_order_relaxed);
  }
}

}  // namespace brisola::audio
