// The control block on private objects: byte layout, hostile contents, the failure of every
// system call and torn updates. The fixed object name is exercised in the shm tests.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <map>
#include <tuple>

#include "runtime/control_block.hpp"
#include "shm_test_support.hpp"
#include "support/thrown.hpp"

namespace brisola {
namespace {

using ::testing::ElementsAre;
using testing::sampleControls;
using testing::ShmObject;
using testing::uniqueShmName;
using R = RuntimeChannelRoute;
namespace store = RuntimeControlStoreV3;

const SharedMemorySystem& posix = SharedMemorySystem::posix();

// The records, or nothing when the reader found no valid state.
std::optional<std::vector<RuntimeDeviceControls>> readOrInvalid(const std::string& name) {
  try {
    return store::read(name.c_str(), posix);
  } catch (const RuntimeControlStoreError& error) {
    EXPECT_EQ(error, RuntimeControlStoreError::invalidState());
  }
  return std::nullopt;
}

// Offsets below are written out as numbers on purpose: they pin the wire format independently
// of the library's own constants.
constexpr std::size_t slot(std::size_t i) {
  return 64 + 2048 * i;
}

// Over an object whose every byte was 0xAB: the fields, and nothing but the fields, change.
TEST(ControlBlock, LayoutByteByByteAndNothingOutsideTheFields) {
  ShmObject object(uniqueShmName("layout"), 65536, 0xAB);
  RuntimeDeviceControls first("app.brisola.device.1", std::string(200, 'n'), "mic.fill", 8, true,
                              0.5f, {0.25f, 1.75f}, false, true, 1.5f, {{1, 2}, {3, 4}, {0, 5}});
  RuntimeDeviceControls second("u2", "Two", "i", 2, false, 2.0f, {}, true, false, 0.0f, {});
  store::publish(object.name().c_str(), {first, second}, posix);

  struct stat info {};
  ASSERT_EQ(::stat(("/dev/shm" + object.name()).c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0666u) << "readable and writable by everyone";
  // Header: magic, version, size, sequence (continued from the odd 0xABABABAB), count,
  // reserved; then flags, channel count and route count of each slot, and the first routes.
  const std::size_t s0 = slot(0), s1 = slot(1);
  const std::vector<std::pair<std::size_t, std::uint32_t>> words{
      {0, 0x5354524B}, {4, 4},          {8, 65536},    {12, 0xABABABAE}, {16, 2},
      {20, 0},         {s0, 1 | 2 | 8}, {s0 + 4, 8},   {s0 + 16, 3},     {s0 + 576, 1},
      {s0 + 580, 2},   {s0 + 584, 3},   {s0 + 588, 4}, {s0 + 592, 0},    {s0 + 596, 5},
      {s1, 1 | 4},     {s1 + 4, 2},     {s1 + 16, 0},  {slot(2), 0},     {slot(15), 0}};
  for (auto [offset, value] : words) EXPECT_EQ(object.u32(offset), value) << "offset " << offset;
  const std::vector<std::pair<std::size_t, float>> reals{
      {s0 + 8, 0.5f}, {s0 + 12, 1.5f}, {s0 + 320, 0.25f}, {s0 + 324, 1.75f}, {s1 + 8, 2.0f}};
  for (auto [offset, value] : reals) EXPECT_EQ(object.f32(offset), value) << "offset " << offset;
  EXPECT_EQ(object.text(s0 + 32, 128), "app.brisola.device.1" + std::string(108, '\0'));
  EXPECT_EQ(object.text(s0 + 160, 128), std::string(127, 'n') + '\0');
  EXPECT_EQ(object.text(s0 + 288, 32), "mic.fill" + std::string(24, '\0'));
  for (std::size_t k = 2; k < 64; ++k) ASSERT_EQ(object.f32(s0 + 320 + 4 * k), 1.0f) << k;
  for (std::size_t b = s0 + 600; b < s0 + 1600; b += 4) ASSERT_EQ(object.u32(b), 0u) << b;
  auto untouched = [&](std::size_t from, std::size_t to) {
    for (std::size_t b = from; b < to; ++b) {
      if (object.bytes()[b] != 0xAB) return ::testing::AssertionFailure() << "byte " << b;
    }
    return ::testing::AssertionSuccess();
  };
  EXPECT_TRUE(untouched(24, 64));
  for (std::size_t i = 0; i < 2; ++i) {
    EXPECT_TRUE(untouched(slot(i) + 20, slot(i) + 32));
    EXPECT_TRUE(untouched(slot(i) + 1600, slot(i) + 2048));
  }
  EXPECT_TRUE(untouched(slot(2) + 4, slot(3)));
  EXPECT_TRUE(untouched(slot(15) + 4, 65536));

  store::publish(object.name().c_str(), {second}, posix);
  EXPECT_EQ(object.u32(16), 1u);
  EXPECT_EQ(object.u32(s1), 0u) << "a slot no longer in use has flags 0";
  EXPECT_EQ(object.u32(s1 + 4), 2u) << "its other bytes stay as they were";
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

// Where a character is cut is the Unicode tests' business; here, the field keeps one byte for
// its terminator and nothing is written outside it.
TEST(ControlBlock, TextFieldsAreCutToLeaveATerminatorAndStayInsideTheField) {
  for (const auto& [text, stored] :
       {std::pair(std::string(128, 'a'), std::string(127, 'a')),
        std::pair(std::string(125, 'a') + "e\xCC\x81", std::string(125, 'a'))}) {
    std::vector<std::byte> buffer(8 + 128 + 8, std::byte{0xFF});
    store::writeString(text, buffer.data(), 8, 128);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer.data()) + 8, 128),
              stored + std::string(128 - stored.size(), '\0'));
    EXPECT_EQ(buffer[7], std::byte{0xFF});
    EXPECT_EQ(buffer[136], std::byte{0xFF});
  }
}

TEST(ControlBlock, WhatIsWrittenIsReadBackBroughtIntoRange) {
  std::string name = uniqueShmName("roundtrip");
  std::vector<RuntimeDeviceControls> records;
  for (int i = 0; i < 17; ++i) records.push_back(sampleControls(i, i == 4 ? 130 : 3));
  store::publish(name.c_str(), records, posix);
  ShmObject object(name);
  EXPECT_EQ(object.u32(slot(4) + 16), 128u);
  records.resize(16);
  EXPECT_EQ(store::read(name.c_str(), posix), records);

  // Fields set around the constructor; routes that a u32 cannot hold are stored as 0 and left
  // out by readers.
  RuntimeDeviceControls raw = sampleControls(1);
  raw.channelCount = 7;
  raw.deviceGain = std::nanf("");
  raw.channelGains = {5.0f};
  raw.routes = {{1, 2}, {0, 1}, {-3, 2}, {2, -1}, {4294967296, 1}, {4294967295, 1}, {3, 4}};
  store::publish(name.c_str(), {raw}, posix);
  std::vector<std::uint32_t> stored;
  for (std::size_t b = slot(0) + 576; b < slot(0) + 632; b += 4) stored.push_back(object.u32(b));
  EXPECT_THAT(stored, ElementsAre(1, 2, 0, 1, 0, 2, 2, 0, 0, 1, 4294967295u, 1, 3, 4));
  const auto read = store::read(name.c_str(), posix).at(0);
  EXPECT_EQ(
      std::tuple(read.channelCount, read.deviceGain, read.channelGains[0], read.channelGains[1]),
      std::tuple(6, 1.0f, 2.0f, 1.0f));
  EXPECT_THAT(read.routes, ElementsAre(R{1, 2}, R{4294967295, 1}, R{3, 4}));

  store::publish(name.c_str(), {}, posix);
  EXPECT_EQ(object.u32(16), 0u);
  EXPECT_TRUE(store::read(name.c_str(), posix).empty());
}

TEST(ControlBlock, HostileContentsAreBoundedOrRejected) {
  const RuntimeDeviceControls a = sampleControls(2), b = sampleControls(3);
  using Records = std::vector<RuntimeDeviceControls>;
  struct Row {
    const char* what;
    std::function<void(ShmObject&)> damage;
    std::optional<std::function<void(Records&)>> expected;  // nothing: invalidState
  };
  auto same = [](Records&) {};
  const std::vector<Row> rows{
      {"odd sequence", [](ShmObject& o) { o.setU32(12, 7); }, std::nullopt},
      {"wrong magic", [](ShmObject& o) { o.bytes()[3] = 'X'; }, std::nullopt},
      {"size field 4096", [](ShmObject& o) { o.setU32(8, 4096); }, std::nullopt},
      {"huge device count", [](ShmObject& o) { o.setU32(16, 0xFFFFFFFF); }, same},
      {"huge route count", [](ShmObject& o) { o.setU32(slot(0) + 16, 0xFFFFFFFF); }, same},
      {"slot in use bit clear", [](ShmObject& o) { o.setU32(slot(0), 2); },
       [](Records& r) { r.erase(r.begin()); }},
      {"gains that are not numbers",
       [](ShmObject& o) {
         o.setF32(slot(0) + 8, std::nanf(""));
         o.setF32(slot(0) + 320, -INFINITY);
       },
       [](Records& r) { r[0].deviceGain = r[0].channelGains[0] = 1.0f; }},
      {"text without a terminator",
       [](ShmObject& o) { std::memset(o.bytes() + slot(0) + 32, 'x', 128); },
       [](Records& r) { r[0].uid = std::string(128, 'x'); }},
      {"text that is not UTF-8",
       [](ShmObject& o) { std::memcpy(o.bytes() + slot(1) + 160, "a\xFF\xC3z\0", 5); },
       [](Records& r) { r[1].name = "a\uFFFD\uFFFDz"; }},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    std::string name = uniqueShmName("hostile");
    store::publish(name.c_str(), {a, b}, posix);
    ShmObject object(name);
    row.damage(object);
    auto records = readOrInvalid(name);
    ASSERT_EQ(records.has_value(), row.expected.has_value());
    if (!records) continue;
    Records expected{a, b};
    (*row.expected)(expected);
    EXPECT_EQ(*records, expected);
  }
}

TEST(ControlBlock, ObjectsOfTheWrongSize) {
  ShmObject small(uniqueShmName("small"), 4096);
  EXPECT_EQ(readOrInvalid(small.name()), std::nullopt) << "too small for the reader";

  ShmObject empty(uniqueShmName("empty"), 0);
  store::publish(empty.name().c_str(), {sampleControls(1)}, posix);
  EXPECT_EQ(store::read(empty.name().c_str(), posix), std::vector{sampleControls(1)});
  EXPECT_EQ(ShmObject(empty.name()).size(), 65536u) << "an empty object is sized by the writer";

  ShmObject large(uniqueShmName("large"), 100000);
  store::publish(large.name().c_str(), {}, posix);
  EXPECT_EQ(ShmObject(large.name()).size(), 100000u) << "a larger object keeps its size";

  std::string missing = uniqueShmName("missing");
  EXPECT_EQ(testing::thrown<RuntimeControlStoreError>([&] { store::read(missing.c_str(), posix); }),
            RuntimeControlStoreError::openFailed(ENOENT));
  EXPECT_FALSE(testing::shmExists(missing)) << "the reader never creates the object";
}

// Fails chosen calls, one errno per call in the order given (0 lets the call through);
// everything else reaches the real system.
constexpr int kNegativeSize = -1;  // as a status "error": the call succeeds with size −1
class FaultySystem : public SharedMemorySystem {
 public:
  mutable std::map<std::string, std::vector<int>> errors;
  mutable int unlinks = 0, truncates = 0;
  mutable std::vector<mode_t> modes;

