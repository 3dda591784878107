// brisolactl's views of the state shared at run time: the control block (under the service's
// fixed name, hence the resource lock), level meters and the heartbeat.

#include <gtest/gtest.h>
#include <signal.h>

#include "brisola/runtime/control_store.hpp"
#include "brisola/runtime/heartbeat.hpp"
#include "brisola/runtime/meter_store.hpp"
#include "runtime/shm_test_support.hpp"
#include "support/documents.hpp"
#include "tools/ctl_fixture.hpp"

namespace brisola::testing {
namespace {

using namespace std::chrono_literals;

class CtlSharedStateTest : public CtlTest {
 protected:
  void TearDown() override {
    ::shm_unlink(std::string(RuntimeControlStoreV3::sharedMemoryName).c_str());
  }
};

TEST_F(CtlSharedStateTest, ControlsAreTheLastPublishedRecords) {
  ::shm_unlink(std::string(RuntimeControlStoreV3::sharedMemoryName).c_str());
  auto result = run({"controls"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(
      result.err,
      "brisolactl: " + std::string(RuntimeControlStoreError::openFailed(ENOENT).what()) + "\n");

  RuntimeControlStoreV3::publish(richSnapshot());
  const auto published = RuntimeControlStoreV3::read();
  ASSERT_EQ(published.size(), 2u);
  result = run({"controls"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, encodeJSON(published) + "\n");
}

// A producer's meter object with constant levels, removed with the test.
struct StillMeter {
  std::string uid = "brisola.test.ctl." + std::to_string(::getpid());
  std::string owner;
  ShmObject object{RuntimeMeterStore::objectName(owner), 4096};

  // By default the output meter of the device with the UID above.
  explicit StillMeter(std::optional<std::string> ownerID = std::nullopt)
      : owner(ownerID.value_or(RuntimeMeterStore::outputOwnerID(uid))) {
    MeterImage{.sequence = 2, .channelCount = 2, .levels = {0.5f, 0.125f}, .peaks = {1.0f, 0.25f}}
        .writeTo(object);
  }
};

TEST_F(CtlSharedStateTest, MeterReadingsTheirAbsenceAndTheWatch) {
  StillMeter meter;
  const auto reading = RuntimeMeterStore::reading(meter.owner);
  ASSERT_TRUE(reading.has_value());
  // --device takes the UID, or the id or name of a device of the document.
  ConfigSnapshot snapshot = ConfigSnapshot::empty();
  snapshot.devices.push_back(stereoDevice("mix-id", "Test Mix"));
  snapshot.devices.back().uid = meter.uid;
  writeDocument(snapshot);
  for (const auto& [option, name] : {std::pair{"--owner", meter.owner},
                                     {"--device", meter.uid},
                                     {"--device", "mix-id"},
                                     {"--device", "test mix"}}) {
    const auto result = run({"meter", option, name});
    EXPECT_EQ(result.status, 0) << name << result.err;
    EXPECT_EQ(result.out, encodeJSON(*reading) + "\n") << name;
  }

  auto result = run({"meter", "--device", "no-such-device", "--side", "source"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_NE(result.err.find(RuntimeMeterStore::sourceOwnerID("no-such-device")), std::string::npos);

  // An empty owner or device is given, not missing: it names an object like any other.
  StillMeter unnamed("");
  result = run({"meter", "--owner", ""});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out, encodeJSON(*RuntimeMeterStore::reading("")) + "\n");
  result = run({"meter", "--device", ""});
  EXPECT_EQ(result.status, 1) << result.err;
  EXPECT_NE(result.err.find(RuntimeMeterStore::outputOwnerID("")), std::string::npos);

  // The watch shows bars, then the frozen meter as absent, until interrupted.
  RunningProcess watch(program(), {"meter", "--watch", "--device", "Test Mix"}, environment_,
                       directory_.path(), directory_.path());
  ASSERT_TRUE(watch.waitForOutput("Test Mix  (Ctrl-C to stop)", 5s)) << watch.standardOutput();
  // -6 dB on channel 1 fills 54 of 60 dB: 43 of 48 cells.
  ASSERT_TRUE(watch.waitForOutput("   1 [" + std::string(43, '='), 5s)) << watch.standardOutput();
  // The levels never change, so the tap declares the meter absent after 0.3 s.
  ASSERT_TRUE(watch.waitForOutput("no live reading", 5s)) << watch.standardOutput();
  watch.signal(SIGINT);
  EXPECT_EQ(watch.waitFor(5s), 0);
}

TEST_F(CtlSharedStateTest, StatusFollowsTheHeartbeat) {
  const auto url = directory_ / "data" / "Brisola" / "service-heartbeat";
  // No heartbeat file, one a minute old, a fresh one.
  const std::tuple<std::optional<std::chrono::seconds>, int, std::string> rows[] = {
      {std::nullopt, 1, "\"lastBeat\": null"},
      {60s, 1, "\"secondsSinceLastBeat\": 6"},
      {0s, 0, "\"alive\": true"},
  };
  for (const auto& [age, status, shown] : rows) {
    if (age) ServiceHeartbeat::beat(url, ServiceHeartbeat::Clock::now() - *age);
    const auto result = run({"status"});
    EXPECT_EQ(result.status, status);
    EXPECT_NE(result.out.find(shown), std::string::npos) << result.out;
    EXPECT_NE(result.out.find(url.string()), std::string::npos);
  }
}

}  // namespace
}  // namespace brisola::testing
