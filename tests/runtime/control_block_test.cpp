// The control block on private objects: byte layout, text cutting, hostile contents and the
// failure of every system call. The fixed object name is exercised in the shm tests.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <thread>

#include "runtime/control_block.hpp"
#include "shm_test_support.hpp"

namespace brisola {
namespace {

using ::testing::ElementsAre;
using testing::sampleControls;
using testing::ShmObject;
using testing::uniqueShmName;
using R = RuntimeChannelRoute;
namespace store = RuntimeControlStoreV3;

const SharedMemorySystem& posix = SharedMemorySystem::posix();

std::vector<RuntimeDeviceControls> readOrInvalid(const std::string& name, bool& invalid) {
  invalid = false;
  try {
    return store::read(name.c_str(), posix);
  } catch (const RuntimeControlStoreError& error) {
    EXPECT_EQ(error, RuntimeControlStoreError::invalidState());
    invalid = true;
    return {};
  }
}

// Offsets below are written out as numbers on purpose: they pin the wire format independently
// of the library's own constants.
constexpr std::size_t slot(std::size_t i) {
  return 64 + 2048 * i;
}

TEST(ControlBlock, FreshObjectLayoutByteByByte) {
  std::string name = uniqueShmName("layout");
  mode_t oldMask = ::umask(077);
  RuntimeDeviceControls first("app.brisola.device.1", std::string(200, 'n'), "mic.fill", 8, true,
                              0.5f, {0.25f, 1.75f}, false, true, 1.5f, {{1, 2}, {3, 4}, {0, 5}});
  RuntimeDeviceControls second("u2", "Two", "i", 2, false, 2.0f, {}, true, false, 0.0f, {});
  store::publish(name.c_str(), {first, second}, posix);
  ::umask(oldMask);

  ShmObject object(name);
  ASSERT_EQ(object.size(), 65536u);
  struct stat info {};
  ASSERT_EQ(::stat(("/dev/shm" + name).c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0666u) << "readable and writable by everyone despite the umask";

  EXPECT_EQ(object.text(0, 4), "KRTS");
  EXPECT_EQ(object.u32(0), 0x5354524Bu);
  EXPECT_EQ(object.u32(4), 4u);
  EXPECT_EQ(object.u32(8), 65536u);
  EXPECT_EQ(object.u32(12), 2u) << "a new object goes 0 → 1 → 2";
  EXPECT_EQ(object.u32(16), 2u);
  EXPECT_EQ(object.u32(20), 0u);

  std::size_t s = slot(0);
  EXPECT_EQ(object.u32(s + 0), 1u | 2u | 8u);
  EXPECT_EQ(object.u32(s + 4), 8u);
  EXPECT_EQ(object.f32(s + 8), 0.5f);
  EXPECT_EQ(object.f32(s + 12), 1.5f);
  EXPECT_EQ(object.u32(s + 16), 3u);
  EXPECT_EQ(object.text(s + 32, 128), "app.brisola.device.1" + std::string(108, '\0'));
  EXPECT_EQ(object.text(s + 160, 128), std::string(127, 'n') + '\0');
  EXPECT_EQ(object.text(s + 288, 32), "mic.fill" + std::string(24, '\0'));
  EXPECT_EQ(object.f32(s + 320), 0.25f);
  EXPECT_EQ(object.f32(s + 324), 1.75f);
  for (std::size_t k = 2; k < 64; ++k) ASSERT_EQ(object.f32(s + 320 + 4 * k), 1.0f) << k;
  EXPECT_EQ(object.u32(s + 576), 1u);
  EXPECT_EQ(object.u32(s + 580), 2u);
  EXPECT_EQ(object.u32(s + 584), 3u);
  EXPECT_EQ(object.u32(s + 588), 4u);
  EXPECT_EQ(object.u32(s + 592), 0u);
  EXPECT_EQ(object.u32(s + 596), 5u);
  for (std::size_t j = 3; j < 128; ++j) {
    ASSERT_EQ(object.u32(s + 576 + 8 * j), 0u) << j;
    ASSERT_EQ(object.u32(s + 580 + 8 * j), 0u) << j;
  }

  s = slot(1);
  EXPECT_EQ(object.u32(s + 0), 1u | 4u);
  EXPECT_EQ(object.u32(s + 4), 2u);
  EXPECT_EQ(object.f32(s + 8), 2.0f);
  EXPECT_EQ(object.f32(s + 12), 0.0f);
  EXPECT_EQ(object.u32(s + 16), 0u);
  for (std::size_t i = 2; i < 16; ++i) EXPECT_EQ(object.u32(slot(i)), 0u) << i;

  store::publish(name.c_str(), {second}, posix);
  EXPECT_EQ(object.u32(12), 4u);
  EXPECT_EQ(object.u32(16), 1u);
  EXPECT_EQ(object.u32(slot(1)), 0u) << "a slot no longer in use has flags 0";
  EXPECT_EQ(object.u32(slot(1) + 4), 2u) << "its other bytes stay as they were";
}

TEST(ControlBlock, BytesOutsideTheFieldsAreNeverWritten) {
  ShmObject object(uniqueShmName("reserved"), 65536, 0xAB);
  store::write(object.name().c_str(), {sampleControls(1, 128)}, posix);

  // The old sequence was the odd 0xABABABAB: the writer continues from it.
  EXPECT_EQ(object.u32(12), 0xABABABAEu);
  auto untouched = [&](std::size_t from, std::size_t to) {
    for (std::size_t b = from; b < to; ++b) {
      if (object.bytes()[b] != 0xAB) return ::testing::AssertionFailure() << "byte " << b;
    }
    return ::testing::AssertionSuccess();
  };
  EXPECT_TRUE(untouched(24, 64));
  EXPECT_TRUE(untouched(slot(0) + 20, slot(0) + 32));
  EXPECT_TRUE(untouched(slot(0) + 1600, slot(0) + 2048));
  EXPECT_EQ(object.u32(slot(1)), 0u);
  EXPECT_TRUE(untouched(slot(1) + 4, slot(2)));
  EXPECT_TRUE(untouched(slot(15) + 4, 65536));
}

TEST(ControlBlock, SequenceContinuesFromWhatIsThereAndWraps) {
  const std::vector<std::pair<std::uint32_t, std::uint32_t>> rows{
      {0, 2}, {1, 4}, {2, 4}, {5, 8}, {0xFFFFFFFE, 0}, {0xFFFFFFFF, 2}};
  ShmObject object(uniqueShmName("sequence"), 65536);
  for (auto [before, after] : rows) {
    SCOPED_TRACE(before);
    object.setU32(12, before);
    store::write(object.name().c_str(), {}, posix);
    EXPECT_EQ(object.u32(12), after);
  }
}

TEST(ControlBlock, TextFieldsAreCutWithoutSplittingACharacter) {
  std::string euro = "\xE2\x82\xAC";     // 3 bytes
  std::string decomposed = "e\xCC\x81";  // e + combining acute: one character, 3 bytes
  std::string family = "\xF0\x9F\x91\xA9\xE2\x80\x8D\xF0\x9F\x91\xA7";  // 11 bytes, one character
  auto repeat = [](const std::string& piece, int count) {
    std::string text;
    for (int i = 0; i < count; ++i) text += piece;
    return text;
  };
  struct Row {
    const char* what;
    std::string text;
    std::size_t capacity;
    std::string stored;
  };
  const std::vector<Row> rows{
      {"empty", "", 32, ""},
      {"200 ASCII in a name", std::string(200, 'a'), 128, std::string(127, 'a')},
      {"127 ASCII fit exactly", std::string(127, 'a'), 128, std::string(127, 'a')},
      {"128 ASCII lose one", std::string(128, 'a'), 128, std::string(127, 'a')},
      {"43 three-byte characters", repeat(euro, 43), 128, repeat(euro, 42)},
      {"40 ASCII in an icon", std::string(40, 'i'), 32, std::string(31, 'i')},
      {"decomposed accents", repeat(decomposed, 50), 128, repeat(decomposed, 42)},
      {"accent over the edge", std::string(125, 'a') + decomposed, 128, std::string(125, 'a')},
      {"bytes that are not UTF-8", std::string(40, '\xFF'), 32, std::string(31, '\xFF')},
      {"stray continuation bytes", std::string(30, 'a') + std::string(5, '\x80'), 32,
       std::string(30, 'a') + std::string(1, '\x80')},
      {"joined emoji over the edge", std::string(21, 'a') + family + "z", 32, std::string(21, 'a')},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    std::vector<std::byte> buffer(8 + row.capacity + 8, std::byte{0xFF});
    store::writeString(row.text, buffer.data(), 8, row.capacity);
    std::string field(reinterpret_cast<const char*>(buffer.data()) + 8, row.capacity);
    EXPECT_EQ(field, row.stored + std::string(row.capacity - row.stored.size(), '\0'));
    for (std::size_t b : {std::size_t{0}, std::size_t{7}, 8 + row.capacity, buffer.size() - 1}) {
      EXPECT_EQ(buffer[b], std::byte{0xFF}) << "wrote outside the field at " << b;
    }
  }
}

TEST(ControlBlock, RoutesThatCannotBeStoredBecomeZeroAndReadersLeaveThemOut) {
  std::string name = uniqueShmName("routes");
  RuntimeDeviceControls controls(
      "u", "n", "i", 2, true, 1.0f, {}, true, false, 1.0f,
      {{1, 2}, {0, 1}, {-3, 2}, {2, -1}, {4294967296, 1}, {4294967295, 1}, {3, 4}});
  store::publish(name.c_str(), {controls}, posix);
  ShmObject object(name);
  EXPECT_EQ(object.u32(slot(0) + 16), 7u);
  std::vector<std::pair<std::uint32_t, std::uint32_t>> stored;
  for (std::size_t j = 0; j < 7; ++j) {
    stored.emplace_back(object.u32(slot(0) + 576 + 8 * j), object.u32(slot(0) + 580 + 8 * j));
  }
  EXPECT_THAT(stored, ElementsAre(std::pair(1u, 2u), std::pair(0u, 1u), std::pair(0u, 2u),
                                  std::pair(2u, 0u), std::pair(0u, 1u), std::pair(4294967295u, 1u),
                                  std::pair(3u, 4u)));
  EXPECT_THAT(store::read(name.c_str(), posix)[0].routes,
              ElementsAre(R{1, 2}, R{4294967295, 1}, R{3, 4}));
}

TEST(ControlBlock, WhatIsWrittenIsReadBack) {
  std::string name = uniqueShmName("roundtrip");
  std::vector<RuntimeDeviceControls> records;
  for (int i = 0; i < 17; ++i) records.push_back(sampleControls(i, i == 4 ? 130 : 3));
  store::publish(name.c_str(), records, posix);
  ShmObject object(name);
  EXPECT_EQ(object.u32(16), 16u);
  EXPECT_EQ(object.u32(slot(4) + 16), 128u);
  auto back = store::read(name.c_str(), posix);
  EXPECT_EQ(back, std::vector<RuntimeDeviceControls>(records.begin(), records.begin() + 16));

  // Fields set around the constructor are still brought into range on the way out.
  RuntimeDeviceControls raw = sampleControls(1);
  raw.channelCount = 7;
  raw.deviceGain = std::nanf("");
  raw.channelGains = {5.0f};
  store::publish(name.c_str(), {raw}, posix);
  auto normalised = store::read(name.c_str(), posix).at(0);
  EXPECT_EQ(normalised.channelCount, 6);
  EXPECT_EQ(normalised.deviceGain, 1.0f);
  EXPECT_EQ(normalised.channelGains[0], 2.0f);
  EXPECT_EQ(normalised.channelGains[1], 1.0f);

  store::publish(name.c_str(), {}, posix);
  EXPECT_EQ(object.u32(16), 0u);
  for (std::size_t i = 0; i < 16; ++i) EXPECT_EQ(object.u32(slot(i)), 0u) << i;
  EXPECT_TRUE(store::read(name.c_str(), posix).empty());
}

TEST(ControlBlock, HostileContentsAreBoundedOrRejected) {
  const RuntimeDeviceControls a = sampleControls(2), b = sampleControls(3);
  struct Row {
    const char* what;
    std::function<void(ShmObject&)> damage;
    // Nothing: invalidState.
    std::optional<std::function<void(std::vector<RuntimeDeviceControls>&)>> expected;
  };
  auto same = [](std::vector<RuntimeDeviceControls>&) {};
  const std::vector<Row> rows{
      {"odd sequence", [](ShmObject& o) { o.setU32(12, 7); }, std::nullopt},
      {"wrong magic", [](ShmObject& o) { o.bytes()[3] = 'X'; }, std::nullopt},
      {"version 3", [](ShmObject& o) { o.setU32(4, 3); }, std::nullopt},
      {"size field 4096", [](ShmObject& o) { o.setU32(8, 4096); }, std::nullopt},
      {"huge device count", [](ShmObject& o) { o.setU32(16, 0xFFFFFFFF); }, same},
      {"huge route count", [](ShmObject& o) { o.setU32(slot(0) + 16, 0xFFFFFFFF); }, same},
      {"slot in use bit clear", [](ShmObject& o) { o.setU32(slot(0), 2); },
       [](std::vector<RuntimeDeviceControls>& r) { r.erase(r.begin()); }},
      {"channel count far out of range", [](ShmObject& o) { o.setU32(slot(1) + 4, 1001); },
       [](std::vector<RuntimeDeviceControls>& r) { r[1].channelCount = 64; }},
      {"gains that are not numbers",
       [](ShmObject& o) {
         o.setF32(slot(0) + 8, std::nanf(""));
         o.setF32(slot(0) + 320, -INFINITY);
       },
       [](std::vector<RuntimeDeviceControls>& r) {
         r[0].deviceGain = 1.0f;
         r[0].channelGains[0] = 1.0f;
       }},
      {"text without a terminator",
       [](ShmObject& o) { std::memset(o.bytes() + slot(0) + 32, 'x', 128); },
       [](std::vector<RuntimeDeviceControls>& r) { r[0].uid = std::string(128, 'x'); }},
      {"text that is not UTF-8",
       [](ShmObject& o) { std::memcpy(o.bytes() + slot(1) + 160, "a\xFF\xC3z\0", 5); },
       [](std::vector<RuntimeDeviceControls>& r) { r[1].name = "a\uFFFD\uFFFDz"; }},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    std::string name = uniqueShmName("hostile");
    store::publish(name.c_str(), {a, b}, posix);
    ShmObject object(name);
    row.damage(object);
    bool invalid = false;
    auto records = readOrInvalid(name, invalid);
    if (!row.expected) {
      EXPECT_TRUE(invalid);
      continue;
    }
    std::vector<RuntimeDeviceControls> expected{a, b};
    (*row.expected)(expected);
    EXPECT_FALSE(invalid);
    EXPECT_EQ(records, expected);
  }
}

TEST(ControlBlock, ObjectsOfTheWrongSize) {
  {
    SCOPED_TRACE("too small for the reader");
    ShmObject small(uniqueShmName("small"), 4096);
    bool invalid = false;
    readOrInvalid(small.name(), invalid);
    EXPECT_TRUE(invalid);
  }
  {
    SCOPED_TRACE("empty object is sized by the writer");
    ShmObject empty(uniqueShmName("empty"), 0);
    store::publish(empty.name().c_str(), {sampleControls(1)}, posix);
    EXPECT_EQ(store::read(empty.name().c_str(), posix), std::vector{sampleControls(1)});
    EXPECT_EQ(ShmObject(empty.name()).size(), 65536u);
  }
  {
    SCOPED_TRACE("larger object is left at its size");
    ShmObject large(uniqueShmName("large"), 100000);
    store::publish(large.name().c_str(), {}, posix);
    EXPECT_EQ(ShmObject(large.name()).size(), 100000u);
  }
  {
    SCOPED_TRACE("missing object");
    std::string name = uniqueShmName("missing");
    try {
      store::read(name.c_str(), posix);
      ADD_FAILURE() << "read a missing object";
    } catch (const RuntimeControlStoreError& error) {
      EXPECT_EQ(error, RuntimeControlStoreError::openFailed(ENOENT));
    }
    EXPECT_FALSE(testing::shmExists(name)) << "the reader never creates the object";
  }
}

// Fails chosen calls; everything else reaches the real system.
class FaultySystem : public SharedMemorySystem {
 public:
  mutable std::vector<int> openErrors;      // consumed one per open; 0 means the real call
  mutable std::vector<int> truncateErrors;  // consumed one per truncate
  int statusError = 0;
  bool negativeSize = false;
  int mapError = 0;
  mutable int opens = 0, unlinks = 0, truncates = 0;
  mutable std::vector<mode_t> modes;

  int open(const char* name, int flags, mode_t mode) const override {
    ++opens;
    if (int error = next(openErrors)) return fail(error);
    return SharedMemorySystem::open(name, flags, mode);
  }
  int unlink(const char* name) const override {
    ++unlinks;
    return SharedMemorySystem::unlink(name);
  }
  int changeMode(int fd, mode_t mode) const override {
    modes.push_back(mode);
    return SharedMemorySystem::changeMode(fd, mode);
  }
  int truncate(int fd, off_t length) const override {
    ++truncates;
    if (int error = next(truncateErrors)) return fail(error);
    return SharedMemorySystem::truncate(fd, length);
  }
  int status(int fd, struct stat* info) const override {
    if (statusError != 0) return fail(statusError);
    int result = SharedMemorySystem::status(fd, info);
    if (negativeSize) info->st_size = -1;
    return result;
  }
  void* map(std::size_t length, int protection, int fd) const override {
    if (mapError != 0) {
      errno = mapError;
      return MAP_FAILED;
    }
    return SharedMemorySystem::map(length, protection, fd);
  }

 private:
  static int next(std::vector<int>& errors) {
    if (errors.empty()) return 0;
    int error = errors.front();
    errors.erase(errors.begin());
    return error;
  }
  static int fail(int error) {
    errno = error;
    return -1;
  }
};

TEST(ControlBlock, EverySystemCallFailureIsReportedAndClosesWhatWasOpened) {
  struct Row {
    const char* what;
    std::size_t existingSize;  // 0: no object before the publish
    std::function<void(FaultySystem&)> arrange;
    std::optional<RuntimeControlStoreError> error;
    int unlinks;
  };
  using E = RuntimeControlStoreError;
  const std::vector<Row> rows{
      {"unresizable object is recreated", 4096,
       [](FaultySystem& s) { s.truncateErrors = {EINVAL}; }, std::nullopt, 1},
      {"unresizable twice", 4096,
       [](FaultySystem& s) {
         s.truncateErrors = {EINVAL, EINVAL};
       },
       E::resizeFailed(EINVAL), 1},
      {"new object cannot be sized", 0, [](FaultySystem& s) { s.truncateErrors = {ENOSPC}; },
       E::resizeFailed(ENOSPC), 0},
      {"existing small object cannot be sized", 4096,
       [](FaultySystem& s) { s.truncateErrors = {EFBIG}; }, E::resizeFailed(EFBIG), 0},
      {"open refused", 65536, [](FaultySystem& s) { s.openErrors = {EACCES}; },
       E::openFailed(EACCES), 0},
      {"creation race lost", 0,
       [](FaultySystem& s) {
         s.openErrors = {ENOENT, EEXIST};
       },
       E::openFailed(EEXIST), 0},
      {"status fails", 65536, [](FaultySystem& s) { s.statusError = EIO; }, E::invalidState(), 0},
      {"negative size", 65536, [](FaultySystem& s) { s.negativeSize = true; }, E::invalidState(),
       0},
      {"map fails", 65536, [](FaultySystem& s) { s.mapError = ENOMEM; }, E::mapFailed(ENOMEM), 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    std::string name = uniqueShmName("faults");
    std::optional<ShmObject> existing;
    if (row.existingSize > 0) existing.emplace(name, row.existingSize);
    FaultySystem system;
    row.arrange(system);
    int descriptors = testing::openDescriptorCount();
    try {
      store::publish(name.c_str(), {sampleControls(1)}, system);
      EXPECT_FALSE(row.error) << "published";
      EXPECT_EQ(store::read(name.c_str(), posix), std::vector{sampleControls(1)});
    } catch (const RuntimeControlStoreError& error) {
      ASSERT_TRUE(row.error) << error.what();
      EXPECT_EQ(error, *row.error);
    }
    EXPECT_EQ(testing::openDescriptorCount(), descriptors);
    EXPECT_EQ(system.unlinks, row.unlinks);
    ::shm_unlink(name.c_str());
  }
}

TEST(ControlBlock, WriterResetsTheModeOfAnExistingObject) {
  ShmObject object(uniqueShmName("mode"), 65536);
  FaultySystem system;
  store::publish(object.name().c_str(), {}, system);
  EXPECT_THAT(system.modes, ElementsAre(mode_t{0666}));
  EXPECT_EQ(system.truncates, 0) << "an object of the right size is not resized";
}

TEST(ControlBlock, ReaderFailuresAreReportedAndCloseWhatWasOpened) {
  std::string name = uniqueShmName("readfaults");
  store::publish(name.c_str(), {}, posix);
  using E = RuntimeControlStoreError;
  const std::vector<std::pair<std::function<void(FaultySystem&)>, E>> rows{
      {[](FaultySystem& s) { s.openErrors = {EACCES}; }, E::openFailed(EACCES)},
      {[](FaultySystem& s) { s.statusError = EIO; }, E::invalidState()},
      {[](FaultySystem& s) { s.mapError = ENODEV; }, E::mapFailed(ENODEV)},
  };
  for (const auto& [arrange, expected] : rows) {
    SCOPED_TRACE(expected.what());
    FaultySystem system;
    arrange(system);
    int descriptors = testing::openDescriptorCount();
    try {
      store::read(name.c_str(), system);
      ADD_FAILURE() << "read";
    } catch (const RuntimeControlStoreError& error) {
      EXPECT_EQ(error, expected);
    }
    EXPECT_EQ(testing::openDescriptorCount(), descriptors);
  }
  ::shm_unlink(name.c_str());
}

TEST(ControlBlock, ErrorDescriptions) {
  using E = RuntimeControlStoreError;
  EXPECT_STREQ(E::openFailed(13).what(), "Could not open Brisola runtime shared memory: errno 13.");
  EXPECT_STREQ(E::resizeFailed(22).what(),
               "Could not size Brisola runtime shared memory: errno 22.");
  EXPECT_STREQ(E::mapFailed(12).what(), "Could not map Brisola runtime shared memory: errno 12.");
  EXPECT_STREQ(E::invalidState().what(),
               "Brisola runtime shared memory did not contain a valid control state.");
  EXPECT_NE(E::openFailed(13), E::openFailed(2));
  EXPECT_NE(E::openFailed(13), E::mapFailed(13));
}

// A writer thread and a reader thread on one mapping: under ThreadSanitizer this shows the
// protocol is free of data races; everywhere it shows that no torn copy is accepted.
TEST(ControlBlock, ConcurrentWriterAndReaderThreadsNeverTear) {
  void* address = ::mmap(nullptr, 65536, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(address, MAP_FAILED);
  MappedRegion region(address, 65536);
  std::vector<RuntimeDeviceControls> stateA, stateB;
  for (int i = 0; i < 16; ++i) stateA.push_back(sampleControls(i, 8));
  for (int i = 0; i < 9; ++i) stateB.push_back(sampleControls(100 + i, 20));
  store::writeBlock(region.data(), stateA);

  std::atomic<bool> stop{false};
  std::atomic<long> writes{0};
  std::thread writer([&] {
    while (!stop.load(std::memory_order_relaxed)) {
      store::writeBlock(region.data(), writes.fetch_add(1) % 2 == 0 ? stateB : stateA);
      std::this_thread::yield();
    }
  });
  long accepted = 0, rejected = 0;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(500);
  while (std::chrono::steady_clock::now() < deadline) {
    auto records = store::readBlock(region.data());
    if (!records) {
      ++rejected;
      continue;
    }
    ++accepted;
    if (*records != stateA && *records != stateB) {
      ADD_FAILURE() << "torn copy accepted with " << records->size() << " records";
      break;
    }
  }
  stop = true;
  writer.join();
  EXPECT_GT(accepted, 0);
  RecordProperty("accepted", static_cast<int>(accepted));
  RecordProperty("rejected", static_cast<int>(rejected));
}

double stressSeconds() {
  const char* text = std::getenv("BRISOLA_STRESS_SECONDS");
  double seconds = text != nullptr ? std::atof(text) : 0.0;
  return seconds > 0 ? seconds : 2.0;
}

// One process publishes two different states in turn as fast as it can; this one reads. A read
// that succeeds must equal one of the two states exactly.
TEST(ControlBlock, ReadersInAnotherProcessNeverAcceptATornUpdate) {
  // A private name: a writer elsewhere on the machine must not take part.
  std::string name = uniqueShmName("stress");
  std::vector<RuntimeDeviceControls> stateA, stateB;
  for (int i = 0; i < 16; ++i) stateA.push_back(sampleControls(i, 40));
  for (int i = 0; i < 9; ++i) stateB.push_back(sampleControls(200 + i, 128));
  store::publish(name.c_str(), stateA, posix);

  int stop[2], report[2];
  ASSERT_EQ(::pipe2(stop, O_CLOEXEC), 0);
  ASSERT_EQ(::pipe2(report, O_CLOEXEC), 0);
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::close(stop[1]);
    ::close(report[0]);
    ::fcntl(stop[0], F_SETFL, O_NONBLOCK);
    long published = 0;
    char byte;
    while (::read(stop[0], &byte, 1) < 0) {
      try {
        store::publish(name.c_str(), published % 2 == 0 ? stateB : stateA, posix);
      } catch (...) {
        ::_exit(2);
      }
      ++published;
    }
    ssize_t written = ::write(report[1], &published, sizeof published);
    ::_exit(written == sizeof published ? 0 : 3);
  }
  ::close(stop[0]);
  ::close(report[1]);

  long reads = 0, rejected = 0, seenA = 0, seenB = 0;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(stressSeconds());
  // At least a thousand reads however slow the machine (or sanitizer); then until the deadline.
  while (reads < 1000 || std::chrono::steady_clock::now() < deadline) {
    ++reads;
    try {
      auto records = store::read(name.c_str(), posix);
      if (records == stateA) {
        ++seenA;
      } else if (records == stateB) {
        ++seenB;
      } else {
        ADD_FAILURE() << "torn read accepted: " << records.size() << " records";
        break;
      }
    } catch (const RuntimeControlStoreError& error) {
      ASSERT_EQ(error, RuntimeControlStoreError::invalidState());
      ++rejected;
    }
  }

  ASSERT_EQ(::write(stop[1], "x", 1), 1);
  ::close(stop[1]);
  long published = 0;
  EXPECT_EQ(::read(report[0], &published, sizeof published),
            static_cast<ssize_t>(sizeof published));
  ::close(report[0]);
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "publisher status " << status;
  EXPECT_GT(published, 0);
  EXPECT_GT(seenA + seenB, 0);
  RecordProperty("reads", std::to_string(reads));
  RecordProperty("rejected", std::to_string(rejected));
  RecordProperty("seenA", std::to_string(seenA));
  RecordProperty("seenB", std::to_string(seenB));
  RecordProperty("published", std::to_string(published));
  ::shm_unlink(name.c_str());
  std::printf("reads %ld, rejected %ld, state A %ld, state B %ld; %ld publishes\n", reads, rejected,
              seenA, seenB, published);
}

}  // namespace
}  // namespace brisola
