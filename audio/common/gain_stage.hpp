#pragma once

// The arithmetic of every audio path: a gain on routed channels, per-channel gains on either
// side, and something added before the output gains. Plain values and functions, used from
// audio threads: nothing here allocates, locks or calls the system.

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "brisola/model/limits.hpp"
#include "brisola/runtime/route_map.hpp"

namespace brisola::audio {

inline constexpr std::size_t maximumChannels = Limits::channelSlotCount;
inline constexpr std::size_t maximumRoutes = 256;

struct ChannelPair {
  std::uint8_t from = 0;  // zero-based
  std::uint8_t to = 0;
  bool operator==(const ChannelPair&) const = default;
};

// out[o] = outputGains[o] · (Σ over routes s→o of gain · inputGains[s] · in[s] + add[o])
struct GainStage {
  float gain = 1.0f;
  std::array<float, maximumChannels> inputGains;
  std::array<float, maximumChannels> outputGains;
  std::array<ChannelPair, maximumRoutes> routes{};
  std::size_t routeCount = 0;

  GainStage() {
    inputGains.fill(1.0f);
    outputGains.fill(1.0f);
  }
  bool operator==(const GainStage&) const = default;

  // One-based routes as the service hands them out; routes outside 1...64 are left out.
  void setRoutes(std::span<const RuntimeChannelRoute> oneBased);
  // The highest channel the routes read from and write to, one-based (0: no routes).
  std::size_t inputChannelsUsed() const;
  std::size_t outputChannelsUsed() const;
};

// Missing buffers (unlinked ports) count as silence; outputs beyond `out` are not written.
void render(const GainStage& stage, std::span<const float* const> in,
            std::span<const float* const> add, std::span<float* const> out, std::uint32_t frames);

// Texts of the helpers' environment. Each gives nothing for a malformed text.
// "1:1,2:2" (the empty text: no routes).
std::optional<std::vector<RuntimeChannelRoute>> parseRoutes(std::string_view text);
// "1.0,0.5" (the empty text: no gains).
std::optional<std::vector<float>> parseGains(std::string_view text);

// Level (RMS) and peak of each channel of the last block measured, as linear amplitudes. The
// audio thread measures; any other thread reads, without locks.
class LevelMeter {
 public:
  void measure(std::span<const float* const> channels, std::uint32_t frames);
  void read(std::span<float> levels, std::span<float> peaks) const;

 private:
  std::array<std::atomic<float>, maximumChannels> levels_{};
  std::array<std::atomic<float>, maximumChannels> peaks_{};
};

}  // namespace brisola::audio
