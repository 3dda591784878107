#pragma once

// Channel routes: which channel of a producer is played on which channel of a consumer, as
// read from a device's wires, and the "s:o,s:o" text handed to helper processes.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "brisola/model/config.hpp"
#include "brisola/model/json_coding.hpp"

namespace brisola {

// Both channels are one-based.
struct RuntimeChannelRoute {
  std::int64_t sourceChannel = 0;
  std::int64_t outputChannel = 0;
  bool operator==(const RuntimeChannelRoute&) const = default;
};

std::string encodeJSON(const RuntimeChannelRoute& route);
RuntimeChannelRoute decodeJSON(std::string_view bytes, JSONTag<RuntimeChannelRoute>);

// Pure functions of their arguments; they never fail and never sort or merge: the result keeps
// the order of the device's wires, duplicates included.
namespace RuntimeRouteMap {

// The most routes one call of sourceRoutes or monitorRoutes returns.
inline constexpr std::size_t maximumRouteCount = 256;

// Wires from the source `sourceID` into this device's own output, with an output channel in
// 1...supportedOutputChannelCount. The source channel only has to be at least 1.
std::vector<RuntimeChannelRoute> sourceRoutes(std::string_view sourceID, const DeviceConfig& device,
                                              std::int64_t supportedOutputChannelCount);

// Wires from this device's output (channel in 1...supportedInputChannelCount) into the monitor
// `monitorID` (channel in 1...supportedOutputChannelCount).
std::vector<RuntimeChannelRoute> monitorRoutes(std::string_view monitorID,
                                               const DeviceConfig& device,
                                               std::int64_t supportedInputChannelCount,
                                               std::int64_t supportedOutputChannelCount);

// "1:1,2:2"; the empty list gives the empty text.
std::string environmentValue(const std::vector<RuntimeChannelRoute>& routes);

// (1 → 1), (2 → 2).
std::vector<RuntimeChannelRoute> defaultStereoRoutes();
std::string defaultStereoEnvironmentValue();

}  // namespace RuntimeRouteMap

}  // namespace brisola
