// Controls from the document to the control block: derived, brought into range, laid out byte by
// byte on private objects, guarded against hostile contents, failing system calls and torn
// updates. The fixed object name is exercised in the shm tests.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <map>
#include <tuple>

#include "brisola/runtime/route_map.hpp"
#include "runtime/control_block.hpp"
#include "shm_test_support.hpp"
#include "support/documents.hpp"
#include "support/thrown.hpp"

namespace brisola {
namespace {

using ::testing::ElementsAre;
using R = RuntimeChannelRoute;
using testing::monitorEnd;
using testing::outputEnd;
using testing::sourceEnd;
using testing::wire;

constexpr float nan = std::numeric_limits<float>::quiet_NaN();
constexpr float inf = std::numeric_limits<float>::infinity();

RuntimeDeviceControls make(std::int64_t channelCount, float deviceGain = 1.0f,
                           std::vector<float> gains = {}, std::vector<R> routes = {}) {
  return RuntimeDeviceControls("uid", "name", "icon", channelCount, true, deviceGain,
                               std::move(gains), true, false, deviceGain, std::move(routes));
}

TEST(RuntimeDeviceControls, ChannelCountsMadeEvenAndClampedGainsSanitisedListsCutOrPadded) {
  constexpr auto min = std::numeric_limits<std::int64_t>::min();
  constexpr auto max = std::numeric_limits<std::int64_t>::max();
  const std::vector<std::pair<std::int64_t, std::int64_t>> counts{
      {5, 4},   {-5, 2},  {1, 2},     {0, 2},   {63, 62},
      {64, 64}, {65, 64}, {1000, 64}, {min, 2}, {max, 64}};
  for (auto [given, expected] : counts) EXPECT_EQ(make(given).channelCount, expected) << given;
  const std::vector<std::pair<float, float>> rows{{nan, 1.0f},   {-inf, 1.0f}, {-1.0f, 0.0f},
                                                  {-0.0f, 0.0f}, {2.0f, 2.0f}, {2.5f, 2.0f}};
  for (auto [given, expected] : rows) {
    SCOPED_TRACE(given);
    auto controls = make(2, given, {given});
    EXPECT_EQ(std::tuple(controls.deviceGain, controls.sourceGain, controls.channelGains[0]),
              std::tuple(expected, expected, expected));
    EXPECT_FALSE(std::signbit(controls.deviceGain)) << "a negative zero survived";
  }
  std::vector<float> padded(64, 1.0f);
  padded[0] = 0.5f, padded[1] = 2.0f;
  EXPECT_EQ(make(2, 1.0f, {0.5f, 3.0f}).channelGains, padded);
  std::vector<float> long_(70, 0.25f);
  long_[64] = 0.75f;
  EXPECT_EQ(make(2, 1.0f, long_).channelGains, std::vector<float>(64, 0.25f));

  std::vector<R> routes;
  for (int j = 0; j < 130; ++j) routes.push_back({j + 1, -j});
  // The first 128, with their values untouched, negative ones included.
  EXPECT_EQ(make(2, 1.0f, {}, routes).routes, std::vector<R>(routes.begin(), routes.begin() + 128));
}

// Derivation from the document.

DeviceConfig plainDevice(std::string id) {
  return DeviceConfig{.id = id, .name = "Device " + id, .enabled = true, .channelCount = 2};
}

TEST(RuntimeControls, OneRecordPerDeviceAtMost16InDocumentOrderDisabledIncluded) {
  ConfigSnapshot snapshot;
  for (int i = 0; i < 20; ++i) snapshot.devices.push_back(plainDevice("d" + std::to_string(i)));
  snapshot.devices[3].enabled = false;
  auto controls = RuntimeDeviceControls::forDocument(snapshot);
  ASSERT_EQ(controls.size(), 16u);
  for (std::size_t i = 0; i < 16; ++i)
    EXPECT_EQ(controls[i], RuntimeDeviceControls::of(snapshot.devices[i]));
  EXPECT_EQ(std::tuple(controls[3].deviceEnabled, controls[4].deviceEnabled),
            std::tuple(false, true));
  EXPECT_TRUE(RuntimeDeviceControls::forDocument(ConfigSnapshot::empty()).empty());
}

TEST(RuntimeControls, PassThruSourceDecidesSourceFieldsAndRoutesWithinTheConfiguredChannels) {
  // No pass-thru source at all: defaults and the stereo map.
  const auto none =
      RuntimeDeviceControls::of({.id = "none",
                                 .sources = {testing::hardwareSource("mic", "in")},
                                 .wires = {wire("w", sourceEnd("mic", 1), outputEnd("none", 1))}});
  EXPECT_EQ(std::tuple(none.sourceEnabled, none.muted, none.sourceGain),
            std::tuple(true, false, 1.0f));
  EXPECT_THAT(none.routes, ElementsAre(R{1, 1}, R{2, 2}));

  // A pass-thru source without wires into the output: no routes, not the stereo map.
  EXPECT_TRUE(RuntimeDeviceControls::of(
                  {.id = "unwired", .channelCount = 2, .sources = {testing::passThruSource("pt")}})
                  .routes.empty());

  // Two pass-thru sources: the first in source order counts.
  const auto two = RuntimeDeviceControls::of(
      {.id = "two",
       .channelCount = 2,
       .sources = {testing::hardwareSource("mic", "in"),
                   {.id = "first", .enabled = false, .muted = true, .gain = 0.5},
                   testing::passThruSource("second")},
       .wires = {wire("a", sourceEnd("second", 1), outputEnd("two", 1)),
                 wire("b", sourceEnd("first", 2), outputEnd("two", 1))}});
  EXPECT_EQ(std::tuple(two.sourceEnabled, two.muted, two.sourceGain),
            std::tuple(false, true, 0.5f));
  EXPECT_THAT(two.routes, ElementsAre(R{2, 1}));

  // Routes are bounded by the configured channel count, not the even one published.
  const auto odd =
      RuntimeDeviceControls::of({.id = "odd",
                                 .channelCount = 3,
                                 .sources = {testing::passThruSource("pt")},
                                 .wires = {wire("w3", sourceEnd("pt", 1), outputEnd("odd", 3)),
                                           wire("w4", sourceEnd("pt", 1), outputEnd("odd", 4))}});
  EXPECT_EQ(odd.channelCount, 2);
  EXPECT_THAT(odd.routes, ElementsAre(R{1, 3}));
}

TEST(RuntimeControls, VolumeAndChannelGainsAreNarrowedThenSanitised) {
  // Beyond the float range is infinite, hence unity; not clamped to 2 or 0.
  const std::vector<std::pair<double, float>> rows{
      {3.0, 2.0f}, {1e300, 1.0f}, {-1e300, 1.0f}, {3.5e38, 1.0f}, {0.1, 0.1f}};
  for (auto [volume, expected] : rows) {
    SCOPED_TRACE(volume);
    const auto controls = RuntimeDeviceControls::of({.id = "d",
                                                     .volume = volume,
                                                     .channelGains = std::vector{volume},
                                                     .sources = {{.id = "pt", .gain = volume}}});
    EXPECT_EQ(std::tuple(controls.deviceGain, controls.channelGains[0], controls.sourceGain),
              std::tuple(expected, expected, expected));
  }
  EXPECT_EQ(RuntimeDeviceControls::of(plainDevice("d")).channelGains, std::vector<float>(64, 1.0f));
}

// Route maps.

// One wire in a device "dev" with two channels of output; source routes of "src" may use
// output channels 1...2, monitor routes of "mon" device channels 1...3 and monitor channels 1...2.
TEST(RouteMap, RoutesKeepOnlyWiresBetweenTheirOwnEndsWithinTheSupportedChannels) {
  struct Row {
    const char* what;
    WireEndpoint from, to;
    bool kept;
  };
  const std::vector<Row> rows{
      {"output channel at the supported count", sourceEnd("src", 2), outputEnd("dev", 2), true},
      {"source channel above anything the source has", sourceEnd("src", 9), outputEnd("dev", 1),
       true},
      {"output channel above the supported count", sourceEnd("src", 1), outputEnd("dev", 3), false},
      {"output channel 0", sourceEnd("src", 1), outputEnd("dev", 0), false},
      {"source channel 0", sourceEnd("src", 0), outputEnd("dev", 1), false},
      {"another source", sourceEnd("other", 1), outputEnd("dev", 1), false},
      {"another device's output", sourceEnd("src", 1), outputEnd("dev2", 1), false},
      {"owner differs only in case", sourceEnd("SRC", 1), outputEnd("dev", 1), false},
      {"source into a monitor", sourceEnd("src", 1), monitorEnd("mon", 1), false},
      {"device channel at the input count", outputEnd("dev", 3), monitorEnd("mon", 2), true},
      {"device channel above the input count", outputEnd("dev", 4), monitorEnd("mon", 1), false},
      {"monitor channel above the output count", outputEnd("dev", 1), monitorEnd("mon", 3), false},
      {"monitor channel 0", outputEnd("dev", 1), monitorEnd("mon", 0), false},
      {"another monitor", outputEnd("dev", 1), monitorEnd("mon2", 1), false},
      {"from another device's output", outputEnd("dev2", 1), monitorEnd("mon", 1), false},
      {"output into the output", outputEnd("dev", 1), outputEnd("dev", 1), false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    const DeviceConfig device{.id = "dev", .wires = {wire("w", row.from, row.to)}};
    // A wire belongs to one kind of route only: the other kind never keeps it.
    const bool source = row.from.kind == EndpointKind::source;
    const std::vector<R> wired{{row.from.channel, row.to.channel}}, none;
    EXPECT_EQ(RuntimeRouteMap::sourceRoutes("src", device, 2), row.kept && source ? wired : none);
    EXPECT_EQ(RuntimeRouteMap::monitorRoutes("mon", device, 3, 2),
              row.kept && !source ? wired : none);
  }
}

TEST(RouteMap, RoutesKeepWireOrderAndDuplicatesAndStopAt256) {
  DeviceConfig device = plainDevice("dev");
  std::vector<R> expected;
  for (int i = 0; i < 300; ++i) {
    // Output channels cycle 2, 1, 2, 1 ... so that any sorting would show.
    device.wires.push_back(
        wire("w" + std::to_string(i), sourceEnd("src", i + 1), outputEnd("dev", 2 - i % 2)));
    device.wires.push_back(
        wire("m" + std::to_string(i), outputEnd("dev", 2 - i % 2), monitorEnd("mon", 1)));
    if (i < 256) expected.push_back({i + 1, 2 - i % 2});
  }
  EXPECT_EQ(RuntimeRouteMap::sourceRoutes("src", device, 2), expected);
  auto monitors = RuntimeRouteMap::monitorRoutes("mon", device, 2, 2);
  ASSERT_EQ(monitors.size(), 256u);
  EXPECT_THAT(std::vector<R>(monitors.begin(), monitors.begin() + 3),
              ElementsAre(R{2, 1}, R{1, 1}, R{2, 1}));
}

// The control block.

using testing::sampleControls;
using testing::ShmObject;
using testing::uniqueShmName;
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
TEST(ControlBlock, LayoutByteByByteNothingOutsideTheFieldsAndTheSequenceMadeEven) {
  ShmObject object(uniqueShmName("layout"), 65536, 0xAB);
  RuntimeDeviceControls first("app.brisola.device.1", std::string(200, 'n'), "mic.fill", 8, true,
                              0.5f, {0.25f, 1.75f}, false, true, 1.5f, {{1, 2}, {3, 4}, {0, 5}});
  RuntimeDeviceControls second("u2", "Two", "i", 2, false, 2.0f, {}, true, false, 0.0f, {});
  store::publish(object.name().c_str(), {first, second}, posix);

  struct stat info {};
  ASSERT_EQ(::stat(("/dev/shm" + object.name()).c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0666u) << "created 0600, now readable and writable by everyone";
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
  // Gaps in the header and the two used slots, unused slots after their flags, the rest.
  std::vector<std::pair<std::size_t, std::size_t>> gaps{
      {24, 64},           {s0 + 20, s0 + 32},   {s0 + 1600, s1},
      {s1 + 20, s1 + 32}, {s1 + 1600, slot(2)}, {slot(16), 65536}};
  for (std::size_t i = 2; i < 16; ++i) gaps.push_back({slot(i) + 4, slot(i + 1)});
  for (auto [from, to] : gaps) {
    for (std::size_t b = from; b < to; ++b) ASSERT_EQ(object.bytes()[b], 0xAB) << "byte " << b;
  }

  store::publish(object.name().c_str(), {second}, posix);
  EXPECT_EQ(object.u32(16), 1u);
  EXPECT_EQ(object.u32(s1), 0u) << "a slot no longer in use has flags 0";
  EXPECT_EQ(object.u32(s1 + 4), 2u) << "its other bytes stay as they were";

  // The sequence continues from whatever is there, made even, and wraps.
  const std::vector<std::pair<std::uint32_t, std::uint32_t>> sequences{
      {0, 2}, {1, 4}, {2, 4}, {5, 8}, {0xFFFFFFFE, 0}, {0xFFFFFFFF, 2}};
  for (auto [before, after] : sequences) {
    object.setU32(12, before);
    store::write(object.name().c_str(), {}, posix);
    EXPECT_EQ(object.u32(12), after) << before;
  }

  // A text field keeps a byte for its terminator and never splits a character; nothing is
  // written outside it.
  std::vector<std::byte> buffer(8 + 128 + 8, std::byte{0xFF});
  store::writeString(std::string(125, 'a') + "e\xCC\x81", buffer.data(), 8, 128);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer.data()) + 8, 128),
            std::string(125, 'a') + std::string(3, '\0'));
  EXPECT_EQ(std::tuple(buffer[7], buffer[136]), std::tuple(std::byte{0xFF}, std::byte{0xFF}));
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

