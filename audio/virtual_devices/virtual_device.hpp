#pragma once

// One virtual device on PipeWire, made from one slot of the control block: a sink that
// applications play into (the entrance), a virtual source that they record from (the mix),
// and between the two a filter of this program that mixes, with a second set of inputs for
// the helpers (their entrance, which the session manager never links).

#include <memory>
#include <string>
#include <vector>

#include "brisola/runtime/meter_store.hpp"
#include "brisola/runtime/runtime_controls.hpp"
#include "common/audio_session.hpp"
#include "common/gain_stage.hpp"
#include "common/latest_value.hpp"

namespace brisola::audio {

// The mix of a device for one audio cycle, for each output channel o:
//   y[o] = Σ over routes s→o of pass · entrance[s] + helpers[o],
//          pass = sourceGain when the pass-thru source is on and not muted, else 0
//   out[o] = deviceGain · channelGains[o] · y[o] when the device is on, else 0
GainStage deviceMix(const RuntimeDeviceControls& controls);

class VirtualDevice {
 public:
  VirtualDevice(AudioSession& session, const RuntimeDeviceControls& controls);
  ~VirtualDevice();
  VirtualDevice(const VirtualDevice&) = delete;
  VirtualDevice& operator=(const VirtualDevice&) = delete;

  // PipeWire cannot rename or re-shape a node it made from a factory: the same nodes serve new
  // controls only while the UID, channel count, name and icon stay.
  bool serves(const RuntimeDeviceControls& controls) const;
  void update(const RuntimeDeviceControls& controls);
  // Makes the device's own links that are missing, from the graph as it is now.
  void connect();
  void publishMeters();

 private:
  void process(std::span<const float* const> in, std::span<float* const> out, std::uint32_t frames);

  AudioSession& session_;
  RuntimeDeviceControls controls_;
  std::size_t channels_;
  std::vector<std::string> positions_;
  LatestValue<GainStage> mix_;
  LevelMeter entranceLevels_;
  LevelMeter outputLevels_;
  MeterPublisher entranceMeter_;
  MeterPublisher outputMeter_;
  ServerObject entrance_;
  ServerObject mixNode_;
  std::unique_ptr<AudioFilter> mixer_;
  LinkSet links_;
};

}  // namespace brisola::audio
