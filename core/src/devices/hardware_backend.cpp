#include <cstdlib>
#include <cstring>

#include "brisola/devices/hardware_layer.hpp"
#ifdef BRISOLA_HAVE_PIPEWIRE
#include "brisola/platform/pipewire_graph.hpp"
#endif
#include "brisola/platform/settings.hpp"
#include "devices/hardware_backends.hpp"

namespace brisola {

std::vector<std::byte> AudioBufferListLayout::encode(
    std::span<const std::uint32_t> channelsPerBuffer) {
  const auto count = static_cast<std::uint32_t>(channelsPerBuffer.size());
  std::vector<std::byte> bytes(byteSize(count));
  std::memcpy(bytes.data() + numberBuffersOffset, &count, sizeof count);
  for (std::uint32_t i = 0; i < count; ++i) {
    std::memcpy(bytes.data() + buffersOffset + i * bufferStride + numberChannelsOffset,
                &channelsPerBuffer[i], sizeof(std::uint32_t));
  }
  return bytes;
}

namespace {

class UnavailableHardwareLayer final : public HardwareLayer {
 public:
  explicit UnavailableHardwareLayer(std::string reason) : reason_(std::move(reason)) {}

  bool hasProperty(AudioObjectID, const AudioObjectPropertyAddress&) const override {
    return false;
  }
  OSStatus getPropertyDataSize(AudioObjectID, const AudioObjectPropertyAddress&,
                               const AudioObjectPropertyQualifier*,
                               std::uint32_t& outDataSize) const override {
    outDataSize = 0;
    return kAudioHardwareNotRunningError;
  }
  OSStatus getPropertyData(AudioObjectID, const AudioObjectPropertyAddress&,
                           const AudioObjectPropertyQualifier*, std::uint32_t& ioDataSize,
                           void*) const override {
    ioDataSize = 0;
    return kAudioHardwareNotRunningError;
  }
  AudioObjectStringProperty getPropertyString(AudioObjectID,
                                              const AudioObjectPropertyAddress&) const override {
    return {.status = kAudioHardwareNotRunningError, .value = std::nullopt};
  }
  std::optional<RunningApplication> runningApplication(std::int32_t) const override {
    return std::nullopt;
  }
  std::optional<std::string> unavailableReason() const override { return reason_; }

 private:
  std::string reason_;
};

class UnavailableHardwareBackend final : public HardwareBackend {
 public:
  explicit UnavailableHardwareBackend(std::string reason) : reason_(std::move(reason)) {}
  std::unique_ptr<HardwareLayer> snapshot() const override {
    return makeUnavailableHardwareLayer(reason_);
  }

 private:
  std::string reason_;
};

}  // namespace

std::unique_ptr<HardwareLayer> makeUnavailableHardwareLayer(std::string reason) {
  return std::make_unique<UnavailableHardwareLayer>(std::move(reason));
}

std::unique_ptr<HardwareBackend> HardwareBackend::unavailable(std::string reason) {
  return std::make_unique<UnavailableHardwareBackend>(std::move(reason));
}

std::unique_ptr<HardwareBackend> HardwareBackend::current() {
  const std::string file = Settings::current().hardwareFile;
  if (!file.empty()) return simulated(file);
#ifdef BRISOLA_HAVE_PIPEWIRE
  return pipeWire();
#else
  return unavailable("No audio hardware layer: this build has no PipeWire; set " +
                     std::string(hardwareSimulationEnvironmentVariable) +
                     " to a simulated hardware file");
#endif
}

std::string HardwareBackend::currentSource() {
  const std::string file = Settings::current().hardwareFile;
  if (!file.empty()) return "simulated, from " + file;
#ifdef BRISOLA_HAVE_PIPEWIRE
  return "PipeWire, at " + pipeWireSocketPath();
#else
  return "none: this build has no PipeWire and no simulated hardware file is set";
#endif
}

#ifndef BRISOLA_HAVE_PIPEWIRE
std::unique_ptr<HardwareBackend> HardwareBackend::pipeWire() {
  return unavailable("This build has no PipeWire back end");
}
#endif

}  // namespace brisola
