#pragma once

// Turns a document into the helper processes it asks for. Pure apart from the skip lines it
// logs for sources the user has to fix.

#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include "brisola/ipc/exchange_records.hpp"
#include "brisola/model/config.hpp"
#include "common/desired_route.hpp"
#include "service/service_settings.hpp"

namespace brisola::RoutePlanner {

using UIDSet = std::unordered_set<std::string>;

// The UIDs of the inputs and of the outputs that are present.
std::pair<UIDSet, UIDSet> availableUIDs(const AudioDeviceInventory& inventory);

// Enabled devices in document order; per device its monitors, then its sources.
std::vector<DesiredRoute> desiredRoutes(const ConfigSnapshot& snapshot,
                                        const AudioDeviceInventory& inventory,
                                        const HelperPaths& helperPaths);

std::vector<DesiredRoute> desiredRoutes(const DeviceConfig& device, const ConfigSnapshot& snapshot,
                                        const UIDSet& availableInputUIDs,
                                        const UIDSet& availableOutputUIDs,
                                        const HelperPaths& helperPaths);

}  // namespace brisola::RoutePlanner
