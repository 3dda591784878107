// The cycle keeps the loaded document and the last plan while nothing moves; these are the ways
// such reuse could go stale or fall silent.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "brisola/model/json_coding.hpp"
#include "common/service_log.hpp"
#include "service/brisola_service.hpp"
#include "support/documents.hpp"
#include "support/idle_helpers.hpp"
#include "support/system_helpers.hpp"
#include "support/temp_dir.hpp"

namespace brisola {
namespace {

using ::testing::ElementsAre;

TEST(ServiceCycle, AReusedPlanFollowsTheDocumentTheDevicesAndFailedCyclesAndStillSpeaks) {
  testing::TempDir dir;
  for (auto name :
       {HelperPaths::monitorName, HelperPaths::hardwareSourceName, HelperPaths::processTapName}) {
    testing::writeExecutable(dir / name, "#!/bin/sh\n");
  }
  const Environment environment{{"BRISOLA_CONFIG_PATH", (dir / "config.json").string()},
                                {"BRISOLA_HELPER_DIR", dir.path().string()}};
  const AudioDeviceInventory plugged{.inputs = {{.uid = "V2"}}, .outputs = {{.uid = "Speakers"}}};
  AudioDeviceInventory inventory = plugged;
  bool publishFails = false;
  testing::IdleLauncher launcher;
  ServicePorts ports{.publish =
                         [&](const ConfigSnapshot&) {
                           if (publishFails) throw std::runtime_error("gone");
                         },
                     .inventory = [&] { return inventory; },
                     .heartbeat = [] {},
                     .supervisor = std::make_shared<RouteSupervisor>(
                         EnvironmentMap(environment), launcher, SteadyClock::shared())};
  ConfigSnapshot document = ConfigSnapshot::empty();
  document.devices.push_back(testing::stereoDevice("d1", "Studio"));
  document.devices[0].monitors.push_back(testing::monitor("m1", "Speakers"));
  document.devices[0].sources.push_back(testing::hardwareSource("s1", ""));
  document.devices[0].sources.back().name = "Unplugged";
  // Two more devices, the last fed by the second: a change of the second must reach both.
  document.devices.push_back(testing::stereoDevice("d2", "Second"));
  document.devices[1].uid = "V2";
  document.devices[1].monitors.push_back(testing::monitor("m2", "Speakers"));
  document.devices.push_back(testing::stereoDevice("d3", "Third"));
  document.devices[2].sources.push_back(testing::nestedSource("n3", "d2"));
  testing::writeFile(dir / "config.json", encodeJSON(document));

  BrisolaServiceLog::Capture log;
  BrisolaService service(environment, {"test"}, ports);
  // A monitor's gain as its helper was told, or nothing without a monitor helper.
  auto monitorGain = [&](const std::string& key = "monitor:d1:m1") -> std::optional<std::string> {
    const auto& routes = ports.supervisor->routes();
    const auto route = routes.find(key);
    if (route == routes.end()) return std::nullopt;
    return route->second.route().environment.at("BRISOLA_MONITOR_GAIN");
  };
  auto cycle = [&] {
    log.clear();
    service.runCycle();
    return log.lines();
  };

  const std::string skip = "Skipping hardware source 'Unplugged' without a device UID";
  EXPECT_THAT(cycle(), ::testing::Contains(skip));
  EXPECT_THAT(cycle(), ElementsAre(skip)) << "a reused plan falls silent";
  EXPECT_EQ(monitorGain(), "1.0");
  EXPECT_EQ(ports.supervisor->routes().size(), 3u);

  // Only the second device moves; the first keeps its routes, the third follows the second.
  document.devices[1].name = "Renamed";
  document.devices[1].monitors[0].gain = 0.25;
  ConfigStore(dir / "config.json", FileManager::defaultManager()).save(document);
  EXPECT_THAT(cycle(), ::testing::Contains(skip));
  EXPECT_EQ(monitorGain(), "1.0");
  EXPECT_EQ(monitorGain("monitor:d2:m2"), "0.25");
  EXPECT_EQ(ports.supervisor->routes().at("nested:d3:n3").route().summary,
            "nested device 'Renamed' into 'Third'");
  EXPECT_EQ(ports.supervisor->routes().size(), 3u);

  inventory.outputs.clear();
  cycle();
  EXPECT_EQ(monitorGain(), std::nullopt) << "the speakers went away";
  inventory = plugged;
  cycle();
  EXPECT_EQ(monitorGain(), "1.0");

  // A document that changes in a cycle that fails before planning is planned once it works.
  document.devices[0].monitors[0].gain = 0.5;
  ConfigStore(dir / "config.json", FileManager::defaultManager()).save(document);
  publishFails = true;
  EXPECT_THAT(cycle(), ElementsAre("Reconcile failed: gone"));
  publishFails = false;
  cycle();
  EXPECT_EQ(monitorGain(), "0.5");
  ports.supervisor->stopAllRoutes();
}

}  // namespace
}  // namespace brisola
