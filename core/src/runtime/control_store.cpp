#include "brisola/runtime/control_store.hpp"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <limits>
#include <string>

#include "brisola/platform/unicode.hpp"
#include "runtime/control_block.hpp"
#include "runtime/shared_words.hpp"

namespace brisola {

namespace {

std::string describe(RuntimeControlStoreError::Case errorCase, int error) {
  auto withErrno = [error](const char* what) {
    return std::string(what) + ": errno " + std::to_string(error) + ".";
  };
  switch (errorCase) {
    case RuntimeControlStoreError::Case::openFailed:
      return withErrno("Could not open Brisola runtime shared memory");
    case RuntimeControlStoreError::Case::resizeFailed:
      return withErrno("Could not size Brisola runtime shared memory");
    case RuntimeControlStoreError::Case::mapFailed:
      return withErrno("Could not map Brisola runtime shared memory");
    case RuntimeControlStoreError::Case::writeFailed:
      // The errno alone says little to whoever reads the service's log.
      return "Could not write Brisola runtime shared memory: errno " + std::to_string(error) +
             " (" + std::strerror(error) + ").";
    case RuntimeControlStoreError::Case::invalidState:
      break;
  }
  return "Brisola runtime shared memory did not contain a valid control state.";
}

}  // namespace

RuntimeControlStoreError::RuntimeControlStoreError(Case errorCase, int error)
    : std::runtime_error(describe(errorCase, error)), case_(errorCase), errno_(error) {}

RuntimeControlStoreError RuntimeControlStoreError::openFailed(int error) {
  return {Case::openFailed, error};
}
RuntimeControlStoreError RuntimeControlStoreError::resizeFailed(int error) {
  return {Case::resizeFailed, error};
}
RuntimeControlStoreError RuntimeControlStoreError::mapFailed(int error) {
  return {Case::mapFailed, error};
}
RuntimeControlStoreError RuntimeControlStoreError::invalidState() {
  return {Case::invalidState, 0};
}
RuntimeControlStoreError RuntimeControlStoreError::writeFailed(int error) {
  return {Case::writeFailed, error};
}

namespace RuntimeControlStoreV3 {

namespace {

using namespace layout;
namespace words = shared_words;

using SlotImage = std::array<std::byte, slotFieldsEnd>;

// Channels that a u32 field cannot hold are stored as 0, which every reader leaves out.
std::uint32_t storedChannel(std::int64_t channel) {
  if (channel <= 0 || channel > std::numeric_limits<std::uint32_t>::max()) return 0;
  return static_cast<std::uint32_t>(channel);
}

// The slot's bytes 0...1599 for one record, normalised as the constructor would: a record
// whose fields were set directly still reaches the block in range.
void fillSlot(SlotImage& image, const RuntimeDeviceControls& record) {
  image.fill(std::byte{0});
  std::byte* bytes = image.data();
  std::size_t routeCount = std::min(record.routes.size(), maximumRouteCount);
  std::uint32_t flags = inUseFlag;
  if (record.deviceEnabled) flags |= deviceEnabledFlag;
  if (record.sourceEnabled) flags |= sourceEnabledFlag;
  if (record.muted) flags |= mutedFlag;
  words::putU32(bytes, flagsOffset, flags);
  words::putU32(bytes, channelCountOffset,
                static_cast<std::uint32_t>(
                    RuntimeDeviceControls::normalizedChannelCount(record.channelCount)));
  words::putF32(bytes, deviceGainOffset, RuntimeDeviceControls::sanitizedGain(record.deviceGain));
  words::putF32(bytes, sourceGainOffset, RuntimeDeviceControls::sanitizedGain(record.sourceGain));
  words::putU32(bytes, routeCountOffset, static_cast<std::uint32_t>(routeCount));
  writeString(record.uid, bytes, uidOffset, uidCapacity);
  writeString(record.name, bytes, nameOffset, nameCapacity);
  writeString(record.icon, bytes, iconOffset, iconCapacity);
  for (std::size_t k = 0; k < maximumChannelCount; ++k) {
    float gain = k < record.channelGains.size()
                     ? RuntimeDeviceControls::sanitizedGain(record.channelGains[k])
                     : 1.0f;
    words::putF32(bytes, channelGainsOffset + 4 * k, gain);
  }
  for (std::size_t j = 0; j < routeCount; ++j) {
    words::putU32(bytes, routesOffset + 8 * j, storedChannel(record.routes[j].sourceChannel));
    words::putU32(bytes, routesOffset + 8 * j + 4, storedChannel(record.routes[j].outputChannel));
  }
}

// A text field up to its first zero byte, invalid UTF-8 replaced.
std::string readString(const std::byte* bytes, std::size_t offset, std::size_t capacity) {
  const char* text = reinterpret_cast<const char*>(bytes + offset);
  const char* end = std::find(text, text + capacity, '\0');
  return unicode::decodingUTF8Replacing(std::string_view(text, end));
}

RuntimeDeviceControls recordOf(const std::byte* slot) {
  std::uint32_t flags = words::getU32(slot, flagsOffset);
  std::size_t routeCount =
      std::min<std::size_t>(words::getU32(slot, routeCountOffset), maximumRouteCount);
  std::vector<RuntimeChannelRoute> routes;
  routes.reserve(routeCount);
  for (std::size_t j = 0; j < routeCount; ++j) {
    std::uint32_t source = words::getU32(slot, routesOffset + 8 * j);
    std::uint32_t output = words::getU32(slot, routesOffset + 8 * j + 4);
    if (source != 0 && output != 0) routes.push_back({source, output});
  }
  std::vector<float> gains(maximumChannelCount);
  for (std::size_t k = 0; k < maximumChannelCount; ++k) {
    gains[k] = words::getF32(slot, channelGainsOffset + 4 * k);
  }
  return RuntimeDeviceControls(
      readString(slot, uidOffset, uidCapacity), readString(slot, nameOffset, nameCapacity),
      readString(slot, iconOffset, iconCapacity), words::getU32(slot, channelCountOffset),
      (flags & deviceEnabledFlag) != 0, words::getF32(slot, deviceGainOffset), std::move(gains),
      (flags & sourceEnabledFlag) != 0, (flags & mutedFlag) != 0,
      words::getF32(slot, sourceGainOffset), std::move(routes));
}

}  // namespace

void writeString(std::string_view text, std::byte* base, std::size_t offset, std::size_t capacity) {
  if (capacity == 0) return;
  std::string cut;
  if (text.size() >= capacity) {
    cut = unicode::truncatedToByteLength(text, capacity - 1);
    text = cut;
  }
  if (!text.empty()) std::memcpy(base + offset, text.data(), text.size());
  std::memset(base + offset + text.size(), 0, capacity - text.size());
}

namespace {

void put(SharedBytes& block, std::size_t offset, const std::byte* bytes, std::size_t count) {
  if (const int error = block.write(offset, bytes, count); error != 0) {
    throw RuntimeControlStoreError::writeFailed(error);
  }
}

void putWord(SharedBytes& block, std::size_t offset, std::uint32_t value) {
  std::byte bytes[4];
  words::putU32(bytes, 0, value);
  put(block, offset, bytes, sizeof bytes);
}

}  // namespace

void writeBlock(SharedBytes& block, std::span<const RuntimeDeviceControls> controls) {
  std::size_t count = std::min(controls.size(), maximumDeviceCount);
  // The only writer: nobody else changes the sequence under us. A shrunk object reads as zero.
  std::uint32_t sequence = (SequenceWord::load(block, sequenceOffset).value_or(0) + 1) | 1;

  std::array<std::byte, headerFieldsEnd> header;
  words::putU32(header.data(), magicOffset, magic);
  words::putU32(header.data(), versionOffset, version);
  words::putU32(header.data(), sizeOffset, static_cast<std::uint32_t>(objectSize));
  words::putU32(header.data(), sequenceOffset, sequence);
  words::putU32(header.data(), deviceCountOffset, static_cast<std::uint32_t>(count));
  words::putU32(header.data(), unusedWordOffset, 0);
  // Magic, version, size and the odd sequence, then (ordered after it) everything else.
  put(block, 0, header.data(), deviceCountOffset);
  SequenceWord::fence();
  put(block, deviceCountOffset, header.data() + deviceCountOffset,
      headerFieldsEnd - deviceCountOffset);

  SlotImage image;
  for (std::size_t i = 0; i < maximumDeviceCount; ++i) {
    const std::size_t slot = slotOffset(i);
    if (i >= count) {
      putWord(block, slot + flagsOffset, 0);
      continue;
    }
    fillSlot(image, controls[i]);
    // Values and counts first, then texts, gains and routes (contiguous), the flags last.
    put(block, slot + channelCountOffset, image.data() + channelCountOffset,
        routeCountOffset + 4 - channelCountOffset);
    put(block, slot + uidOffset, image.data() + uidOffset, slotFieldsEnd - uidOffset);
    put(block, slot + flagsOffset, image.data() + flagsOffset, 4);
  }

  SequenceWord::fence();
  putWord(block, sequenceOffset, sequence + 1);
}

std::optional<std::vector<RuntimeDeviceControls>> readBlock(const SharedBytes& block) {
  std::array<std::byte, headerFieldsEnd> header;
  std::vector<std::byte> slots(maximumDeviceCount * slotSize);
  std::size_t count = 0;
  const bool consistent = SequenceWord::readConsistently(block, sequenceOffset, [&] {
    if (!block.read(0, header.data(), header.size())) return false;
    count =
        std::min<std::size_t>(words::getU32(header.data(), deviceCountOffset), maximumDeviceCount);
    // The slots below the count in one piece (the bytes between their fields are never used).
    return block.read(headerSize, slots.data(), slotSize * count) &&
           words::getU32(header.data(), magicOffset) == magic &&
           words::getU32(header.data(), versionOffset) == version &&
           words::getU32(header.data(), sizeOffset) == objectSize;
  });
  if (!consistent) return std::nullopt;
  // The copy is consistent; records are built from it, not from the live block.
  std::vector<RuntimeDeviceControls> records;
  records.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    const std::byte* slot = slots.data() + i * slotSize;
    if ((words::getU32(slot, flagsOffset) & inUseFlag) != 0) records.push_back(recordOf(slot));
  }
  return records;
}

OpenedObject openSharedMemory(const char* name, std::uint16_t mode,
                              const SharedMemorySystem& system) {
  int fd = system.open(name, O_RDWR, 0);
  if (fd >= 0) return {UniqueFd(fd), false};
  if (errno != ENOENT) throw RuntimeControlStoreError::openFailed(errno);
  fd = system.open(name, O_RDWR | O_CREAT | O_EXCL, mode);
  if (fd < 0) throw RuntimeControlStoreError::openFailed(errno);
  return {UniqueFd(fd), true};
}

UniqueFd write(const char* name, const std::vector<RuntimeDeviceControls>& controls,
               const SharedMemorySystem& system) {
  constexpr std::uint16_t mode = 0666;
  OpenedObject object = openSharedMemory(name, mode, system);
  int fd = object.fd.get();
  // Everyone may read and write, whatever the umask said at creation.
  static_cast<void>(system.changeMode(fd, mode));
  constexpr auto size = static_cast<off_t>(objectSize);
  if (object.created && system.truncate(fd, size) != 0) {
    throw RuntimeControlStoreError::resizeFailed(errno);
  }
  struct stat info {};
  if (system.status(fd, &info) != 0 || info.st_size < 0) {
    throw RuntimeControlStoreError::invalidState();
  }
  if (info.st_size < size && system.truncate(fd, size) != 0) {
    throw RuntimeControlStoreError::resizeFailed(errno);
  }
  // Pages reserved before the sequence turns odd: a full /dev/shm fails here, and readers keep
  // the last complete update. (Someone may still shrink the object later; the writes then
  // extend it again, or fail with the sequence left odd.)
  if (const int error = system.reserve(fd, size); error != 0) {
    throw RuntimeControlStoreError::writeFailed(error);
  }
  DescriptorBytes block(fd, system);
  writeBlock(block, controls);
  return std::move(object.fd);
}

UniqueFd publish(const char* name, const std::vector<RuntimeDeviceControls>& controls,
                 const SharedMemorySystem& system) {
  try {
    return write(name, controls, system);
  } catch (const RuntimeControlStoreError& error) {
    // An existing object of another size that the system refuses to resize: start afresh.
    if (error != RuntimeControlStoreError::resizeFailed(EINVAL)) throw;
    static_cast<void>(system.unlink(name));
    return write(name, controls, system);
  }
}

std::vector<RuntimeDeviceControls> read(const char* name, const SharedMemorySystem& system) {
  int fd = system.open(name, O_RDONLY, 0);
  if (fd < 0) throw RuntimeControlStoreError::openFailed(errno);
  UniqueFd owner(fd);
  struct stat info {};
  if (system.status(fd, &info) != 0 || info.st_size < static_cast<off_t>(objectSize)) {
    throw RuntimeControlStoreError::invalidState();
  }
  auto records = readBlock(DescriptorBytes(fd, system));
  if (!records) throw RuntimeControlStoreError::invalidState();
  return std::move(*records);
}

namespace {
const std::string& objectName() {
  static const std::string name(sharedMemoryName);
  return name;
}
}  // namespace

void publish(const std::vector<RuntimeDeviceControls>& controls) {
  static_cast<void>(publish(objectName().c_str(), controls, SharedMemorySystem::posix()));
}

std::vector<RuntimeDeviceControls> read() {
  return read(objectName().c_str(), SharedMemorySystem::posix());
}

}  // namespace RuntimeControlStoreV3

