#pragma once

// Where the audio programs find the devices they read from and write into, in the graph as it
// is now: the same UIDs the hardware layer lists, resolved to ports.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "brisola/platform/pipewire_graph.hpp"

namespace brisola::audio {

using PortList = std::vector<const PipeWirePort*>;

// The mixer's port names for a virtual device: "<uid>/in_FL", "<uid>/helper_FL", "<uid>/out_FL".
std::string mixerPortName(std::string_view deviceUID, std::string_view part,
                          std::string_view position);

// The ports that carry what a device records, by channel: a Brisola virtual device's mix, a
// source's outputs, a duplex device's capture side. Nothing when no such device is present.
std::optional<PortList> recordedPorts(const PipeWireGraph& graph, std::string_view uid);

// The ports that take what a device plays, by channel: a sink's (or a virtual device's
// entrance's) inputs. Nothing when no such device is present.
std::optional<PortList> playedPorts(const PipeWireGraph& graph, std::string_view uid);

// The node of a device that plays (a sink, or a virtual device's entrance).
const PipeWireNode* playingNode(const PipeWireGraph& graph, std::string_view uid);

// What a sink is playing (its monitor ports), by channel.
PortList monitorPorts(const PipeWireGraph& graph, const PipeWireNode& sink);

// A virtual device's helpers' entrance on the mixer, by channel. Nothing when the device (or
// the mixer) is not present.
std::optional<PortList> helperEntrance(const PipeWireGraph& graph, std::string_view uid);

// The default sink, as the session manager names it.
const PipeWireNode* defaultSink(const PipeWireGraph& graph);

}  // namespace brisola::audio
