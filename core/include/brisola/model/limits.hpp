#pragma once

// The bounds that the document's validation, the live controls and the shared-memory layouts
// agree on. The layouts' sizes are fixed by the wire format, so changing any of these changes
// the format.

#include <cstddef>
#include <cstdint>

namespace brisola::Limits {

// Every gain: a document outside this range is invalid, and the audio path clamps to it.
inline constexpr double minimumGain = 0.0;
inline constexpr double maximumGain = 2.0;

// A device's channels: even, from 2 to 64. Channel gain lists and meters hold 64 entries.
inline constexpr std::int64_t minimumChannelCount = 2;
inline constexpr std::int64_t maximumChannelCount = 64;
inline constexpr std::size_t channelSlotCount = static_cast<std::size_t>(maximumChannelCount);

// What one control block carries: devices, and channel routes per device.
inline constexpr std::size_t maximumDeviceCount = 16;
inline constexpr std::size_t maximumRouteCount = 128;

}  // namespace brisola::Limits
