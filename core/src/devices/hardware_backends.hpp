#pragma once

// Views of hardware that the back ends share.

#include <memory>
#include <string>

#include "brisola/devices/hardware_layer.hpp"

namespace brisola {

// A view that fails every query and gives `reason` as its unavailable reason.
std::unique_ptr<HardwareLayer> makeUnavailableHardwareLayer(std::string reason);

}  // namespace brisola
