// The service's own pieces: settings, helper lookup, number text, route plans and the cycle
// that keeps the loaded document and the last plan while nothing moves.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "brisola/model/json_coding.hpp"
#include "common/service_log.hpp"
#include "service/brisola_service.hpp"
#include "service/number_text.hpp"
#include "service/route_planner.hpp"
#include "service/service_settings.hpp"
#include "support/documents.hpp"
#include "support/fake_helpers.hpp"
#include "support/system_helpers.hpp"
#include "support/temp_dir.hpp"
#include "support/thrown.hpp"

namespace brisola {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using testing::outputEnd;
using testing::sourceEnd;
using testing::sourceOf;
using testing::wire;

TEST(ServiceSettings, VariablesFillTheirFieldsAndOnlyTheFourWordsInAnyCaseAreTruthy) {
  std::string truthy;
  for (const char* text : {"1", "true", "TRUE", "Yes", "ON", "0", "false", "no", "off", "y", "",
                           " true", "true ", "2"}) {
    if (Settings::isTruthy(std::string(text))) truthy += std::string(text) + "|";
  }
  EXPECT_EQ(truthy, "1|true|TRUE|Yes|ON|");
  EXPECT_FALSE(Settings::isTruthy(std::nullopt));
  EXPECT_EQ(Settings::read({{"BRISOLA_CONFIG_PATH", "c.json"},
                            {"BRISOLA_SERVICE_POLL_SECONDS", "0.5"},
                            {"BRISOLA_SERVICE_ONCE", "yes"},
                            {"BRISOLA_HELPER_DIR", "helpers"},
                            {"BRISOLA_HARDWARE_SIMULATION", "hw.json"},
                            {"BRISOLA_SERVICE_DRY_RUN", "no"}}),
            (Settings{"c.json", Settings::Seconds(0.5), true, "helpers", "hw.json"}));
  EXPECT_EQ(Settings::read({{"BRISOLA_SERVICE_DRY_RUN", "on"}}).dryRun, true);
}

TEST(ServiceSettings, PollIntervalAcceptsOnlyWholeStrtodNumbersAboveZero) {
  const std::vector<std::pair<std::optional<std::string>, double>> rows{
      {std::nullopt, 1.0}, {"0.25", 0.25}, {"1e1", 10.0},   {"+2", 2.0},       {"0x10", 16.0},
      {"2.", 2.0},         {".5", 0.5},    {"0", 1.0},      {"-3", 1.0},       {"abc", 1.0},
      {"nan", 1.0},        {"", 1.0},      {" 2", 1.0},     {"2 ", 1.0},       {"\t2", 1.0},
      {"2s", 1.0},         {"1,5", 1.0},   {"inf", 3600.0}, {"1e300", 3600.0}, {"1e-300", 1e-300},
  };
  for (const auto& [text, seconds] : rows) {
    EXPECT_DOUBLE_EQ(Settings::pollIntervalFrom(text).count(), seconds) << text.value_or("absent");
  }
}

// Relative directories resolve against the working directory: the test moves into its own.
TEST(HelperPaths, CandidatesAreStandardisedAndLookupPrefersTheEnvironmentAndSkipsNonExecutables) {
  testing::TempDir dir;
  struct Restore {
    fs::path previous = fs::current_path();
    ~Restore() { fs::current_path(previous); }
  } restore;
  fs::current_path(dir.path());
  const fs::path cwd = fs::current_path();
  const FileManager& files = *FileManager::defaultManager();
  auto candidates = [&](const Settings& settings, const std::vector<std::string>& arguments) {
    return HelperPaths::candidateDirectories(settings, arguments, files);
  };
  EXPECT_THAT(candidates({.helperDirectory = "helpers/../helpers/"},
                         {"build/./service/brisola-audio-service"}),
              ElementsAre(cwd / "helpers", cwd / "build/service", cwd / "build/tools"));
  EXPECT_THAT(
      candidates({.helperDirectory = ""}, {"/opt/brisola/bin/service"}),
      ElementsAre(fs::path("/opt/brisola/bin"), cwd / "build/tools", cwd / "build/service"));
  EXPECT_THAT(candidates({}, {}), ElementsAre(cwd / "build/tools", cwd / "build/service"));

  auto make = [](const fs::path& directory, std::string_view name, mode_t mode = 0755) {
    fs::create_directories(directory);
    testing::writeExecutable(directory / name, "#!/bin/sh\n", mode);
  };
  auto resolved = [&](const Settings& settings) {
    return HelperPaths::resolve(settings, {(cwd / "self" / "svc").string()}, files);
  };
  auto missing = [&] { return testing::thrown<ServiceError>([&] { resolved({}); }); };
  EXPECT_EQ(missing(), ServiceError::missingHelper("brisola-monitor"));
  make(cwd / "build/tools", "brisola-monitor");
  make(cwd / "build/service", "brisola-process-tap");
  EXPECT_EQ(missing(), ServiceError::missingHelper("brisola-hardware-source"));
  for (auto name :
       {HelperPaths::monitorName, HelperPaths::hardwareSourceName, HelperPaths::processTapName}) {
    make(cwd / "env", name);
    make(cwd / "self", name);
  }
  make(cwd / "env", "brisola-hardware-source", 0644);  // present but not executable
  EXPECT_EQ(resolved({.helperDirectory = (cwd / "env").string()}),
            (HelperPaths{cwd / "env" / "brisola-monitor", cwd / "self" / "brisola-hardware-source",
                         cwd / "env" / "brisola-process-tap"}));
}

TEST(NumberText, ShortestRoundTripWithAFractionOrAnExponentAndLogLinesStampedInUTC) {
  // Each text is the shortest that reads back as its own value.
  for (std::string text : {"1.0", "1.25", "1e-05", "0.0001", "1e+16", "2.5e-07", "-0.0", "100.0",
                           "0.30000000000000004", "1234567890123456.0"}) {
    EXPECT_EQ(shortestText(std::stod(text)), text);
  }
  EXPECT_EQ(shortestText(0.3f), "0.3");
  EXPECT_EQ(shortestText(static_cast<float>(1.0 / 3.0)), "0.33333334");

  // Whole seconds: the milliseconds are dropped, not rounded.
  auto time = std::chrono::sys_days(std::chrono::year(2026) / 3 / 4) + std::chrono::hours(9) +
              std::chrono::minutes(15) + std::chrono::seconds(27) + std::chrono::milliseconds(900);
  EXPECT_EQ(BrisolaServiceLog::format("Starting Brisola audio service", time),
            "[2026-03-04T09:15:27Z] Starting Brisola audio service");
}

const HelperPaths helpers{.monitor = "/h/brisola-monitor",
                          .hardwareSource = "/h/brisola-hardware-source",
                          .processTap = "/h/brisola-process-tap"};

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
  auto routes = RoutePlanner::desiredRoutes(
      snapshot, {.inputs = {{.uid = "U1"}}, .outputs = {{.uid = "Speakers"}}}, helpers);
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
  auto routes = RoutePlanner::desiredRoutes(snapshot, {}, helpers);
  EXPECT_TRUE(routes.empty());
  EXPECT_THAT(log.lines(),
              ElementsAre("Skipping application source 'NoPid' without a PID",
                          "Skipping hardware source 'EmptyUID' without a device UID",
                          "Skipping nested device source 'Lost' without a resolvable device",
                          "Skipping nested device source 'Sleeping': 'Dormant' is disabled"));

  // Devices that appear are planned on the next pass: the unplugged monitor, the hardware
  // input and the nested device (a source naming its own device resolves like any other).
  log.clear();
  routes =
      RoutePlanner::desiredRoutes(snapshot,
                                  {.inputs = {{.uid = "NotHere"}, {.uid = "app.brisola.device.d"}},
                                   .outputs = {{.uid = "Gone"}}},
                                  helpers);
  EXPECT_THAT(keys(routes), ElementsAre("monitor:d:unplugged", "hardware:d:h2", "nested:d:n3"));
  EXPECT_EQ(routes[2].summary, "nested device 'Desk' into 'Desk'");
  EXPECT_EQ(routes[2].environment.count("BRISOLA_SOURCE_INPUT_BACKEND"), 0u);
  EXPECT_EQ(log.lines().size(), 4u) << "skip lines repeat on every plan";
}

// Reuse of the loaded document and the last plan could go stale or fall silent.

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
  testing::FakeLauncher launcher;
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
