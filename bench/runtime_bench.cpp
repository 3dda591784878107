// The control block and the meter reader against the bare system calls they make and a plain
// copy of the same bytes, so the stores' own overhead shows as a ratio:
//   build/bench/bench_runtime --benchmark_min_time=0.5
// Objects live under private names, never the service's "/brisolaruntime3".

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "brisola/runtime/meter_store.hpp"
#include "runtime/control_block.hpp"
#include "runtime/meter_block.hpp"

namespace brisola {
namespace {

namespace store = RuntimeControlStoreV3;

constexpr std::size_t controlSize = 65536;
constexpr std::size_t controlBytesUsed = 64 + 16 * 2048;  // header and all slots
constexpr std::size_t meterSize = 4096;
constexpr std::size_t meterBytesUsed = 532;

const std::string controlName = "/brisolabench-" + std::to_string(::getpid());
const std::string meterOwner = "brisola.bench." + std::to_string(::getpid());

std::vector<RuntimeDeviceControls> sixteenDevices() {
  std::vector<RuntimeDeviceControls> records;
  for (int i = 0; i < 16; ++i) {
    std::vector<float> gains(64, 0.5f);
    std::vector<RuntimeChannelRoute> routes{{1, 1}, {2, 2}};
    records.emplace_back("app.brisola.device." + std::to_string(i), "Device " + std::to_string(i),
                         "waveform.circle", 2, true, 1.0f, gains, true, false, 1.0f, routes);
  }
  return records;
}

// shm_open, fstat, mmap, [copy], munmap, close: what any reader or writer must pay.
template <class Copy>
void bareCalls(const std::string& name, int flags, int protection, std::size_t length, Copy copy) {
  int fd = ::shm_open(name.c_str(), flags | O_CLOEXEC, 0);
  struct stat info {};
  ::fstat(fd, &info);
  void* address = ::mmap(nullptr, length, protection, MAP_SHARED, fd, 0);
  copy(static_cast<std::byte*>(address));
  ::munmap(address, length);
  ::close(fd);
}

void BM_Publish16(benchmark::State& state) {
  auto records = sixteenDevices();
  for (auto _ : state) store::publish(controlName.c_str(), records, SharedMemorySystem::posix());
}

void BM_Read16(benchmark::State& state) {
  store::publish(controlName.c_str(), sixteenDevices(), SharedMemorySystem::posix());
  for (auto _ : state) {
    benchmark::DoNotOptimize(store::read(controlName.c_str(), SharedMemorySystem::posix()));
  }
}

void BM_ControlBareCalls(benchmark::State& state) {
  store::publish(controlName.c_str(), {}, SharedMemorySystem::posix());
  for (auto _ : state) {
    bareCalls(controlName, O_RDWR, PROT_READ | PROT_WRITE, controlSize,
              [](std::byte* block) { benchmark::DoNotOptimize(block); });
  }
}

void BM_ControlBareCallsAndMemcpyIn(benchmark::State& state) {
  std::vector<std::byte> local(controlBytesUsed, std::byte{1});
  store::publish(controlName.c_str(), {}, SharedMemorySystem::posix());
  for (auto _ : state) {
    bareCalls(controlName, O_RDWR, PROT_READ | PROT_WRITE, controlSize,
              [&](std::byte* block) { std::memcpy(block, local.data(), local.size()); });
  }
}

void BM_ControlBareCallsAndMemcpyOut(benchmark::State& state) {
  std::vector<std::byte> local(controlBytesUsed);
  store::publish(controlName.c_str(), sixteenDevices(), SharedMemorySystem::posix());
  for (auto _ : state) {
    bareCalls(controlName, O_RDONLY, PROT_READ, controlSize, [&](std::byte* block) {
      std::memcpy(local.data(), block, local.size());
      benchmark::DoNotOptimize(local.data());
    });
  }
}

void BM_ControlMemcpyOnly(benchmark::State& state) {
  std::vector<std::byte> from(controlBytesUsed, std::byte{1}), to(controlBytesUsed);
  for (auto _ : state) {
    std::memcpy(to.data(), from.data(), to.size());
    benchmark::DoNotOptimize(to.data());
  }
}

// The protocol alone on memory that stays in place: the share of the copy in the store.
void BM_WriteBlockOnly(benchmark::State& state) {
  auto records = sixteenDevices();
  std::vector<std::uint32_t> memory(controlSize / 4);
  MemoryBytes block(std::as_writable_bytes(std::span(memory)));
  for (auto _ : state) store::writeBlock(block, records);
}

void BM_ReadBlockOnly(benchmark::State& state) {
  std::vector<std::uint32_t> memory(controlSize / 4);
  MemoryBytes block(std::as_writable_bytes(std::span(memory)));
  store::writeBlock(block, sixteenDevices());
  for (auto _ : state) benchmark::DoNotOptimize(store::readBlock(block));
}

struct MeterObject {
  std::string name = RuntimeMeterStore::objectName(meterOwner);
  MeterObject() {
    int fd = ::shm_open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ::ftruncate(fd, meterSize);
    auto* bytes = static_cast<unsigned char*>(
        ::mmap(nullptr, meterSize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0));
    const std::uint32_t header[5] = {0x53544D4B, 2, 4096, 2, 64};
    std::memcpy(bytes, header, sizeof header);
    for (std::size_t k = 0; k < 128; ++k) {
      float value = 0.01f * static_cast<float>(k);
      std::memcpy(bytes + 20 + 4 * k, &value, 4);
    }
    ::munmap(bytes, meterSize);
    ::close(fd);
  }
  ~MeterObject() { ::shm_unlink(name.c_str()); }
};

void BM_MeterReading(benchmark::State& state) {
  MeterObject object;
  for (auto _ : state) benchmark::DoNotOptimize(RuntimeMeterStore::reading(meterOwner));
}

void BM_MeterBareCallsAndMemcpy(benchmark::State& state) {
  MeterObject object;
  std::vector<std::byte> local(meterBytesUsed);
  for (auto _ : state) {
    bareCalls(object.name, O_RDONLY, PROT_READ, meterSize, [&](std::byte* block) {
      std::memcpy(local.data(), block, local.size());
      benchmark::DoNotOptimize(local.data());
    });
  }
}

// A long-lived producer's update: reservation and three writes on its descriptor.
void BM_MeterPublish(benchmark::State& state) {
  MeterPublisher publisher(meterOwner + ".publisher", 2);
  const float levels[2] = {0.5f, 0.25f};
  for (auto _ : state) benchmark::DoNotOptimize(publisher.publish(levels, levels));
}

BENCHMARK(BM_Publish16);
BENCHMARK(BM_ControlBareCalls);
BENCHMARK(BM_ControlBareCallsAndMemcpyIn);
BENCHMARK(BM_Read16);
BENCHMARK(BM_ControlBareCallsAndMemcpyOut);
BENCHMARK(BM_ControlMemcpyOnly);
BENCHMARK(BM_WriteBlockOnly);
BENCHMARK(BM_ReadBlockOnly);
BENCHMARK(BM_MeterReading);
BENCHMARK(BM_MeterBareCallsAndMemcpy);
BENCHMARK(BM_MeterPublish);

// Removes the control object after the run.
struct Cleanup {
  ~Cleanup() { ::shm_unlink(controlName.c_str()); }
} cleanup;

}  // namespace
}  // namespace brisola

BENCHMARK_MAIN();
