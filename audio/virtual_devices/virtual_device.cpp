#include "virtual_devices/virtual_device.hpp"

#include <pipewire/pipewire.h>

#include <set>

namespace brisola::audio {

namespace {

std::string positionList(const std::vector<std::string>& positions) {
  std::string list;
  for (const auto& position : positions) list += (list.empty() ? "" : ",") + position;
  return list;
}

PipeWireProperties nullNode(const RuntimeDeviceControls& controls, std::string_view role,
                            std::string_view mediaClass, std::string nodeName,
                            const std::vector<std::string>& positions) {
  return {{"factory.name", "support.null-audio-sink"},
          {PW_KEY_NODE_NAME, std::move(nodeName)},
          {PW_KEY_NODE_DESCRIPTION, controls.name},
          {PW_KEY_MEDIA_CLASS, std::string(mediaClass)},
          {PW_KEY_DEVICE_ICON_NAME, controls.icon},
          {"audio.channels", std::to_string(positions.size())},
          {"audio.position", positionList(positions)},
          // The desktop's volume of the device then acts on what passes through it.
          {"monitor.channel-volumes", "true"},
          {std::string(PipeWireKeys::deviceUID), controls.uid},
          {std::string(PipeWireKeys::nodeRole), std::string(role)},
          {PW_KEY_OBJECT_LINGER, "false"}};
}

}  // namespace

GainStage deviceMix(const RuntimeDeviceControls& controls) {
  GainStage stage;
  stage.gain = controls.sourceEnabled && !controls.muted ? controls.sourceGain : 0.0f;
  stage.setRoutes(controls.routes);
  for (std::size_t o = 0; o < maximumChannels; ++o) {
    stage.outputGains[o] =
        controls.deviceEnabled ? controls.deviceGain * controls.channelGains[o] : 0.0f;
  }
  return stage;
}

VirtualDevice::VirtualDevice(AudioSession& session, const RuntimeDeviceControls& controls)
    : session_(session),
      controls_(controls),
      channels_(static_cast<std::size_t>(controls.channelCount)),
      positions_(channelPositions(channels_)),
      mix_(deviceMix(controls)),
      entranceMeter_(RuntimeMeterStore::sourceOwnerID(controls.uid), channels_),
      outputMeter_(RuntimeMeterStore::outputOwnerID(controls.uid), channels_),
      entrance_(
          session, "adapter", PW_TYPE_INTERFACE_Node, PW_VERSION_NODE,
          nullNode(controls, PipeWireKeys::entranceRole, "Audio/Sink", controls.uid, positions_)),
      mixNode_(session, "adapter", PW_TYPE_INTERFACE_Node, PW_VERSION_NODE,
               nullNode(controls, PipeWireKeys::mixRole, "Audio/Source/Virtual",
                        controls.uid + ".mix", positions_)),
      links_(session) {
  std::vector<PortSpec> inputs;
  std::vector<PortSpec> outputs;
  for (const auto& position : positions_) inputs.push_back({"in_" + position, position});
  for (const auto& position : positions_) inputs.push_back({"helper_" + position, position});
  for (const auto& position : positions_) outputs.push_back({"out_" + position, position});
  // No media class: the session manager leaves the mixer and the helpers' entrance alone.
  mixer_ = std::make_unique<AudioFilter>(
      session,
      PipeWireProperties{
          {PW_KEY_NODE_NAME, controls.uid + ".mixer"},
          {PW_KEY_NODE_DESCRIPTION, controls.name + " (mixer)"},
          {PW_KEY_MEDIA_TYPE, "Audio"},
          {PW_KEY_MEDIA_CATEGORY, "Filter"},
          {PW_KEY_MEDIA_ROLE, "DSP"},
          {std::string(PipeWireKeys::deviceUID), controls.uid},
          {std::string(PipeWireKeys::nodeRole), std::string(PipeWireKeys::mixerRole)}},
      inputs, outputs,
      [this](std::span<const float* const> in, std::span<float* const> out, std::uint32_t frames) {
        process(in, out, frames);
      });
}

VirtualDevice::~VirtualDevice() {
  links_.clear();
  mixer_.reset();
}

bool VirtualDevice::serves(const RuntimeDeviceControls& controls) const {
  return controls.uid == controls_.uid && controls.channelCount == controls_.channelCount &&
         controls.name == controls_.name && controls.icon == controls_.icon;
}

void VirtualDevice::update(const RuntimeDeviceControls& controls) {
  if (controls == controls_) return;
  controls_ = controls;
  mix_.write(deviceMix(controls));
}

void VirtualDevice::process(std::span<const float* const> in, std::span<float* const> out,
                            std::uint32_t frames) {
  const GainStage& stage = mix_.read();
  const auto entrance = in.first(channels_);
  entranceLevels_.measure(entrance, frames);
  render(stage, entrance, in.subspan(channels_), out, frames);
  outputLevels_.measure(std::span<const float* const>(out.data(), out.size()), frames);
}

void VirtualDevice::connect() {
  const auto& graph = session_.graph();
  const auto entrance = entrance_.id();
  const auto mix = mixNode_.id();
  if (!entrance || !mix) return;
  const auto monitors =
      graph.portsOf(*entrance, PipeWireDirection::output, PipeWireGraph::Ports::monitors);
  const auto mixInputs = graph.portsOf(*mix, PipeWireDirection::input);
  std::set<LinkSet::Pair> wanted;
  for (std::size_t k = 0; k < channels_; ++k) {
    const auto in = mixer_->port(graph, "in_" + positions_[k]);
    const auto out = mixer_->port(graph, "out_" + positions_[k]);
    if (k < monitors.size() && in) wanted.emplace(monitors[k]->id, *in);
    if (k < mixInputs.size() && out) wanted.emplace(*out, mixInputs[k]->id);
  }
  links_.set(wanted);
}

void VirtualDevice::publishMeters() {
  std::array<float, maximumChannels> levels{};
  std::array<float, maximumChannels> peaks{};
  entranceLevels_.read(levels, peaks);
  entranceMeter_.publish(std::span(levels).first(channels_), std::span(peaks).first(channels_));
  outputLevels_.read(levels, peaks);
  outputMeter_.publish(std::span(levels).first(channels_), std::span(peaks).first(channels_));
}

}  // namespace brisola::audio
