#pragma once

// Sources of the kinds documents.hpp has no builder for: enabled, not muted, gain 1.0, two
// channels.

#include <string>

#include "brisola/model/config.hpp"

namespace brisola::testing {

inline SourceConfig sourceOf(SourceType type, std::string id, std::string name,
                             SourceMetadata metadata = {}) {
  return SourceConfig{.id = std::move(id),
                      .type = type,
                      .name = std::move(name),
                      .enabled = true,
                      .gain = 1.0,
                      .channelCount = 2,
                      .metadata = std::move(metadata)};
}

// A source that feeds the device `deviceID` into its owner.
inline SourceConfig nestedSource(std::string id, std::string deviceID, std::string name = "Feed") {
  return sourceOf(SourceType::virtualDevice, std::move(id), std::move(name),
                  {.sourceDeviceID = std::move(deviceID)});
}

}  // namespace brisola::testing
