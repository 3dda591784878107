#include "brisola/runtime/meter_store.hpp"

#include <fcntl.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <system_error>

#include "brisola/model/config.hpp"
#include "brisola/platform/unique_fd.hpp"
#include "model/json_support.hpp"
#include "runtime/meter_block.hpp"
#include "runtime/shared_words.hpp"

namespace brisola {

namespace RuntimeMeterStore {

namespace {
using namespace meterLayout;
namespace words = shared_words;
}  // namespace

std::string sourceOwnerID(std::string_view deviceUID) {
  if (deviceUID == BrisolaCore::passThruDeviceUID) return std::string(passThruSourceOwnerID);
  return "brisola.device." + std::string(deviceUID) + ".source";
}

std::string outputOwnerID(std::string_view deviceUID) {
  if (deviceUID == BrisolaCore::passThruDeviceUID) return std::string(deviceOutputOwnerID);
  return "brisola.device." + std::string(deviceUID) + ".output";
}

std::string objectName(std::string_view ownerID) {
  char name[32];
  std::snprintf(name, sizeof name, "/brisolam%016llx",
                static_cast<unsigned long long>(ownerHash(ownerID)));
  return name;
}

std::optional<Reading> readBlock(const std::byte* block) {
  // Header words 0...4, then levels and peaks; only the first n of each are used.
  std::array<std::byte, peaksOffset + 4 * maximumChannelCount> copy;
  for (int attempt = 0; attempt < readAttempts; ++attempt) {
    std::uint32_t before = words::load(block, sequenceOffset);
    words::copyOut(copy.data(), block, levelsOffset);
    std::uint32_t version = words::getU32(copy.data(), versionOffset);
    std::size_t count =
        std::min<std::size_t>(words::getU32(copy.data(), channelCountOffset), maximumChannelCount);
    words::copyOut(copy.data() + levelsOffset, block + levelsOffset, 4 * count);
    if (version > 1) words::copyOut(copy.data() + peaksOffset, block + peaksOffset, 4 * count);
    std::uint32_t after = words::load(block, sequenceOffset);
    if (before != after || before % 2 != 0 || words::getU32(copy.data(), magicOffset) != magic ||
        (version != 1 && version != 2) || words::getU32(copy.data(), sizeOffset) != objectSize) {
      continue;
    }
    Reading reading;
    reading.levels.reserve(count);
    for (std::size_t k = 0; k < count; ++k) {
      reading.levels.push_back(words::getF32(copy.data(), levelsOffset + 4 * k));
    }
    if (version == 1) {
      reading.peaks = reading.levels;
    } else {
      reading.peaks.reserve(count);
      for (std::size_t k = 0; k < count; ++k) {
        reading.peaks.push_back(words::getF32(copy.data(), peaksOffset + 4 * k));
      }
    }
    return reading;
  }
  return std::nullopt;
}

std::optional<Reading> readObject(const char* name, const SharedMemorySystem& system) {
  int fd = system.open(name, O_RDONLY, 0);
  if (fd < 0) return std::nullopt;
  UniqueFd owner(fd);
  struct stat info {};
  if (system.status(fd, &info) != 0 || info.st_size < static_cast<off_t>(objectSize)) {
    return std::nullopt;
  }
  void* address = system.map(objectSize, PROT_READ, fd);
  if (address == MAP_FAILED) return std::nullopt;
  MappedRegion region(address, objectSize);
  return readBlock(region.data());
}

std::optional<Reading> reading(std::string_view ownerID) {
  return readObject(objectName(ownerID).c_str(), SharedMemorySystem::posix());
}

std::optional<std::vector<double>> levels(std::string_view ownerID) {
  auto result = reading(ownerID);
  if (!result) return std::nullopt;
  return std::move(result->levels);
}

}  // namespace RuntimeMeterStore

std::string encodeJSON(const RuntimeMeterStore::Reading& reading) {
  return json::dump(json::Json{{"levels", reading.levels}, {"peaks", reading.peaks}});
}

MeterPublisher::MeterPublisher(std::string_view ownerID, std::size_t channelCount)
    : name_(RuntimeMeterStore::objectName(ownerID)),
      channelCount_(std::min(channelCount, RuntimeMeterStore::meterLayout::maximumChannelCount)) {
  using namespace RuntimeMeterStore::meterLayout;
  const auto& system = SharedMemorySystem::posix();
  // A stale object of an earlier run is replaced, never written half-known.
  system.unlink(name_.c_str());
  UniqueFd fd(system.open(name_.c_str(), O_RDWR | O_CREAT | O_EXCL, 0644));
  if (!fd) throw std::system_error(errno, std::generic_category(), "Cannot create " + name_);
  system.changeMode(fd.get(), 0644);
  if (const int error = ::posix_fallocate(fd.get(), 0, objectSize); error != 0) {
    system.unlink(name_.c_str());
    throw std::system_error(error, std::generic_category(), "Cannot size " + name_);
  }
  void* address = system.map(objectSize, PROT_READ | PROT_WRITE, fd.get());
  if (address == MAP_FAILED) {
    const int error = errno;
    system.unlink(name_.c_str());
    throw std::system_error(error, std::generic_category(), "Cannot map " + name_);
  }
  block_ = static_cast<std::byte*>(address);
  namespace words = shared_words;
  words::store(block_, sequenceOffset, 1);
  words::store(block_, magicOffset, magic);
  words::store(block_, versionOffset, 2);
  words::store(block_, sizeOffset, objectSize);
  words::store(block_, channelCountOffset, static_cast<std::uint32_t>(channelCount_));
  words::store(block_, sequenceOffset, 2);
}

MeterPublisher::~MeterPublisher() {
  ::munmap(block_, RuntimeMeterStore::meterLayout::objectSize);
  SharedMemorySystem::posix().unlink(name_.c_str());
}

void MeterPublisher::publish(std::span<const float> levels, std::span<const float> peaks) {
  using namespace RuntimeMeterStore::meterLayout;
  namespace words = shared_words;
  const std::uint32_t sequence = words::load(block_, sequenceOffset);
  words::store(block_, sequenceOffset, sequence + 1);
  for (std::size_t k = 0; k < channelCount_; ++k) {
    words::store(block_, levelsOffset + 4 * k,
                 std::bit_cast<std::uint32_t>(k < levels.size() ? levels[k] : 0.0f));
    words::store(block_, peaksOffset + 4 * k,
                 std::bit_cast<std::uint32_t>(k < peaks.size() ? peaks[k] : 0.0f));
  }
  words::store(block_, sequenceOffset, sequence + 2);
}

void MeterTap::update(const Readings& readings, double at) {
  std::lock_guard guard(lock_);
  std::map<std::string, Entry, std::less<>> next;
  for (const auto& [owner, reading] : readings) {
    auto old = entries_.find(owner);
    if (old != entries_.end() && old->second.reading == reading) {
      next.emplace(owner, old->second);
    } else {
      next.emplace(owner, Entry{reading, at});
    }
  }
  entries_ = std::move(next);
}

std::optional<RuntimeMeterStore::Reading> MeterTap::reading(std::string_view ownerID,
                                                            double at) const {
  std::lock_guard guard(lock_);
  auto entry = entries_.find(ownerID);
  if (entry == entries_.end() || !(at - entry->second.lastChanged < freshnessLimit)) {
    return std::nullopt;
  }
  return entry->second.reading;
}

}  // namespace brisola
