// What the service shows of its life to readers elsewhere: meter readings and the heartbeat.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <bit>
#include <functional>
#include <limits>
#include <random>
#include <thread>

#include "brisola/model/config.hpp"
#include "brisola/platform/unique_fd.hpp"
#include "brisola/runtime/heartbeat.hpp"
#include "brisola/runtime/meter_store.hpp"
#include "runtime/meter_block.hpp"
#include "shm_test_support.hpp"
#include "support/temp_dir.hpp"

namespace brisola {
namespace {

using Reading = RuntimeMeterStore::Reading;
using testing::MeterImage;
using testing::ShmObject;

TEST(MeterStore, OwnerIdentifiersAndTheirFNV1aObjectNames) {
  std::string passThru(BrisolaCore::passThruDeviceUID);
  EXPECT_EQ(RuntimeMeterStore::sourceOwnerID(passThru), "kestrine.passThru.source");
  EXPECT_EQ(RuntimeMeterStore::outputOwnerID(passThru), "kestrine.device.output");
  EXPECT_EQ(RuntimeMeterStore::sourceOwnerID("abc"), "brisola.device.abc.source");
  EXPECT_EQ(RuntimeMeterStore::outputOwnerID("abc"), "brisola.device.abc.output");

  // Published FNV-1a test vectors; bytes, not characters.
  EXPECT_EQ(RuntimeMeterStore::objectName(""), "/brisolamcbf29ce484222325");
  EXPECT_EQ(RuntimeMeterStore::ownerHash("a"), 0xaf63dc4c8601ec8cULL);
  EXPECT_EQ(RuntimeMeterStore::ownerHash("foobar"), 0x85944171f73967e8ULL);
  EXPECT_NE(RuntimeMeterStore::ownerHash("\xC3\xA9"), RuntimeMeterStore::ownerHash("\xE9"));
  // The sixteen hexadecimal digits are padded with zeros.
  EXPECT_EQ(RuntimeMeterStore::objectName("owner-490"), "/brisolam0fffab00b0e31af4");
}

TEST(MeterStore, ReadingsOfBothLayoutVersionsAndNothingFromHostileObjects) {
  struct Row {
    const char* what;
    std::function<void(MeterImage&)> change;
    std::size_t objectSize;                    // 0: no object at all
    std::optional<std::size_t> expectedCount;  // nothing: no reading
  };
  auto count = [](std::uint32_t n) { return [n](MeterImage& m) { m.channelCount = n; }; };
  const std::vector<Row> rows{
      {"version 1 repeats levels as peaks", [](MeterImage& m) { m.version = 1; }, 4096, 2},
      {"version 2 has its own peaks", [](MeterImage&) {}, 4096, 2},
      {"channel count 100 gives 64 values", count(100), 4096, 64},
      {"channel count 0", count(0), 4096, 0},
      {"object larger than needed", count(3), 16384, 3},
      {"sequence odd forever", [](MeterImage& m) { m.sequence = 7; }, 4096, std::nullopt},
      {"wrong magic", [](MeterImage& m) { m.magic = 0x53545242; }, 4096, std::nullopt},
      {"version 3", [](MeterImage& m) { m.version = 3; }, 4096, std::nullopt},
      {"size field 8192", [](MeterImage& m) { m.size = 8192; }, 8192, std::nullopt},
      {"huge channel count in a truncated object", count(0xFFFFFFFF), 512, std::nullopt},
      {"missing object", [](MeterImage&) {}, 0, std::nullopt},
  };
  std::vector<float> levels, peaks;
  for (float k = 1; k <= 64; ++k) levels.push_back(0.01f * k), peaks.push_back(0.015f * k);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    std::string owner = testing::uniqueShmName("versions");
    MeterImage image{.channelCount = 2, .levels = levels, .peaks = peaks};
    row.change(image);
    std::optional<ShmObject> object;
    if (row.objectSize > 0) object.emplace(RuntimeMeterStore::objectName(owner), row.objectSize);
    if (object) image.writeTo(*object);
    std::optional<Reading> expected;
    if (const auto n = row.expectedCount) {
      const auto& expectedPeaks = image.version == 1 ? levels : peaks;
      expected = Reading{{levels.begin(), levels.begin() + *n},
                         {expectedPeaks.begin(), expectedPeaks.begin() + *n}};
    }
    int descriptors = testing::openDescriptorCount();
    EXPECT_EQ(RuntimeMeterStore::reading(owner), expected);
    EXPECT_EQ(RuntimeMeterStore::levels(owner),
              expected ? std::optional(expected->levels) : std::nullopt);
    EXPECT_EQ(testing::openDescriptorCount(), descriptors);
  }

