#pragma once

// The runtime control block: one named POSIX shared-memory object of fixed layout into which
// the service publishes every virtual device's live controls, and from which the driver
// plug-in reads them while audio runs. One writer, any number of lock-free readers; the
// sequence word in the header is the only synchronisation between them.
//
// Nothing stays open between calls: every call opens, copies through the descriptor (never a
// mapping, so an object that someone shrinks cannot kill the caller), closes.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "brisola/model/config.hpp"
#include "brisola/model/limits.hpp"
#include "brisola/platform/unique_fd.hpp"
#include "brisola/runtime/runtime_controls.hpp"

namespace brisola {

class RuntimeControlStoreError : public std::runtime_error {
 public:
  // mapFailed is kept for the front end's sake; the stores no longer map the object.
  enum class Case { openFailed, resizeFailed, mapFailed, invalidState, writeFailed };

  // The payload is the errno of the failing call.
  static RuntimeControlStoreError openFailed(int error);
  static RuntimeControlStoreError resizeFailed(int error);
  static RuntimeControlStoreError mapFailed(int error);
  static RuntimeControlStoreError invalidState();
  // Writing the block failed part-way (a full /dev/shm, a file-size limit); the sequence stays
  // odd, so readers keep rejecting the object until the next complete update.
  static RuntimeControlStoreError writeFailed(int error);

  Case errorCase() const { return case_; }
  // Zero for invalidState.
  int errorNumber() const { return errno_; }
  bool operator==(const RuntimeControlStoreError& other) const {
    return case_ == other.case_ && errno_ == other.errno_;
  }

 private:
  RuntimeControlStoreError(Case errorCase, int error);
  Case case_;
  int errno_;
};

namespace RuntimeControlStoreV3 {

inline constexpr std::string_view sharedMemoryName = "/brisolaruntime3";
inline constexpr std::size_t maximumDeviceCount = Limits::maximumDeviceCount;
// Route entries per device slot (the route maps allow more per call; the block holds 128).
inline constexpr std::size_t maximumRouteCount = Limits::maximumRouteCount;
inline constexpr std::size_t maximumChannelCount = Limits::channelSlotCount;

// Writes the first 16 records, creating the object when it does not exist. An existing object
// that cannot be resized (EINVAL) is removed and written once more.
// Throws RuntimeControlStoreError.
void publish(const std::vector<RuntimeDeviceControls>& controls);

// The records of the last complete update, in slot order. Never creates the object: a missing
// one gives openFailed(ENOENT); a too small, foreign or torn one gives invalidState.
std::vector<RuntimeDeviceControls> read();

// publish(RuntimeDeviceControls::forDocument(snapshot)).
void publish(const ConfigSnapshot& snapshot);

}  // namespace RuntimeControlStoreV3

// Tells a reader that polls often whether the control block may have changed since it last
// looked, for two system calls and no mapping: the object appeared, vanished or was made
// anew, or its sequence word moved. Only then is a full read() worth its cost.
class RuntimeControlWatcher {
 public:
  explicit RuntimeControlWatcher(std::string_view name = RuntimeControlStoreV3::sharedMemoryName)
      : name_(name) {}
  // True on the first call and after every change of the kinds above.
  bool changed();

 private:
  std::string name_;
  UniqueFd fd_;
  std::optional<std::uint64_t> state_;  // what the last look saw; nothing: no object
  bool looked_ = false;
};

class SharedMemorySystem;

// The service's writer of the control block. It keeps the object open for the service's life
// and remembers the bytes it last wrote, so that a cycle in which nothing changed costs a status
// and one read, and readers see no sequence move. The block is written again when the controls
// differ from the last ones written, or when the object no longer holds exactly the bytes last
// written: damaged, shrunk, removed or replaced by someone else.
class RuntimeControlWriter {
 public:
  explicit RuntimeControlWriter(std::string_view name = RuntimeControlStoreV3::sharedMemoryName);
  RuntimeControlWriter(std::string_view name, const SharedMemorySystem& system);
  ~RuntimeControlWriter();
  RuntimeControlWriter(const RuntimeControlWriter&) = delete;
  RuntimeControlWriter& operator=(const RuntimeControlWriter&) = delete;

  // Whether it wrote. Throws RuntimeControlStoreError as RuntimeControlStoreV3::publish does;
  // after a failure the next call writes afresh.
  bool publish(const std::vector<RuntimeDeviceControls>& controls);

 private:
  bool holdsLastWrite();

  std::string name_;
  const SharedMemorySystem& system_;
  UniqueFd fd_;
  std::vector<RuntimeDeviceControls> written_;
  std::vector<std::byte> bytes_, scratch_;  // the object after the last write; the last look
};

// The service's publishing step, once per cycle.
namespace RuntimePublisher {
void publish(const ConfigSnapshot& snapshot);
}

}  // namespace brisola