  int open(const char* name, int flags, mode_t mode) const override {
    if (int error = next("open")) return fail(error);
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
    if (int error = next("truncate")) return fail(error);
    return SharedMemorySystem::truncate(fd, length);
  }
  int status(int fd, struct stat* info) const override {
    int error = next("status");
    if (error > 0) return fail(error);
    int result = SharedMemorySystem::status(fd, info);
    if (error == kNegativeSize) info->st_size = -1;
    return result;
  }
  int reserve(int fd, off_t length) const override {
    if (int error = next("reserve")) return error;
    return SharedMemorySystem::reserve(fd, length);
  }
  ssize_t readAt(int fd, void* buffer, std::size_t count, off_t offset) const override {
    if (int error = next("read")) return fail(error);
    return SharedMemorySystem::readAt(fd, buffer, count, offset);
  }
  ssize_t writeAt(int fd, const void* buffer, std::size_t count, off_t offset) const override {
    if (int error = next("write")) return fail(error);
    return SharedMemorySystem::writeAt(fd, buffer, count, offset);
  }

 private:
  int next(const std::string& call) const {
    auto& queue = errors[call];
    if (queue.empty()) return 0;
    int error = queue.front();
    queue.erase(queue.begin());
    return error;
  }
  static int fail(int error) {
    errno = error;
    return -1;
  }
};

TEST(ControlBlock, EverySystemCallFailureIsReportedAndClosesWhatWasOpened) {
  using E = RuntimeControlStoreError;
  struct Row {
    const char* what;
    std::size_t existingSize;  // 0: no object before the publish; reads find a published one
    std::map<std::string, std::vector<int>> errors;
    std::optional<E> error;
    int unlinks;
    bool reading = false;
  };
  const std::vector<Row> rows{
      {"unresizable object is recreated", 4096, {{"truncate", {EINVAL}}}, std::nullopt, 1},
      {"unresizable twice", 4096, {{"truncate", {EINVAL, EINVAL}}}, E::resizeFailed(EINVAL), 1},
      {"new object cannot be sized", 0, {{"truncate", {ENOSPC}}}, E::resizeFailed(ENOSPC), 0},
      {"existing small object cannot be sized",
       4096,
       {{"truncate", {EFBIG}}},
       E::resizeFailed(EFBIG),
       0},
      {"open refused", 65536, {{"open", {EACCES}}}, E::openFailed(EACCES), 0},
      {"creation race lost", 0, {{"open", {ENOENT, EEXIST}}}, E::openFailed(EEXIST), 0},
      {"status fails", 65536, {{"status", {EIO}}}, E::invalidState(), 0},
      {"negative size", 65536, {{"status", {kNegativeSize}}}, E::invalidState(), 0},
      {"full /dev/shm", 65536, {{"reserve", {ENOSPC}}}, E::writeFailed(ENOSPC), 0},
      {"write fails part-way", 65536, {{"write", {0, 0, 0, EFBIG}}}, E::writeFailed(EFBIG), 0},
      {"reader: open refused", 0, {{"open", {EACCES}}}, E::openFailed(EACCES), 0, true},
      {"reader: status fails", 0, {{"status", {EIO}}}, E::invalidState(), 0, true},
      {"reader: every copy fails", 0, {{"read", std::vector(8, EIO)}}, E::invalidState(), 0, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    std::string name = uniqueShmName("faults");
    std::optional<ShmObject> existing;
    if (row.existingSize > 0) existing.emplace(name, row.existingSize);
    // A complete earlier state, which only a write that failed part-way may spoil.
    const bool earlierState = row.reading || row.existingSize == 65536;
    if (earlierState) store::publish(name.c_str(), {sampleControls(2)}, posix);
    FaultySystem system;
    system.errors = row.errors;
    int descriptors = testing::openDescriptorCount();
    try {
      if (row.reading) {
        store::read(name.c_str(), system);
      } else {
        store::publish(name.c_str(), {sampleControls(1)}, system);
        EXPECT_EQ(store::read(name.c_str(), posix), std::vector{sampleControls(1)});
      }
      EXPECT_FALSE(row.error) << "succeeded";
    } catch (const RuntimeControlStoreError& error) {
      ASSERT_TRUE(row.error) << error.what();
      EXPECT_EQ(error, *row.error);
      if (earlierState && !row.reading) {
        EXPECT_EQ(readOrInvalid(name), row.errors.contains("write")
                                           ? std::nullopt
                                           : std::optional(std::vector{sampleControls(2)}));
      }
    }
    EXPECT_EQ(testing::openDescriptorCount(), descriptors);
    EXPECT_EQ(system.unlinks, row.unlinks);
    ::shm_unlink(name.c_str());
  }

  // An existing object of the right size gets its mode reset and is not resized.
  ShmObject object(uniqueShmName("mode"), 65536);
  FaultySystem system;
  store::publish(object.name().c_str(), {}, system);
  EXPECT_THAT(system.modes, ElementsAre(mode_t{0666}));
  EXPECT_EQ(system.truncates, 0);
}

// The service's writer rewrites the block only when the controls moved or the object no longer
// holds what it wrote; every rewrite is a complete update that readers accept.
TEST(ControlBlock, TheKeptWriterRewritesOnlyChangedControlsOrADisturbedObject) {
  const std::string name = uniqueShmName("kept");
  const std::vector<RuntimeDeviceControls> first{sampleControls(1)}, second{sampleControls(2)};
  FaultySystem system;
  RuntimeControlWriter writer(name, system);
  // Looks and pokes through descriptors of its own; nothing here keeps the object alive.
  auto word = [&](off_t offset) -> std::optional<std::uint32_t> {
    UniqueFd fd(::shm_open(name.c_str(), O_RDONLY | O_CLOEXEC, 0));
    std::uint32_t value = 0;
    if (!fd || ::pread(fd.get(), &value, 4, offset) != 4) return std::nullopt;
    return value;
  };
  auto poke = [&](off_t offset, std::uint32_t value) {
    UniqueFd fd(::shm_open(name.c_str(), O_RDWR | O_CLOEXEC, 0));
    ASSERT_EQ(::pwrite(fd.get(), &value, 4, offset), 4);
  };
  struct Step {
    const char* what;
    std::function<void()> disturb;
    const std::vector<RuntimeDeviceControls>& controls;
    bool writes;
  };
  const std::vector<Step> steps{
      {"first publish", [] {}, first, true},
      {"nothing changed", [] {}, first, false},
      {"controls changed", [] {}, second, true},
      {"a byte between the fields overwritten", [&] { poke(slot(3) + 2000, 0x5A5A5A5A); }, second,
       true},
      {"a field overwritten", [&] { poke(slot(0) + 8, 7); }, second, true},
      {"shrunk",
       [&] {
         UniqueFd fd(::shm_open(name.c_str(), O_RDWR | O_CLOEXEC, 0));
         ASSERT_EQ(::ftruncate(fd.get(), 100), 0);
       },
       second, true},
      {"removed", [&] { ::shm_unlink(name.c_str()); }, second, true},
      {"replaced by another object",
       [&] {
         ::shm_unlink(name.c_str());
         store::publish(name.c_str(), second, posix);
       },
       second, true},
      {"the write fails", [&] { system.errors["write"] = {EIO}; }, first, true},
      {"after a failed write", [] {}, first, true},
      {"and then settled", [] {}, first, false},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.what);
    step.disturb();
    const auto before = word(12);
    bool wrote = true;
    try {
      wrote = writer.publish(step.controls);
    } catch (const RuntimeControlStoreError& error) {
      EXPECT_EQ(error, RuntimeControlStoreError::writeFailed(EIO));
      continue;
    }
    EXPECT_EQ(wrote, step.writes);
    EXPECT_EQ(store::read(name.c_str(), posix), step.controls);
    if (!step.writes) {
      EXPECT_EQ(word(12), before) << "an unchanged block was written";
    }
  }
  ::shm_unlink(name.c_str());
}

// Two full states that differ in every slot, over memory (under ThreadSanitizer this shows the
// protocol free of data races) and over a real object through its descriptor.
TEST(ControlBlock, AReaderNeverAcceptsATornUpdate) {
  std::vector<RuntimeDeviceControls> a, b;
  for (int i = 0; i < 16; ++i) a.push_back(sampleControls(i, 8));
  for (int i = 0; i < 9; ++i) b.push_back(sampleControls(200 + i, 20));
  std::vector<std::uint32_t> memory(65536 / 4);
  MemoryBytes inMemory(std::as_writable_bytes(std::span(memory)));
  ShmObject object(uniqueShmName("torn"), 65536);
  UniqueFd fd(::shm_open(object.name().c_str(), O_RDWR | O_CLOEXEC, 0));
  DescriptorBytes onDescriptor(fd.get(), posix);
  for (SharedBytes* block : std::initializer_list<SharedBytes*>{&inMemory, &onDescriptor}) {
    store::writeBlock(*block, a);
    testing::expectNoTornReads([&](long n) { store::writeBlock(*block, n % 2 ? a : b); },
                               [&] { return store::readBlock(*block); }, a, b);
  }
}

}  // namespace
}  // namespace brisola