  const std::string owner = testing::uniqueShmName("nonfinite");
  ShmObject object(RuntimeMeterStore::objectName(owner), 4096);
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  MeterImage{.channelCount = 3, .levels = {nan, inf, 0.5f}, .peaks = {-inf, 0.25f, nan}}.writeTo(
      object);
  EXPECT_EQ(RuntimeMeterStore::reading(owner), (Reading{{0, 0, 0.5}, {0, 0.25, 0}}));
}

// A producer in the manner of another process writes two readings in turn with the sequence
// protocol (atomic word stores into its mapping); the reader copies through its descriptor.
TEST(MeterStore, AReaderNeverAcceptsATornReading) {
  const std::string owner = testing::uniqueShmName("torn");
  ShmObject object(RuntimeMeterStore::objectName(owner), 4096);
  auto word = [&](std::size_t offset) {
    return std::atomic_ref<std::uint32_t>(
        *reinterpret_cast<std::uint32_t*>(object.bytes() + offset));
  };
  auto publish = [&](float value) {
    std::uint32_t sequence = word(12).load(std::memory_order_relaxed);
    word(12).store(sequence + 1, std::memory_order_release);
    for (std::size_t k = 0; k < 64; ++k) {
      word(20 + 4 * k).store(std::bit_cast<std::uint32_t>(value), std::memory_order_release);
      word(276 + 4 * k).store(std::bit_cast<std::uint32_t>(value * 2), std::memory_order_release);
    }
    word(12).store(sequence + 2, std::memory_order_release);
  };
  MeterImage{.channelCount = 64}.writeTo(object);
  publish(0.25f);
  testing::expectNoTornReads([&](long n) { publish(n % 2 == 0 ? 0.75f : 0.25f); },
                             [&] { return RuntimeMeterStore::reading(owner); },
                             Reading{std::vector<double>(64, 0.25), std::vector<double>(64, 0.5)},
                             Reading{std::vector<double>(64, 0.75), std::vector<double>(64, 1.5)});
}

// The publisher keeps its object open for its whole life; another user shrinks it at random
// while it publishes and a reader reads. Neither dies, and the next publish makes it whole.
TEST(MeterStore, ShrinkingTheObjectUnderPublisherAndReaderKillsNeither) {
  const std::string owner = testing::uniqueShmName("storm");
  MeterPublisher publisher(owner, 2);
  const std::vector<float> levels{0.5f, 0.25f};
  std::atomic<bool> stop{false};
  std::thread storm([&] {
    std::minstd_rand random(5);
    UniqueFd fd(::shm_open(RuntimeMeterStore::objectName(owner).c_str(), O_RDWR | O_CLOEXEC, 0));
    while (!stop) static_cast<void>(::ftruncate(fd.get(), static_cast<off_t>(random() % 4097)));
  });
  for (int n = 0; n < 20000; ++n) {
    EXPECT_TRUE(publisher.publish(levels, levels));
    static_cast<void>(RuntimeMeterStore::reading(owner));
  }
  stop = true;
  storm.join();
  ASSERT_TRUE(publisher.publish(levels, levels));
  EXPECT_EQ(RuntimeMeterStore::reading(owner), (Reading{{0.5, 0.25}, {0.5, 0.25}}));
}

TEST(MeterTap, ReadingsGoStaleWhenTheyStopChanging) {
  Reading a{{0.5}, {0.5}}, b{{0.25}, {0.75}};
  MeterTap tap;
  EXPECT_EQ(tap.reading("m", 0.0), std::nullopt);

  tap.update({{"m", a}, {"n", b}}, 10.0);
  EXPECT_EQ(tap.reading("m", 10.0), a);
  EXPECT_EQ(tap.reading("m", 10.299), a);
  EXPECT_EQ(tap.reading("m", 10.3), std::nullopt) << "0.3 s unchanged is stale";
  EXPECT_EQ(tap.reading("m", 9.0), a) << "a lookup before the change still sees it";

  // The same reading again keeps its old time.
  tap.update({{"m", a}, {"n", a}}, 10.5);
  EXPECT_EQ(tap.reading("m", 10.5), std::nullopt);
  EXPECT_EQ(tap.reading("n", 10.5), a);
  EXPECT_EQ(tap.reading("n", 10.79), a);
  EXPECT_EQ(tap.reading("n", 10.8), std::nullopt);

  // Owners missing from an update are forgotten, even when they come back with the old reading.
  tap.update({{"n", a}}, 11.0);
  EXPECT_EQ(tap.reading("m", 11.0), std::nullopt);
  tap.update({{"m", a}, {"n", a}}, 11.1);
  EXPECT_EQ(tap.reading("m", 11.1), a);
  EXPECT_EQ(tap.reading("n", 11.1), std::nullopt);
}

// Heartbeat.

namespace fs = std::filesystem;
using Clock = std::chrono::system_clock;
using namespace std::chrono_literals;

// Whole seconds, so any file system keeps the time exactly.
const Clock::time_point beatTime = Clock::time_point(1'700'000'000s);

struct FixedDirectories : FileManagerWrapper {
  std::vector<fs::path> directories;
  FixedDirectories(std::vector<fs::path> list)
      : FileManagerWrapper(FileManager::defaultManager()), directories(std::move(list)) {}
  std::vector<fs::path> applicationSupportDirectories() const override { return directories; }
};

// Fails every step, recording the calls.
struct BrokenFiles : FixedDirectories {
  BrokenFiles() : FixedDirectories({}) {}
  mutable std::vector<std::string> calls;
  bool fileExists(const fs::path&) const override { return calls.push_back("exists"), false; }
  void createDirectory(const fs::path& path, bool intermediates) const override {
    fail("directory " + path.filename().string() + (intermediates ? " with intermediates" : ""));
  }
  void createFile(const fs::path&) const override { fail("file"); }
  void setModificationDate(const fs::path&, Clock::time_point) const override { fail("date"); }
  std::optional<Clock::time_point> modificationDate(const fs::path&) const override {
    fail("read date");
  }
  [[noreturn]] void fail(std::string call) const {
    calls.push_back(std::move(call));
    throw fs::filesystem_error("refused", std::make_error_code(std::errc::permission_denied));
  }
};

TEST(ServiceHeartbeat, BeatCreatesDirectoryAndEmptyFileThenMovesOnlyTheDateAndNeverThrows) {
  EXPECT_EQ(BrisolaCore::serviceHeartbeatFileURL(FixedDirectories({"/a/support", "/b"})),
            fs::path("/a/support/Brisola/service-heartbeat"));
  EXPECT_EQ(BrisolaCore::serviceHeartbeatFileURL(FixedDirectories({})), std::nullopt);

  testing::TempDir temp;
  fs::path file = temp / "deep" / "Brisola" / "service-heartbeat";
  EXPECT_FALSE(ServiceHeartbeat::isFresh(file, beatTime));
  EXPECT_EQ(ServiceHeartbeat::lastBeat(file), std::nullopt);
  ServiceHeartbeat::beat(file, beatTime);
  EXPECT_EQ(testing::readFile(file), "");
  EXPECT_EQ(ServiceHeartbeat::lastBeat(file), beatTime);
  // Fresh for ten seconds, and when in the future.
  EXPECT_TRUE(ServiceHeartbeat::isFresh(file, beatTime + 10s));
  EXPECT_FALSE(ServiceHeartbeat::isFresh(file, beatTime + 10001ms));
  EXPECT_TRUE(ServiceHeartbeat::isFresh(file, beatTime - 1h));

  testing::writeFile(file, "kept");
  ServiceHeartbeat::beat(file, beatTime + 5s);
  EXPECT_EQ(testing::readFile(file), "kept");
  EXPECT_EQ(ServiceHeartbeat::lastBeat(file), beatTime + 5s);

  // Every step fails; the beat goes through all of them and never throws.
  BrokenFiles files;
  const fs::path nowhere = "/nowhere/Brisola/service-heartbeat";
  EXPECT_NO_THROW(ServiceHeartbeat::beat(nowhere, beatTime, files));
  EXPECT_FALSE(ServiceHeartbeat::isFresh(nowhere, beatTime, files));
  EXPECT_EQ(ServiceHeartbeat::lastBeat(nowhere, files), std::nullopt);
  EXPECT_THAT(files.calls, ::testing::ElementsAre("exists", "directory Brisola with intermediates",
                                                  "file", "date", "read date", "read date"));
}

}  // namespace
}  // namespace brisola
