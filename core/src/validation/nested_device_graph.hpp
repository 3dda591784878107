#pragma once

#include "brisola/model/config.hpp"
#include "validation/validation_builder.hpp"

namespace brisola {

// The last step of validation: nested-device sources that name no device of the document
// (warnings), and every cycle among the devices that they join (errors). Runs in time
// proportional to the number of devices plus the number of nested sources, without
// recursion.
void validateNestedDeviceGraph(const ConfigSnapshot& snapshot, ValidationBuilder& builder);

}  // namespace brisola
