#include "brisola/runtime/meter_store.hpp"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
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

std::optional<Reading> readBlock(const SharedBytes& block) {
  // Header words 0...4, then levels and peaks; only the first n of each are used.
  std::array<std::byte, peaksEnd> copy;
  std::uint32_t version = 0;
  std::size_t count = 0;
  const bool consistent = SequenceWord::readConsistently(block, sequenceOffset, [&] {
    if (!block.read(0, copy.data(), levelsOffset)) return false;
    version = words::getU32(copy.data(), versionOffset);
    count =
        std::min<std::size_t>(words::getU32(copy.data(), channelCountOffset), maximumChannelCount);
    const std::size_t end = version > 1 ? peaksOffset + 4 * count : levelsOffset + 4 * count;
    return block.read(levelsOffset, copy.data() + levelsOffset, end - levelsOffset) &&
           words::getU32(copy.data(), magicOffset) == magic && (version == 1 || version == 2) &&
           words::getU32(copy.data(), sizeOffset) == objectSize;
  });
  if (!consistent) return std::nullopt;
  // A value that is not finite is no level anyone can show (or write as JSON): it reads as 0.
  auto value = [&](std::size_t offset) -> double {
    const float level = words::getF32(copy.data(), offset);
    return std::isfinite(level) ? level : 0.0;
  };
  Reading reading;
  reading.levels.reserve(count);
  for (std::size_t k = 0; k < count; ++k) {
    reading.levels.push_back(value(levelsOffset + 4 * k));
  }
  if (version == 1) {
    reading.peaks = reading.levels;
  } else {
    reading.peaks.reserve(count);
    for (std::size_t k = 0; k < count; ++k) {
      reading.peaks.push_back(value(peaksOffset + 4 * k));
    }
  }
  return reading;
}

std::optional<Reading> readObject(const char* name, const SharedMemorySystem& system) {
  int fd = system.open(name, O_RDONLY, 0);
  if (fd < 0) return std::nullopt;
  UniqueFd owner(fd);
  struct stat info {};
  if (system.status(fd, &info) != 0 || info.st_size < static_cast<off_t>(objectSize)) {
    return std::nullopt;
  }
  return readBlock(DescriptorBytes(fd, system));
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
  fd_.reset(system.open(name_.c_str(), O_RDWR | O_CREAT | O_EXCL, 0644));
  if (!fd_) throw std::system_error(errno, std::generic_category(), "Cannot create " + name_);
  system.changeMode(fd_.get(), 0644);
  if (!publish({}, {})) {
    const int error = errno;
    system.unlink(name_.c_str());
    throw std::system_error(error, std::generic_category(), "Cannot size or write " + name_);
  }
}

MeterPublisher::~MeterPublisher() {
  SharedMemorySystem::posix().unlink(name_.c_str());
}

bool MeterPublisher::publish(std::span<const float> levels, std::span<const float> peaks) {
  using namespace RuntimeMeterStore::meterLayout;
  namespace words = shared_words;
  // The whole object every time: whoever shrank it took the header with it.
  std::array<std::byte, objectSize> image{};
  words::putU32(image.data(), magicOffset, magic);
  words::putU32(image.data(), versionOffset, 2);
  words::putU32(image.data(), sizeOffset, objectSize);
  words::putU32(image.data(), sequenceOffset, sequence_ + 1);
  words::putU32(image.data(), channelCountOffset, static_cast<std::uint32_t>(channelCount_));
  for (std::size_t k = 0; k < channelCount_; ++k) {
    words::putF32(image.data(), levelsOffset + 4 * k, k < levels.size() ? levels[k] : 0.0f);
    words::putF32(image.data(), peaksOffset + 4 * k, k < peaks.size() ? peaks[k] : 0.0f);
  }
  sequence_ += 2;
  std::byte even[4];
  words::putU32(even, 0, sequence_);
  // The object is one page: the first write gets its page back if it was emptied (a full
  // /dev/shm fails there, before the sequence turns odd), and the second runs to the end, so a
  // shrunk object is readable again at its full size without a system call of its own.
  static_assert(objectSize <= 4096);
  DescriptorBytes block(fd_.get(), SharedMemorySystem::posix());
  int error = block.write(0, image.data(), channelCountOffset);
  SequenceWord::fence();
  if (error == 0)
    error = block.write(channelCountOffset, image.data() + channelCountOffset,
                        objectSize - channelCountOffset);
  SequenceWord::fence();
  if (error == 0) error = block.write(sequenceOffset, even, sizeof even);
  errno = error;
  return error == 0;
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
