#pragma once

// A plain description of the audio hardware at one moment, and the hardware-layer view that
// answers the registry's queries from it. The simulated back end reads a description from a
// file; the PipeWire back end builds one from the audio server's graph.

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "brisola/devices/hardware_layer.hpp"

namespace brisola {

struct DescribedDevice {
  AudioObjectID objectID = kAudioObjectUnknown;
  std::optional<std::string> uid;
  std::optional<std::string> name;
  // Channels per buffer of each scope; absent makes the stream-layout query fail.
  std::optional<std::vector<std::uint32_t>> inputStreams;
  std::optional<std::vector<std::uint32_t>> outputStreams;
  // Entry n-1 names channel n; an absent entry has no name property.
  std::vector<std::optional<std::string>> inputChannelNames;
  std::vector<std::optional<std::string>> outputChannelNames;
  bool operator==(const DescribedDevice&) const = default;
};

struct DescribedProcess {
  AudioObjectID objectID = kAudioObjectUnknown;
  std::optional<std::int32_t> pid;
  std::optional<std::string> bundleID;
  bool operator==(const DescribedProcess&) const = default;
};

// Absent lists and values make their queries fail, as a hardware layer that cannot answer.
struct HardwareDescription {
  std::optional<std::vector<DescribedDevice>> devices;
  std::optional<AudioObjectID> defaultInputDevice;
  std::optional<AudioObjectID> defaultOutputDevice;
  std::map<std::string, AudioObjectID, std::less<>> plugIns;  // unlisted bundle IDs give 0
  std::optional<std::vector<DescribedProcess>> processes;
  std::map<std::int32_t, RunningApplication> applications;
  bool operator==(const HardwareDescription&) const = default;
};

std::unique_ptr<HardwareLayer> makeDescribedHardwareLayer(
    std::shared_ptr<const HardwareDescription> description);

}  // namespace brisola
