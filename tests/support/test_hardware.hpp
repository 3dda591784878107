#pragma once

// Simulated hardware given as JSON text (the format of examples/hardware-simulation.json), with
// single properties replaced where a file cannot say what a test needs: bytes of any length,
// a query that fails after its size query succeeded, a string property that reads as null.

#include <algorithm>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "brisola/devices/hardware_layer.hpp"
#include "support/temp_dir.hpp"

namespace brisola::testing {

template <class T>
std::vector<std::byte> bytesOf(const std::vector<T>& values) {
  std::vector<std::byte> bytes(values.size() * sizeof(T));
  if (!values.empty()) std::memcpy(bytes.data(), values.data(), bytes.size());
  return bytes;
}

class TestHardware final : public HardwareLayer {
 public:
  // What a replaced property answers. Its size query always succeeds with the size of `bytes`;
  // its data query gives `status` with the bytes that fit, even when it fails, so a reader that
  // ignores the status is seen; a string query gives `status` and no string.
  struct Answer {
    OSStatus status = kAudioHardwareNoError;
    std::vector<std::byte> bytes;
  };

  explicit TestHardware(const std::string& json) {
    TempDir dir;
    writeFile(dir / "hardware.json", json);
    simulated_ = HardwareBackend::simulated(dir / "hardware.json")->snapshot();
    if (auto reason = simulated_->unavailableReason()) throw std::invalid_argument(*reason);
  }

  // The latest answer set for a property is the one given.
  TestHardware& set(AudioObjectID object, AudioObjectPropertyAddress address, Answer answer) {
    answers_.insert(answers_.begin(), {object, address, std::move(answer)});
    return *this;
  }

  bool hasProperty(AudioObjectID object, const AudioObjectPropertyAddress& address) const override {
    return find(object, address) != nullptr || simulated_->hasProperty(object, address);
  }
  OSStatus getPropertyDataSize(AudioObjectID object, const AudioObjectPropertyAddress& address,
                               const AudioObjectPropertyQualifier* qualifier,
                               std::uint32_t& size) const override {
    const Answer* answer = find(object, address);
    if (answer == nullptr) return simulated_->getPropertyDataSize(object, address, qualifier, size);
    size = static_cast<std::uint32_t>(answer->bytes.size());
    return kAudioHardwareNoError;
  }
  OSStatus getPropertyData(AudioObjectID object, const AudioObjectPropertyAddress& address,
                           const AudioObjectPropertyQualifier* qualifier, std::uint32_t& size,
                           void* data) const override {
    const Answer* answer = find(object, address);
    if (answer == nullptr)
      return simulated_->getPropertyData(object, address, qualifier, size, data);
    size = std::min(size, static_cast<std::uint32_t>(answer->bytes.size()));
    if (size > 0) std::memcpy(data, answer->bytes.data(), size);
    return answer->status;
  }
  AudioObjectStringProperty getPropertyString(
      AudioObjectID object, const AudioObjectPropertyAddress& address) const override {
    const Answer* answer = find(object, address);
    if (answer == nullptr) return simulated_->getPropertyString(object, address);
    return {.status = answer->status};
  }
  std::optional<RunningApplication> runningApplication(std::int32_t pid) const override {
    return simulated_->runningApplication(pid);
  }

 private:
  const Answer* find(AudioObjectID object, const AudioObjectPropertyAddress& address) const {
    for (const auto& [setObject, setAddress, answer] : answers_) {
      if (setObject == object && setAddress == address) return &answer;
    }
    return nullptr;
  }

  std::unique_ptr<HardwareLayer> simulated_;
  std::vector<std::tuple<AudioObjectID, AudioObjectPropertyAddress, Answer>> answers_;
};

}  // namespace brisola::testing
