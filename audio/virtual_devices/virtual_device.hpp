#pragma once

// The virtual devices on PipeWire, one per slot of the control block. Each is a sink that
// applications play into (its entrance) and a virtual source that they record from (its mix);
// between the two, the program's one mixer node holds every device's entrance, helpers'
// entrance and output ports and mixes each device on the audio thread. One node for all
// devices keeps the audio thread to one wake-up per graph cycle however many devices there are.

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "brisola/runtime/meter_store.hpp"
#include "brisola/runtime/runtime_controls.hpp"
#include "common/audio_session.hpp"
#include "common/device_ports.hpp"
#include "common/gain_stage.hpp"
#include "common/newest_value.hpp"

namespace brisola::audio {

// The mix of a device for one audio cycle, for each output channel o:
//   y[o] = Σ over routes s→o of pass · entrance[s] + helpers[o],
//          pass = sourceGain when the pass-thru source is on and not muted, else 0
//   out[o] = deviceGain · channelGains[o] · y[o] when the device is on, else 0
GainStage deviceMix(const RuntimeDeviceControls& controls);

// What the audio thread needs of one device: its ports, its controls and its meters.
struct MixLane {
  std::size_t channels = 0;
  std::array<AudioFilter::Port, maximumChannels> entrance{};
  std::array<AudioFilter::Port, maximumChannels> helpers{};
  std::array<AudioFilter::Port, maximumChannels> outputs{};
  NewestValue<GainStage>* mix = nullptr;
  LevelMeter* entranceLevels = nullptr;
  LevelMeter* outputLevels = nullptr;
};

class Mixer {
 public:
  explicit Mixer(AudioSession& session);
  AudioFilter& filter() { return filter_; }
  // The lanes the audio thread mixes from the next cycle on; the ports of lanes left out may
  // be removed once this returns.
  void setLanes(std::vector<MixLane> lanes);

 private:
  void process(std::uint32_t frames);
  AudioFilter filter_;
  std::vector<MixLane> lanes_;                    // what the audio thread reads
  const std::vector<MixLane>* active_ = &lanes_;  // swapped only between cycles
};

class VirtualDevice {
 public:
  // Makes the device's nodes and adds its ports to the mixer; the caller then hands the
  // mixer the device's lane.
  VirtualDevice(AudioSession& session, Mixer& mixer, const RuntimeDeviceControls& controls);
  // Removes the ports: the mixer must no longer have the device's lane.
  ~VirtualDevice();
  VirtualDevice(const VirtualDevice&) = delete;
  VirtualDevice& operator=(const VirtualDevice&) = delete;

  MixLane lane();
  // PipeWire cannot rename or re-shape a node it made from a factory: the same nodes serve new
  // controls only while the UID, channel count, name and icon stay.
  bool serves(const RuntimeDeviceControls& controls) const;
  void update(const RuntimeDeviceControls& controls);
  // Makes the device's own links that are missing, from the graph as it is now.
  void connect();
  void publishMeters();

  // Takes the device's nodes away; the server then removes their links with them. Taking a
  // link or a linked port of the shared mixer away while the graph runs would cost every other
  // device a cycle: the ports go only once their links are gone (`retired`).
  void retire();
  bool retired() const;

 private:
  AudioSession& session_;
  Mixer& mixer_;
  RuntimeDeviceControls controls_;
  std::size_t channels_;
  std::vector<std::string> positions_;
  NewestValue<GainStage> mix_;
  LevelMeter entranceLevels_;
  LevelMeter outputLevels_;
  MeterPublisher entranceMeter_;
  MeterPublisher outputMeter_;
  struct MeterImage {
    std::array<float, maximumChannels> levels{};
    std::array<float, maximumChannels> peaks{};
    bool published = false;  // a failed write is tried again on the next refresh
  };
  MeterImage entranceImage_;
  MeterImage outputImage_;
  std::unique_ptr<ServerObject> entrance_;
  std::unique_ptr<ServerObject> mixNode_;
  std::array<AudioFilter::Port, maximumChannels> entrancePorts_{};
  std::array<AudioFilter::Port, maximumChannels> helperPorts_{};
  std::array<AudioFilter::Port, maximumChannels> outputPorts_{};
  LinkSet links_;
};

}  // namespace brisola::audio
