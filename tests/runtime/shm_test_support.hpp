#pragma once

// Shared-memory objects that a test builds and reads byte by byte, independently of the
// library's readers and writers.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "brisola/platform/unique_fd.hpp"
#include "brisola/runtime/runtime_controls.hpp"
#include "support/system_helpers.hpp"

namespace brisola::testing {

// A name no other test process uses: "/brisolatest-<pid>-<tag>-<n>".
inline std::string uniqueShmName(const std::string& tag) {
  static int counter = 0;
  return "/brisolatest-" + std::to_string(::getpid()) + "-" + tag + "-" + std::to_string(++counter);
}

// Opens an existing object, or creates one of `size` bytes of `fill`; maps it read-write for the
// test and removes it when destroyed.
class ShmObject {
 public:
  explicit ShmObject(std::string name) : name_(std::move(name)) { open(O_RDWR, 0); }
  ShmObject(std::string name, std::size_t size, unsigned char fill = 0) : name_(std::move(name)) {
    ::shm_unlink(name_.c_str());
    open(O_RDWR | O_CREAT | O_EXCL, size);
    if (data_ != nullptr) std::memset(data_, fill, size_);
  }
  ShmObject(const ShmObject&) = delete;
  ShmObject& operator=(const ShmObject&) = delete;
  ~ShmObject() {
    if (data_ != nullptr) ::munmap(data_, size_);
    ::shm_unlink(name_.c_str());
  }

  const std::string& name() const { return name_; }
  std::size_t size() const { return size_; }
  unsigned char* bytes() { return static_cast<unsigned char*>(data_); }

  std::uint32_t u32(std::size_t offset) const { return get<std::uint32_t>(offset); }
  float f32(std::size_t offset) const { return get<float>(offset); }
  void setU32(std::size_t offset, std::uint32_t value) { std::memcpy(bytes() + offset, &value, 4); }
  void setF32(std::size_t offset, float value) { std::memcpy(bytes() + offset, &value, 4); }
  std::string text(std::size_t offset, std::size_t width) const {
    return std::string(static_cast<const char*>(data_) + offset, width);
  }

 private:
  template <class T>
  T get(std::size_t offset) const {
    T value;
    std::memcpy(&value, static_cast<const unsigned char*>(data_) + offset, sizeof value);
    return value;
  }
  void open(int flags, std::size_t size) {
    UniqueFd fd(::shm_open(name_.c_str(), flags | O_CLOEXEC, 0600));
    struct stat info {};
    if (!fd || ((flags & O_CREAT) != 0 && ::ftruncate(fd.get(), static_cast<off_t>(size)) != 0) ||
        ::fstat(fd.get(), &info) != 0) {
      throw std::runtime_error(name_ + ": " + std::strerror(errno));
    }
    size_ = static_cast<std::size_t>(info.st_size);
    data_ = size_ == 0 ? nullptr
                       : ::mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
    if (data_ == MAP_FAILED) throw std::runtime_error("mmap " + name_);
  }

  std::string name_;
  void* data_ = nullptr;
  std::size_t size_ = 0;
};

// A meter producer's object, written by the test byte by byte.
struct MeterImage {
  std::uint32_t magic = 0x53544D4B;
  std::uint32_t version = 2;
  std::uint32_t size = 4096;
  std::uint32_t sequence = 6;
  std::uint32_t channelCount = 0;
  std::vector<float> levels;
  std::vector<float> peaks;

  void writeTo(ShmObject& object) const {
    const std::uint32_t header[] = {magic, version, size, sequence, channelCount};
    for (std::size_t k = 0; k < 5; ++k) object.setU32(4 * k, header[k]);
    for (std::size_t k = 0; k < levels.size(); ++k) object.setF32(20 + 4 * k, levels[k]);
    for (std::size_t k = 0; k < peaks.size(); ++k) object.setF32(276 + 4 * k, peaks[k]);
  }
};

// A record built through the constructor with every field distinct per `seed`, texts that fit
// their fields and routes without zero channels, so it survives a write and a read unchanged.
inline RuntimeDeviceControls sampleControls(int seed, std::int64_t routeCount = 3) {
  std::vector<float> gains;
  for (int k = 0; k < 64; ++k) gains.push_back(static_cast<float>((seed * 7 + k) % 20) / 10.0f);
  std::vector<RuntimeChannelRoute> routes;
  for (std::int64_t j = 0; j < routeCount; ++j) routes.push_back({j % 5 + 1 + seed, j % 3 + 1});
  std::string tag = std::to_string(seed);
  return RuntimeDeviceControls("app.brisola.device." + tag, "Device " + tag + " — Ünï",
                               seed % 2 == 0 ? "mic" : "waveform.circle", 2 + 2 * (seed % 32),
                               seed % 2 == 0, 0.25f * static_cast<float>(seed % 8), gains,
                               seed % 3 == 0, seed % 5 == 0, 0.125f * static_cast<float>(seed % 16),
                               routes);
}

// Runs write(0), write(1), ... on another thread while this one reads for half a second, and
// longer (up to half a minute) until it has accepted ten states, as a loaded machine or a
// sanitizer may slow it: every state accepted must be one of the two written.
template <class Write, class Read, class State>
void expectNoTornReads(Write write, Read read, const State& first, const State& second) {
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    std::minstd_rand random(7);
    for (long n = 0; !stop.load(std::memory_order_relaxed); ++n) {
      write(n);
      // A pause of random length, busy rather than yielding: a writer that gave the processor
      // up only between updates would hide torn copies from a reader on the same core.
      for (auto spin = random() % 20000; spin > 0 && !stop.load(std::memory_order_relaxed);) --spin;
    }
  });
  long accepted = 0;
  const auto start = std::chrono::steady_clock::now();
  for (auto now = start; now < start + std::chrono::seconds(30) &&
                         (now < start + std::chrono::milliseconds(500) || accepted < 10);
       now = std::chrono::steady_clock::now()) {
    const auto state = read();
    if (!state) continue;
    ++accepted;
    if (*state != first && *state != second) {
      ADD_FAILURE() << "torn state accepted";
      break;
    }
  }
  stop = true;
  writer.join();
  EXPECT_GE(accepted, 10);
}

}  // namespace brisola::testing