  // Fields set around the constructor; routes beyond a u32 are stored as 0, which readers skip.
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

  // An empty object is sized by the writer; a larger one keeps its size.
  for (auto [size, after] : {std::pair<std::size_t, std::size_t>{0, 65536}, {100000, 100000}}) {
    ShmObject object(uniqueShmName("sized"), size);
    store::publish(object.name().c_str(), {sampleControls(1)}, posix);
    EXPECT_EQ(store::read(object.name().c_str(), posix), std::vector{sampleControls(1)});
    EXPECT_EQ(ShmObject(object.name()).size(), after);
  }

  std::string missing = uniqueShmName("missing");
  EXPECT_EQ(testing::thrown<RuntimeControlStoreError>([&] { store::read(missing.c_str(), posix); }),
            RuntimeControlStoreError::openFailed(ENOENT));
  EXPECT_EQ(::shm_unlink(missing.c_str()), -1) << "the reader never creates the object";
}

// Fails chosen calls, one errno (left in errno) per call in the order given, 0 letting the call
// through; everything else reaches the real system.
constexpr int kNegativeSize = -1;  // as a status "error": the call succeeds with size −1
class FaultySystem : public SharedMemorySystem {
  using Real = SharedMemorySystem;

 public:
  mutable std::map<std::string, std::vector<int>> errors;
  mutable int unlinks = 0;

