#pragma once

// The PipeWire back end of the hardware layer: the graph of the audio server described as the
// registry expects hardware to be.

#include "brisola/platform/pipewire_graph.hpp"
#include "devices/hardware_description.hpp"

namespace brisola {

// Devices: nodes of media class Audio/Sink (outputs), Audio/Source and Audio/Source/Virtual
// (inputs) and Audio/Duplex (both), with one buffer per direction of as many channels as the
// node has ports that way (monitor ports are not channels). The UID is node.name, except that
// the nodes of one Brisola virtual device are one device under the device's UID. Processes:
// one per client that plays at least one audio stream. The product's plug-in is the client
// whose application.id is the plug-in's bundle ID.
HardwareDescription describeHardware(const PipeWireGraph& graph);

}  // namespace brisola
