#pragma once

// Simulated hardware given as JSON text (the format of examples/hardware-simulation.json), with
// single properties replaced where a file cannot say what a test needs: bytes of any length,
// a query that fails after its size query succeeded, a string property that reads as null.

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "brisola/devices/hardware_layer.hpp"
#include "brisola/platform/file_manager.hpp"

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
  // a string query gives `status` and no string.
  struct Answer {
    OSStatus status = kAudioHardwareNoError;
    std::vector<std::byte> bytes;
  };

  explicit TestHardware(std::string json) {
    class TextFile final : public FileManagerWrapper {
     public:
      explicit TextFile(std::string text)
          : FileManagerWrapper(FileManager::defaultManager()), text_(std::move(text)) {}
      std::string contents(const std::filesystem::path&) const override { return text_; }

     private:
      std::string text_;
    };
    simulated_ =
        HardwareBackend::simulated("test.json", std::make_shared<TextFile>(json))->snapshot();
    if (auto reason = simulated_->unavailableReason()) throw std::invalid_argument(*reason);
  }

  TestHardware& set(AudioObjectID object, AudioObjectPropertyAddress address, Answer answer) {
    answers_[key(object, address)] = std::move(answer);
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
    size = answer->status != kAudioHardwareNoError
               ? 0
               : std::min(size, static_cast<std::uint32_t>(answer->bytes.size()));
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
  using Key = std::tuple<AudioObjectID, AudioObjectPropertySelector, AudioObjectPropertyScope,
                         AudioObjectPropertyElement>;
  static Key key(AudioObjectID object, const AudioObjectPropertyAddress& address) {
    return {object, address.mSelector, address.mScope, address.mElement};
  }
  const Answer* find(AudioObjectID object, const AudioObjectPropertyAddress& address) const {
    auto found = answers_.find(key(object, address));
    return found == answers_.end() ? nullptr : &found->second;
  }

  std::unique_ptr<HardwareLayer> simulated_;
  std::map<Key, Answer> answers_;
};

}  // namespace brisola::testing