RuntimeControlWriter::RuntimeControlWriter(std::string_view name)
    : RuntimeControlWriter(name, SharedMemorySystem::posix()) {}

RuntimeControlWriter::RuntimeControlWriter(std::string_view name, const SharedMemorySystem& system)
    : name_(name), system_(system) {}

RuntimeControlWriter::~RuntimeControlWriter() = default;

bool RuntimeControlWriter::publish(const std::vector<RuntimeDeviceControls>& controls) {
  if (fd_ && controls == written_ && holdsLastWrite()) return false;
  fd_.reset();
  written_.clear();
  bytes_.clear();
  fd_ = RuntimeControlStoreV3::publish(name_.c_str(), controls, system_);
  written_ = controls;
  // What the object holds now, read back rather than rebuilt: the writer leaves the bytes
  // between the fields as it found them. A failed read only costs one more write next time.
  bytes_.resize(RuntimeControlStoreV3::layout::objectSize);
  if (!DescriptorBytes(fd_.get(), system_).read(0, bytes_.data(), bytes_.size())) bytes_.clear();
  return true;
}

bool RuntimeControlWriter::holdsLastWrite() {
  struct stat info {};
  // Removed or replaced under its name (no links left), or shrunk: the readers no longer see
  // what was written.
  if (bytes_.empty() || system_.status(fd_.get(), &info) != 0 || info.st_nlink == 0 ||
      info.st_size < static_cast<off_t>(bytes_.size())) {
    return false;
  }
  scratch_.resize(bytes_.size());
  // memcmp: a comparison of std::byte vectors goes byte by byte.
  return DescriptorBytes(fd_.get(), system_).read(0, scratch_.data(), scratch_.size()) &&
         std::memcmp(scratch_.data(), bytes_.data(), bytes_.size()) == 0;
}

bool RuntimeControlWatcher::changed() {
  const auto& system = SharedMemorySystem::posix();
  struct stat info {};
  // A removed object has no links left, and the name may already stand for a new one.
  if (fd_ && (system.status(fd_.get(), &info) != 0 || info.st_nlink == 0)) fd_.reset();
  if (!fd_) {
    fd_.reset(system.open(name_.c_str(), O_RDONLY, 0));
    if (fd_ && system.status(fd_.get(), &info) != 0) fd_.reset();
  }
  std::optional<std::uint64_t> now;
  std::uint32_t sequence = 0;
  if (fd_ && ::pread(fd_.get(), &sequence, sizeof sequence,
                     RuntimeControlStoreV3::layout::sequenceOffset) ==
                 static_cast<ssize_t>(sizeof sequence)) {
    now = (static_cast<std::uint64_t>(info.st_ino) << 32) | sequence;
  }
  const bool result = !looked_ || now != state_;
  looked_ = true;
  state_ = now;
  return result;
}

}  // namespace brisola
