#pragma once

// The POSIX shared-memory calls of the control block and the meter reader, behind one small
// interface so that tests can fail any single step, and the mapping as an owned resource.

#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <utility>

namespace brisola {

class SharedMemorySystem {
 public:
  virtual ~SharedMemorySystem() = default;

  // BrisolaShmOpen / BrisolaShmUnlink; the descriptor is close-on-exec.
  virtual int open(const char* name, int flags, mode_t mode) const;
  virtual int unlink(const char* name) const;
  virtual int changeMode(int fd, mode_t mode) const;
  virtual int truncate(int fd, off_t length) const;
  virtual int status(int fd, struct stat* info) const;
  // mmap(nullptr, length, protection, MAP_SHARED, fd, 0); MAP_FAILED with errno on failure.
  virtual void* map(std::size_t length, int protection, int fd) const;

  // The real calls.
  static const SharedMemorySystem& posix();
};

// Sole owner of one mapping; unmaps it when destroyed.
class MappedRegion {
 public:
  MappedRegion() = default;
  MappedRegion(void* address, std::size_t length) : address_(address), length_(length) {}
  MappedRegion(MappedRegion&& other) noexcept
      : address_(std::exchange(other.address_, nullptr)), length_(other.length_) {}
  MappedRegion& operator=(MappedRegion&& other) noexcept {
    if (this != &other) {
      reset();
      address_ = std::exchange(other.address_, nullptr);
      length_ = other.length_;
    }
    return *this;
  }
  MappedRegion(const MappedRegion&) = delete;
  MappedRegion& operator=(const MappedRegion&) = delete;
  ~MappedRegion() { reset(); }

  std::byte* data() const { return static_cast<std::byte*>(address_); }
  std::size_t size() const { return length_; }
  void reset() {
    if (address_ != nullptr) ::munmap(address_, length_);
    address_ = nullptr;
  }

 private:
  void* address_ = nullptr;
  std::size_t length_ = 0;
};

}  // namespace brisola
