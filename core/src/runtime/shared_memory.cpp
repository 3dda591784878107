#include "runtime/shared_memory.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "brisola_runtime_support.h"
#include "runtime/shared_words.hpp"

namespace brisola {

int SharedMemorySystem::open(const char* name, int flags, mode_t mode) const {
  return BrisolaShmOpen(name, flags, mode);
}

int SharedMemorySystem::unlink(const char* name) const {
  return BrisolaShmUnlink(name);
}

int SharedMemorySystem::changeMode(int fd, mode_t mode) const {
  return ::fchmod(fd, mode);
}

int SharedMemorySystem::truncate(int fd, off_t length) const {
  return ::ftruncate(fd, length);
}

int SharedMemorySystem::status(int fd, struct stat* info) const {
  return ::fstat(fd, info);
}

int SharedMemorySystem::reserve(int fd, off_t length) const {
  return ::posix_fallocate(fd, 0, length);
}

ssize_t SharedMemorySystem::readAt(int fd, void* buffer, std::size_t count, off_t offset) const {
  ssize_t result;
  do result = ::pread(fd, buffer, count, offset);
  while (result < 0 && errno == EINTR);
  return result;
}

ssize_t SharedMemorySystem::writeAt(int fd, const void* buffer, std::size_t count,
                                    off_t offset) const {
  ssize_t result;
  do result = ::pwrite(fd, buffer, count, offset);
  while (result < 0 && errno == EINTR);
  return result;
}

const SharedMemorySystem& SharedMemorySystem::posix() {
  static const SharedMemorySystem system;
  return system;
}

bool DescriptorBytes::read(std::size_t offset, std::byte* local, std::size_t count) const {
  // A short count is an object that ends before the range: there is nothing more to wait for.
  return system_.readAt(fd_, local, count, static_cast<off_t>(offset)) ==
         static_cast<ssize_t>(count);
}

int DescriptorBytes::write(std::size_t offset, const std::byte* local, std::size_t count) {
  while (count > 0) {
    const ssize_t written = system_.writeAt(fd_, local, count, static_cast<off_t>(offset));
    if (written < 0) return errno;
    if (written == 0) return EIO;
    offset += static_cast<std::size_t>(written);
    local += written;
    count -= static_cast<std::size_t>(written);
  }
  return 0;
}

bool MemoryBytes::read(std::size_t offset, std::byte* local, std::size_t count) const {
  if (offset > memory_.size() || count > memory_.size() - offset) return false;
  shared_words::copyOut(local, memory_.data() + offset, count);
  return true;
}

int MemoryBytes::write(std::size_t offset, const std::byte* local, std::size_t count) {
  if (offset > memory_.size() || count > memory_.size() - offset) return EFBIG;
  shared_words::copyIn(memory_.data() + offset, local, count);
  return 0;
}

namespace SequenceWord {

std::optional<std::uint32_t> load(const SharedBytes& object, std::size_t offset) {
  std::byte bytes[4];
  if (!object.read(offset, bytes, sizeof bytes)) return std::nullopt;
  return shared_words::getU32(bytes, 0);
}

}  // namespace SequenceWord

}  // namespace brisola
