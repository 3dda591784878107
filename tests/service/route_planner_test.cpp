#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/service_log.hpp"
#include "service/route_planner.hpp"
#include "support/documents.hpp"

namespace brisola {
namespace {

using ::testing::ElementsAre;
using testing::outputEnd;
using testing::sourceEnd;
using testing::sourceOf;
using testing::wire;

const HelperPaths helpers{.monitor = "/h/brisola-monitor",
                          .hardwareSource = "/h/brisola-hardware-source",
                          .processTap = "/h/brisola-process-tap"};

AudioDeviceInventory inventoryWith(std::vector<std::string> inputs,
                                   std::vector<std::string> outputs) {
  AudioDeviceInventory inventory;
  for (auto& uid : inputs) inventory.inputs.push_back({.uid = uid, .name = uid, .channelCount = 2});
  for (auto& uid : outputs)
    inventory.outputs.push_back({.uid = uid, .name = uid, .channelCount = 2});
  return inventory;
}

std::vector<std::string> keys(const std::vector<DesiredRoute>& routes) {
  std::vector<std::string> result;
  for (const auto& route : routes) result.push_back(route.key);
  return result;
}

TEST(RoutePlanner, EveryKindOfRouteCarriesItsVariablesInDocumentOrder) {
  DeviceConfig device = testing::stereoDevice("d", "Desk");
  MonitorConfig speakers = testing::monitor("m", "");  // empty UID: left to the helper
  speakers.gain = 0.5;
  speakers.muted = true;
  speakers.channelGains = std::vector<double>{1.0, 0.5};
  device.monitors.push_back(speakers);
  SourceConfig app = sourceOf(SourceType::application, "app", "App", {.pid = 4242});
  app.gain = 1e-05;
  app.channelGains = std::vector<double>{};
  app.muteWhenCapturing = true;
  SourceConfig system = sourceOf(SourceType::system, "sys", "All", {.pid = 7});
  system.gain = 1.25;
  device.sources = {testing::passThruSource("d-pt"), app, system};
  SourceConfig mic = testing::hardwareSource("mic", "U1");
  mic.metadata.inputBackend = "coreaudio";
  mic.channelGains = std::vector<double>{0.25};
  device.sources.push_back(mic);
  device.wires.push_back(wire("w", outputEnd("d", 2), testing::monitorEnd("m", 1)));
  device.wires.push_back(wire("x", sourceEnd("app", 9), outputEnd("d", 1)));
  device.wires.push_back(wire("y", sourceEnd("mic", 2), outputEnd("d", 1)));
  DeviceConfig second = testing::stereoDevice("e", "Other");
  second.monitors.push_back(testing::monitor("m2", "Speakers"));

  ConfigSnapshot snapshot{.devices = {device, second}};
  auto routes = RoutePlanner::desiredRoutes(snapshot, inventoryWith({"U1"}, {"Speakers"}), helpers);
  EXPECT_THAT(keys(routes), ElementsAre("monitor:d:m", "tap-application:d:app", "tap-system:d:sys",
                                        "hardware:d:mic", "monitor:e:m2"));

  EXPECT_EQ(routes[0].environment,
            (Environment{{"BRISOLA_MONITOR_INPUT_UID", "app.brisola.device.d"},
                         {"BRISOLA_MONITOR_ID", "m"},
                         {"BRISOLA_MONITOR_GAIN", "0.5"},
                         {"BRISOLA_MONITOR_MUTED", "1"},
                         {"BRISOLA_MONITOR_ROUTES", "2:1"},
                         {"BRISOLA_MONITOR_CHANNEL_GAINS", "1.0,0.5"}}));
  EXPECT_EQ(routes[0].summary, "monitor 'Speakers' (Desk)");
  EXPECT_EQ(routes[1].environment, (Environment{{"BRISOLA_TAP_OUTPUT_UID", "app.brisola.device.d"},
                                                {"BRISOLA_TAP_SOURCE_ID", "app"},
                                                {"BRISOLA_TAP_MODE", "application"},
                                                {"BRISOLA_TAP_PID", "4242"},
                                                {"BRISOLA_TAP_GAIN", "1e-05"},
                                                {"BRISOLA_TAP_MUTED", "0"},
                                                {"BRISOLA_TAP_MUTE_WHEN_CAPTURING", "1"},
                                                {"BRISOLA_TAP_ROUTES", "9:1"},
                                                {"BRISOLA_TAP_CHANNEL_GAINS", ""}}));
  EXPECT_EQ(routes[1].executableURL, "/h/brisola-process-tap");
  EXPECT_EQ(routes[2].environment.count("BRISOLA_TAP_PID"), 0u) << "a system capture has no PID";
  EXPECT_EQ(routes[2].environment.at("BRISOLA_TAP_MODE"), "system");
  EXPECT_EQ(routes[2].summary, "system capture 'All'");
  EXPECT_EQ(routes[3],
            (DesiredRoute{.key = "hardware:d:mic",
                          .executableURL = "/h/brisola-hardware-source",
                          .environment = {{"BRISOLA_SOURCE_INPUT_UID", "U1"},
                                          {"BRISOLA_SOURCE_ID", "mic"},
                                          {"BRISOLA_SOURCE_OUTPUT_UID", "app.brisola.device.d"},
                                          {"BRISOLA_SOURCE_GAIN", "1.0"},
                                          {"BRISOLA_SOURCE_MUTED", "0"},
                                          {"BRISOLA_SOURCE_ROUTES", "2:1"},
                                          {"BRISOLA_SOURCE_INPUT_BACKEND", "coreaudio"},
                                          {"BRISOLA_SOURCE_CHANNEL_GAINS", "0.25"}},
                          .summary = "hardware input 'Microphone' (Desk)"}));
  EXPECT_EQ(routes[4].environment.at("BRISOLA_MONITOR_OUTPUT_UID"), "Speakers");
}

TEST(RoutePlanner, SkipsAreSilentUnlessTheUserHasSomethingToFix) {
  DeviceConfig device = testing::stereoDevice("d", "Desk");
  device.monitors.push_back(testing::monitor("unplugged", "Gone"));
  MonitorConfig disabledMonitor = testing::monitor("off", "");
  disabledMonitor.enabled = false;
  device.monitors.push_back(disabledMonitor);
  device.sources.push_back(sourceOf(SourceType::application, "a", "NoPid"));
  device.sources.push_back(testing::hardwareSource("h1", ""));
  device.sources.back().name = "EmptyUID";
  device.sources.push_back(testing::hardwareSource("h2", "NotHere"));
  device.sources.push_back(testing::nestedSource("n1", "zzz", "Lost"));
  device.sources.push_back(testing::nestedSource("n2", "off", "Sleeping"));
  device.sources.push_back(testing::nestedSource("n3", "d", "Self"));
  SourceConfig disabledSource = device.sources[1];
  disabledSource.id = "quiet";
  disabledSource.enabled = false;
  device.sources.push_back(disabledSource);
  DeviceConfig off = testing::stereoDevice("off", "Dormant");
  off.enabled = false;
  off.monitors.push_back(testing::monitor("m", ""));

  ConfigSnapshot snapshot{.devices = {device, off}};
  BrisolaServiceLog::Capture log;
  auto routes = RoutePlanner::desiredRoutes(snapshot, inventoryWith({}, {}), helpers);
  EXPECT_TRUE(routes.empty());
  EXPECT_THAT(log.lines(),
              ElementsAre("Skipping application source 'NoPid' without a PID",
                          "Skipping hardware source 'EmptyUID' without a device UID",
                          "Skipping nested device source 'Lost' without a resolvable device",
                          "Skipping nested device source 'Sleeping': 'Dormant' is disabled"));

  // Devices that appear are planned on the next pass: the unplugged monitor, the hardware
  // input and the nested device (a source naming its own device resolves like any other).
  log.clear();
  routes = RoutePlanner::desiredRoutes(
      snapshot, inventoryWith({"NotHere", "app.brisola.device.d"}, {"Gone"}), helpers);
  EXPECT_THAT(keys(routes), ElementsAre("monitor:d:unplugged", "hardware:d:h2", "nested:d:n3"));
  EXPECT_EQ(routes[2].summary, "nested device 'Desk' into 'Desk'");
  EXPECT_EQ(routes[2].environment.count("BRISOLA_SOURCE_INPUT_BACKEND"), 0u);
  EXPECT_EQ(log.lines().size(), 4u) << "skip lines repeat on every plan";
}

}  // namespace
}  // namespace brisola
