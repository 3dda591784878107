#include "runtime/shared_memory.hpp"

#include <unistd.h>

#include "brisola_runtime_support.h"

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

void* SharedMemorySystem::map(std::size_t length, int protection, int fd) const {
  return ::mmap(nullptr, length, protection, MAP_SHARED, fd, 0);
}

const SharedMemorySystem& SharedMemorySystem::posix() {
  static const SharedMemorySystem system;
  return system;
}

}  // namespace brisola
