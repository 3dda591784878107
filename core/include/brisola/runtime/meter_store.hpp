#pragma once

// Level meters written into shared memory by producers outside the library (one small object
// per metered stream), and a tap that tells live meters from frozen ones.

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "brisola/platform/unique_fd.hpp"

namespace brisola {

namespace RuntimeMeterStore {

inline constexpr std::string_view passThruSourceOwnerID = "kestrine.passThru.source";
inline constexpr std::string_view deviceOutputOwnerID = "kestrine.device.output";

struct Reading {
  std::vector<double> levels;
  std::vector<double> peaks;
  bool operator==(const Reading&) const = default;
};

std::string sourceOwnerID(std::string_view deviceUID);
std::string outputOwnerID(std::string_view deviceUID);

// 64-bit FNV-1a of the identifier's UTF-8 bytes.
constexpr std::uint64_t ownerHash(std::string_view ownerID) {
  std::uint64_t hash = 0xcbf29ce484222325ULL;
  for (char c : ownerID) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 0x100000001b3ULL;
  }
  return hash;
}

// "/brisolam" followed by the owner hash as 16 lower-case hexadecimal digits.
std::string objectName(std::string_view ownerID);

// The owner's current levels and peaks; nothing when the object is missing, too small,
// foreign, or in the middle of an update through every attempt. Never throws for bad objects.
// A level or peak that is not finite (NaN, infinity) reads as 0.
std::optional<Reading> reading(std::string_view ownerID);
std::optional<std::vector<double>> levels(std::string_view ownerID);

}  // namespace RuntimeMeterStore

// The producer's side of one meter object (layout version 2): creates the owner's object,
// publishes levels and peaks under the sequence word, and removes the object when it goes.
// One writer per owner.
class MeterPublisher {
 public:
  // Throws std::system_error when the object cannot be made (its one page is written here, so
  // a full /dev/shm fails now rather than at a later write).
  MeterPublisher(std::string_view ownerID, std::size_t channelCount);
  ~MeterPublisher();
  MeterPublisher(const MeterPublisher&) = delete;
  MeterPublisher& operator=(const MeterPublisher&) = delete;

  // Linear amplitudes, one per channel; entries beyond the channel count are ignored. Rewrites
  // the whole object through the descriptor kept open, so an object that someone shrank or
  // emptied is whole again after the next publish. False (errno set) when a write failed, a
  // full /dev/shm for example; readers then see no reading until a later publish succeeds.
  bool publish(std::span<const float> levels, std::span<const float> peaks);

 private:
  std::string name_;
  std::size_t channelCount_;
  UniqueFd fd_;
  std::uint32_t sequence_ = 0;
};

// {"levels": [...], "peaks": [...]}.
std::string encodeJSON(const RuntimeMeterStore::Reading& reading);

// Remembers when each owner's reading last changed, so a meter whose producer stopped reads as
// absent after 0.3 s. Times are seconds on any one clock of the caller's choosing.
// Safe to share between threads.
class MeterTap {
 public:
  using Readings = std::map<std::string, RuntimeMeterStore::Reading>;

  static constexpr double freshnessLimit = 0.3;

  MeterTap() = default;

  // Owners missing from `readings` are forgotten; an unchanged reading keeps its old time.
  void update(const Readings& readings, double at);
  std::optional<RuntimeMeterStore::Reading> reading(std::string_view ownerID, double at) const;

 private:
  struct Entry {
    RuntimeMeterStore::Reading reading;
    double lastChanged = 0.0;
  };
  mutable std::mutex lock_;
  std::map<std::string, Entry, std::less<>> entries_;
};

}  // namespace brisola
