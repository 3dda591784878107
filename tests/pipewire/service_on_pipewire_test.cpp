// The service planning against a real PipeWire of the test's own.

#include <sys/mman.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/private_pipewire.hpp"
#include "support/process_runner.hpp"
#include "support/system_helpers.hpp"

namespace brisola {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

TEST(ServiceOnPipeWire, MonitorRouteFollowsItsOutputNode) {
  testing::PrivatePipeWire server;
  testing::TempDir dir;
  auto environment = server.environment();
  environment["BRISOLA_CONFIG_PATH"] = (dir / "config.json").string();
  environment["BRISOLA_HELPER_DIR"] = (testing::buildDirectory() / "tools").string();
  environment["BRISOLA_SERVICE_POLL_SECONDS"] = "0.5";
  fs::copy_file(fs::path(BRISOLA_SOURCE_DIR) / "examples" / "config.json", dir / "config.json");
  server.createNode({.name = "BuiltInSpeakerDevice"});

  testing::RunningProcess service(testing::buildDirectory() / "service" / "brisola-audio-service",
                                  {}, environment, dir.path(), dir.path());
  const std::string started = "Started monitor 'Built-in Speakers' (Podcast Mix)";
  const std::string stopped = "Stopping monitor 'Built-in Speakers' (Podcast Mix)";
  ASSERT_TRUE(service.waitForOutput(started, 5s)) << service.standardOutput();
  EXPECT_THAT(service.standardOutput(), ::testing::Not(::testing::HasSubstr("hardware input")))
      << "the interview microphone is no node of this server";

  server.removeNode("BuiltInSpeakerDevice");
  // Two cycles, and a little for the removal to reach the service.
  EXPECT_TRUE(service.waitForOutput(stopped, 1200ms)) << service.standardOutput();
  server.createNode({.name = "BuiltInSpeakerDevice"});
  EXPECT_TRUE(service.waitForOutput(started, 5s, 2)) << service.standardOutput();

  service.signal(SIGTERM);
  EXPECT_EQ(service.waitFor(5s), 0);
  ::shm_unlink("/brisolaruntime3");
}

}  // namespace
}  // namespace brisola