  int open(const char* name, int flags, mode_t mode) const override {
    return next("open") != 0 ? -1 : Real::open(name, flags, mode);
  }
  int unlink(const char* name) const override { return ++unlinks, Real::unlink(name); }
  int truncate(int fd, off_t length) const override {
    return next("truncate") != 0 ? -1 : Real::truncate(fd, length);
  }
  int status(int fd, struct stat* info) const override {
    const int error = next("status");
    const int result = error > 0 ? -1 : Real::status(fd, info);
    if (error == kNegativeSize) info->st_size = -1;
    return result;
  }
  // Returns its error rather than setting errno, as posix_fallocate does.
  int reserve(int fd, off_t length) const override {
    const int error = next("reserve");
    return error != 0 ? error : Real::reserve(fd, length);
  }
  ssize_t readAt(int fd, void* buffer, std::size_t count, off_t offset) const override {
    return next("read") != 0 ? -1 : Real::readAt(fd, buffer, count, offset);
  }
  ssize_t writeAt(int fd, const void* buffer, std::size_t count, off_t offset) const override {
    return next("write") != 0 ? -1 : Real::writeAt(fd, buffer, count, offset);
  }

 private:
  int next(const std::string& call) const {
    auto& queue = errors[call];
    if (queue.empty()) return 0;
    const int error = queue.front();
    queue.erase(queue.begin());
    if (error > 0) errno = error;
    return error;
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
      {"small object cannot be sized", 4096, {{"truncate", {EFBIG}}}, E::resizeFailed(EFBIG), 0},
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
}

// The service's writer rewrites the block only when the controls moved or the object no longer
// holds what it wrote; every rewrite is a complete update that readers accept.
TEST(ControlBlock, TheKeptWriterRewritesOnlyChangedControlsOrADisturbedObject) {
  const std::string name = uniqueShmName("kept");
  const std::vector<RuntimeDeviceControls> first{sampleControls(1)}, second{sampleControls(2)};
  FaultySystem system;
  RuntimeControlWriter writer(name, system);
  // Looks and pokes through descriptors of its own; nothing here keeps the object alive.
  auto fd = [&](int flags) { return UniqueFd(::shm_open(name.c_str(), flags | O_CLOEXEC, 0)); };
  auto sequence = [&] {
    std::uint32_t value = 0;
    return ::pread(fd(O_RDONLY).get(), &value, 4, 12) == 4 ? std::optional(value) : std::nullopt;
  };
  auto poke = [&](off_t offset, std::uint32_t value) {
    ASSERT_EQ(::pwrite(fd(O_RDWR).get(), &value, 4, offset), 4);
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
      {"shrunk", [&] { ASSERT_EQ(::ftruncate(fd(O_RDWR).get(), 100), 0); }, second, true},
      {"removed", [&] { ::shm_unlink(name.c_str()); }, second, true},
      {"replaced by another object",
       [&] { ::shm_unlink(name.c_str()), store::publish(name.c_str(), second, posix); }, second,
       true},
      {"after a failed write",
       [&] {
         system.errors["write"] = {EIO};
         EXPECT_EQ(testing::thrown<RuntimeControlStoreError>([&] { writer.publish(first); }),
                   RuntimeControlStoreError::writeFailed(EIO));
       },
       first, true},
      {"and then settled", [] {}, first, false},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.what);
    step.disturb();
    const auto before = sequence();
    EXPECT_EQ(writer.publish(step.controls), step.writes);
    EXPECT_EQ(store::read(name.c_str(), posix), step.controls);
    EXPECT_TRUE(step.writes || sequence() == before) << "an unchanged block was written";
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
