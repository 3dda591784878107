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
          {"node.driver", "false"},
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

Mixer::Mixer(AudioSession& session)
    // No media class: the session manager leaves the mixer and the helpers' entrance alone.
    : filter_(session,
              {{PW_KEY_NODE_NAME, "brisola-mixer"},
               {PW_KEY_NODE_DESCRIPTION, "Brisola mixer"},
               {PW_KEY_MEDIA_TYPE, "Audio"},
               {PW_KEY_MEDIA_CATEGORY, "Filter"},
               {PW_KEY_MEDIA_ROLE, "DSP"},
               {std::string(PipeWireKeys::nodeRole), std::string(PipeWireKeys::mixerRole)}},
              [this](std::uint32_t frames) { process(frames); }) {}

void Mixer::setLanes(std::vector<MixLane> lanes) {
  // The new table goes in beside the one in use, and is swapped in between two cycles.
  const std::vector<MixLane> next = std::move(lanes);
  filter_.betweenCycles([&] { active_ = &next; });
  lanes_ = next;  // both are only read while the audio thread reads `next`
  filter_.betweenCycles([&] { active_ = &lanes_; });
}

void Mixer::process(std::uint32_t frames) {
  std::array<const float*, maximumChannels> entrance;
  std::array<const float*, maximumChannels> helpers;
  std::array<float*, maximumChannels> outputs;
  for (const MixLane& lane : *active_) {
    for (std::size_t c = 0; c < lane.channels; ++c) {
      entrance[c] = AudioFilter::input(lane.entrance[c], frames);
      helpers[c] = AudioFilter::input(lane.helpers[c], frames);
      outputs[c] = AudioFilter::output(lane.outputs[c], frames);
    }
    const auto in = std::span<const float* const>(entrance.data(), lane.channels);
    const auto out = std::span<float* const>(outputs.data(), lane.channels);
    lane.entranceLevels->measure(in, frames);
    render(lane.mix->read(), in, std::span<const float* const>(helpers.data(), lane.channels), out,
           frames);
    lane.outputLevels->measure(std::span<const float* const>(outputs.data(), lane.channels),
                               frames);
  }
}

VirtualDevice::VirtualDevice(AudioSession& session, Mixer& mixer,
                             const RuntimeDeviceControls& controls)
    : session_(session),
      mixer_(mixer),
      controls_(controls),
      channels_(static_cast<std::size_t>(controls.channelCount)),
      positions_(channelPositions(channels_)),
      mix_(deviceMix(controls)),
      entranceMeter_(RuntimeMeterStore::sourceOwnerID(controls.uid), channels_),
      outputMeter_(RuntimeMeterStore::outputOwnerID(controls.uid), channels_),
      entrance_(std::make_unique<ServerObject>(
          session, "adapter", PW_TYPE_INTERFACE_Node, PW_VERSION_NODE,
          nullNode(controls, PipeWireKeys::entranceRole, "Audio/Sink", controls.uid, positions_))),
      mixNode_(std::make_unique<ServerObject>(
          session, "adapter", PW_TYPE_INTERFACE_Node, PW_VERSION_NODE,
          nullNode(controls, PipeWireKeys::mixRole, "Audio/Source/Virtual", controls.uid + ".mix",
                   positions_))),
      // A device that nothing plays into and nothing records from costs nothing.
      links_(session, true) {
  auto& filter = mixer_.filter();
  for (std::size_t c = 0; c < channels_; ++c) {
    const auto& position = positions_[c];
    entrancePorts_[c] = filter.addPort(PipeWireDirection::input,
                                       {mixerPortName(controls.uid, "in", position), position});
    helperPorts_[c] = filter.addPort(PipeWireDirection::input,
                                     {mixerPortName(controls.uid, "helper", position), position});
    outputPorts_[c] = filter.addPort(PipeWireDirection::output,
                                     {mixerPortName(controls.uid, "out", position), position});
  }
}

VirtualDevice::~VirtualDevice() {
  retire();
  links_.clear();
  auto& filter = mixer_.filter();
  for (std::size_t c = 0; c < channels_; ++c) {
    for (auto* ports : {&entrancePorts_, &helperPorts_, &outputPorts_}) {
      if ((*ports)[c] != nullptr) filter.removePort((*ports)[c]);
    }
  }
}

MixLane VirtualDevice::lane() {
  return MixLane{.channels = channels_,
                 .entrance = entrancePorts_,
                 .helpers = helperPorts_,
                 .outputs = outputPorts_,
                 .mix = &mix_,
                 .entranceLevels = &entranceLevels_,
                 .outputLevels = &outputLevels_};
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

void VirtualDevice::retire() {
  entrance_.reset();
  mixNode_.reset();
}

bool VirtualDevice::retired() const {
  return !entrance_ && links_.allGone();
}

void VirtualDevice::connect() {
  if (!entrance_) return;
  const auto& graph = session_.graph();
  const auto entrance = entrance_->id();
  const auto mix = mixNode_->id();
  if (!entrance || !mix) return;
  const auto monitors =
      graph.portsOf(*entrance, PipeWireDirection::output, PipeWireGraph::Ports::monitors);
  const auto mixInputs = graph.portsOf(*mix, PipeWireDirection::input);
  const auto& filter = mixer_.filter();
  std::set<LinkSet::Pair> wanted;
  for (std::size_t c = 0; c < channels_; ++c) {
    const auto in = filter.port(graph, mixerPortName(controls_.uid, "in", positions_[c]));
    const auto out = filter.port(graph, mixerPortName(controls_.uid, "out", positions_[c]));
    if (c < monitors.size() && in) wanted.emplace(monitors[c]->id, *in);
    if (c < mixInputs.size() && out) wanted.emplace(*out, mixInputs[c]->id);
  }
  links_.set(wanted);
}

void VirtualDevice::publishMeters() {
  // A reading equal to the last one published is left alone: readers take an unchanged reading
  // for a stopped meter either way, and a silent device then costs no writes.
  auto publish = [&](const LevelMeter& meter, MeterPublisher& publisher, MeterImage& last) {
    MeterImage now{};
    meter.read(now.levels, now.peaks);
    if (last.published && now.levels == last.levels && now.peaks == last.peaks) return;
    now.published = publisher.publish(std::span(now.levels).first(channels_),
                                      std::span(now.peaks).first(channels_));
    last = now;
  };
  publish(entranceLevels_, entranceMeter_, entranceImage_);
  publish(outputLevels_, outputMeter_, outputImage_);
}

}  // namespace brisola::audio
