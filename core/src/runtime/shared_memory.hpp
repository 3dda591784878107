#pragma once

// The POSIX shared-memory calls of the control block and the meters, behind one small interface
// so that tests can fail any single step, and the one way both layouts copy an object's bytes
// in and out.
//
// Bytes move through the descriptor (pread / pwrite), never through a mapping. Anyone who may
// open an object may also shrink or remove it at any moment; a mapping would then kill the
// process with SIGBUS at its next access, while a call on the descriptor merely comes back
// short (a read) or extends the object again (a write). That holds just as well for a
// descriptor kept open for a process's whole life. A full /dev/shm shows as ENOSPC from the
// write or from the reservation before it. Measured against a mapping: see bench_runtime.

#include <sys/stat.h>
#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

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
  // posix_fallocate(fd, 0, length): 0 or the error number.
  virtual int reserve(int fd, off_t length) const;
  // pread / pwrite, retried after EINTR.
  virtual ssize_t readAt(int fd, void* buffer, std::size_t count, off_t offset) const;
  virtual ssize_t writeAt(int fd, const void* buffer, std::size_t count, off_t offset) const;

  // The real calls.
  static const SharedMemorySystem& posix();
};

// The bytes of one shared object. Offsets and counts are multiples of 4: every field of both
// layouts is a little-endian 32-bit word.
class SharedBytes {
 public:
  virtual ~SharedBytes() = default;
  // Copies [offset, offset + count) out; false when the object does not hold all of it (any
  // more) or the call failed.
  virtual bool read(std::size_t offset, std::byte* local, std::size_t count) const = 0;
  // Copies `local` into [offset, offset + count); 0, or the error number of the failure.
  virtual int write(std::size_t offset, const std::byte* local, std::size_t count) = 0;
};

// An object open on a descriptor (not owned).
class DescriptorBytes final : public SharedBytes {
 public:
  DescriptorBytes(int fd, const SharedMemorySystem& system) : fd_(fd), system_(system) {}
  bool read(std::size_t offset, std::byte* local, std::size_t count) const override;
  int write(std::size_t offset, const std::byte* local, std::size_t count) override;

 private:
  int fd_;
  const SharedMemorySystem& system_;
};

// Memory that other threads may change at the same time (tests, fuzzers, private copies): word
// by word with atomic accesses, nothing outside the span.
class MemoryBytes final : public SharedBytes {
 public:
  explicit MemoryBytes(std::span<std::byte> memory) : memory_(memory) {}
  bool read(std::size_t offset, std::byte* local, std::size_t count) const override;
  int write(std::size_t offset, const std::byte* local, std::size_t count) override;

 private:
  std::span<std::byte> memory_;
};

namespace SequenceWord {

inline constexpr int readAttempts = 4;

// The word at `offset`; nothing when the object does not hold it.
std::optional<std::uint32_t> load(const SharedBytes& object, std::size_t offset);

// Orders the copies of one call before those of the next as other processors see them (the
// kernel's copies are plain accesses). ThreadSanitizer cannot model a fence, and never sees
// the kernel's copies anyway.
inline void fence() {
#if !defined(__SANITIZE_THREAD__)
  std::atomic_thread_fence(std::memory_order_seq_cst);
#endif
}

// The reader's half of the protocol, the same for every layout: up to four attempts, each
// loading the sequence word, letting `copy` take what it needs into private memory and loading
// the sequence again. True for the first attempt whose copy succeeded between two loads of the
// same even value; `copy` must make its result from private memory only.
template <class Copy>
bool readConsistently(const SharedBytes& object, std::size_t sequenceOffset, Copy&& copy) {
  for (int attempt = 0; attempt < readAttempts; ++attempt) {
    const auto before = load(object, sequenceOffset);
    fence();
    const bool copied = before && *before % 2 == 0 && copy();
    fence();
    const auto after = load(object, sequenceOffset);
    if (copied && after == before) return true;
  }
  return false;
}

}  // namespace SequenceWord

}  // namespace brisola
