// Runs the built service as a process against temporary documents, simulated hardware and
// script helpers.

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <regex>
#include <thread>

#include "brisola/model/json_coding.hpp"
#include "support/documents.hpp"
#include "support/process_runner.hpp"
#include "support/system_helpers.hpp"

namespace brisola {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using testing::alive;
using ::testing::HasSubstr;
using testing::readFile;
using testing::RunningProcess;
using testing::TempDir;
using testing::writeFile;

fs::path servicePath() {
  return testing::buildDirectory() / "service" / "brisola-audio-service";
}

// Strips the "[2026-03-04T09:15:27Z] " stamps, checking their form on the way.
std::vector<std::string> messages(const std::string& output) {
  static const std::regex line(R"(\[\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ\] (.*))");
  std::vector<std::string> result;
  std::istringstream in(output);
  for (std::string text; std::getline(in, text);) {
    std::smatch match;
    result.push_back(std::regex_match(text, match, line) ? match[1].str() : "UNSTAMPED: " + text);
  }
  return result;
}

const char* hardwareFile = R"({
  "devices": [
    {"objectID": 41, "uid": "BuiltInMic", "name": "Built-in Microphone", "inputStreams": [2]},
    {"objectID": 42, "uid": "Speakers", "name": "Speakers", "outputStreams": [2]}
  ],
  "defaultOutputDevice": 42
})";

class ServiceProcess : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* sub : {"home", "helpers", "records"}) fs::create_directories(dir_ / sub);
    writeFile(dir_ / "hardware.json", hardwareFile);
    environment_ = {{"PATH", "/usr/bin:/bin"},
                    {"HOME", (dir_ / "home").string()},
                    {"XDG_DATA_HOME", (dir_ / "data").string()},
                    {"BRISOLA_CONFIG_PATH", (dir_ / "config.json").string()},
                    {"BRISOLA_HARDWARE_SIMULATION", (dir_ / "hardware.json").string()},
                    {"BRISOLA_HELPER_DIR", (dir_ / "helpers").string()},
                    {"HELPER_RECORDS", (dir_ / "records").string()},
                    {"BRISOLA_SERVICE_POLL_SECONDS", "0.05"}};
    // Each helper: a shell script without signal handlers that records its pid and variables.
    for (const char* name : {"brisola-monitor", "brisola-hardware-source", "brisola-process-tap"}) {
      testing::writeExecutable(dir_ / "helpers" / name,
                               "#!/bin/sh\n"
                               "env | grep '^BRISOLA_\\(MONITOR\\|SOURCE\\|TAP\\)_' | sort > "
                               "\"$HELPER_RECORDS/$$.tmp\"\n"
                               "mv \"$HELPER_RECORDS/$$.tmp\" \"$HELPER_RECORDS/$$.env\"\n"
                               "exec sleep 1000\n");
    }
  }

  void writeDocument(const ConfigSnapshot& snapshot) {
    // Replace in one step, as the store does, so the service never reads half a file.
    writeFile(dir_ / "config.tmp", encodeJSON(snapshot));
    fs::rename(dir_ / "config.tmp", dir_ / "config.json");
  }

  std::unique_ptr<RunningProcess> start() {
    return std::make_unique<RunningProcess>(servicePath(), std::vector<std::string>{}, environment_,
                                            dir_.path(), dir_.path());
  }
  testing::Completed run(const std::vector<std::string>& arguments = {},
                         const fs::path& program = servicePath()) {
    return testing::runToCompletion(program, arguments, environment_, dir_.path());
  }

  void TearDown() override {
    // A service that ran its loop published the control block; leave nothing behind.
    ::shm_unlink("/brisolaruntime3");
  }

  TempDir dir_;
  std::map<std::string, std::string> environment_;
};

ConfigSnapshot studioDocument() {
  DeviceConfig device = testing::stereoDevice("d1", "Studio");
  device.uid = "V1";
  device.sources.push_back(testing::hardwareSource("s1", "BuiltInMic"));
  device.sources.back().name = "Mic";
  device.wires.push_back(
      testing::wire("w3", testing::sourceEnd("s1", 1), testing::outputEnd("d1", 1)));
  device.wires.push_back(
      testing::wire("w4", testing::sourceEnd("s1", 2), testing::outputEnd("d1", 2)));
  device.monitors.push_back(testing::monitor("m1", "Speakers"));
  device.monitors.back().name = "Desk";
  ConfigSnapshot snapshot = ConfigSnapshot::empty();
  snapshot.devices.push_back(device);
  return snapshot;
}

TEST_F(ServiceProcess, DryRunPrintsControlsAndRoutesWithoutTouchingAnything) {
  ConfigSnapshot snapshot = studioDocument();
  DeviceConfig off = testing::stereoDevice("d2", "Off");
  off.enabled = false;
  off.sources[0].gain = 0.75;
  snapshot.devices.push_back(off);
  writeDocument(snapshot);

  environment_["BRISOLA_SERVICE_ONCE"] = "yes";
  auto result = run();
  EXPECT_EQ(result.status, 0) << result.out << result.err;
  EXPECT_THAT(
      messages(result.out),
      ::testing::ElementsAre(
          "Dry run: 2 device(s)",
          "Dry run device: uid=V1 deviceEnabled=true sourceEnabled=true muted=false gain=1.0",
          "Dry run device: uid=app.brisola.device.d2 deviceEnabled=false "
          "sourceEnabled=true muted=false gain=0.75",
          "Dry run route: monitor 'Desk' (Studio)",
          "Dry run route: hardware input 'Mic' (Studio)"));
  EXPECT_FALSE(fs::exists(dir_ / "data" / "Brisola" / "service-heartbeat"));
  EXPECT_TRUE(fs::is_empty(dir_ / "records")) << "a helper was started";

  writeDocument(ConfigSnapshot::empty());
  environment_.erase("BRISOLA_SERVICE_ONCE");
  environment_["BRISOLA_SERVICE_DRY_RUN"] = "TRUE";
  result = run();
  EXPECT_THAT(messages(result.out),
              ::testing::ElementsAre("Dry run: 0 device(s)", "Dry run route: none"));
}

// Neither the arguments nor a missing helper get as far as the document.
TEST_F(ServiceProcess, AnswersVersionRefusesOtherArgumentsAndNamesAMissingHelper) {
  // A copy of its own: beside the built service lie the real helpers.
  fs::create_directories(dir_ / "bin");
  fs::copy_file(servicePath(), dir_ / "bin" / "brisola-audio-service");
  // All that is said: the version as it is, the missing helper in one stamped line.
  const std::vector<std::tuple<std::vector<std::string>, int, std::string>> rows{
      {{"--version"}, 0, "brisola-audio-service 0.1.0\n"},
      {{"--bogus"}, 64, ""},
      {{},
       1,
       "Fatal error: Could not find executable helper 'brisola-monitor'. Build helpers with "
       "scripts/build-service.sh."},
  };
  environment_.erase("BRISOLA_HELPER_DIR");
  for (const auto& [arguments, status, said] : rows) {
    auto result = run(arguments, dir_ / "bin" / "brisola-audio-service");
    EXPECT_EQ(result.status, status) << ::testing::PrintToString(arguments);
    EXPECT_EQ(arguments.empty() ? ::testing::PrintToString(messages(result.out)) : result.out,
              arguments.empty() ? ::testing::PrintToString(std::vector{said}) : said);
  }
  EXPECT_FALSE(fs::exists(dir_ / "config.json")) << "the document was touched";
}

TEST_F(ServiceProcess, BrokenDocumentFailsEveryCycleWhileTheHeartbeatMoves) {
  writeFile(dir_ / "config.json", "{\"schemaVersion\": 2}");
  auto service = start();
  ASSERT_TRUE(service->waitForOutput("Reconcile failed: ", 5s, 2)) << service->standardOutput();
  fs::path heartbeat = dir_ / "data" / "Brisola" / "service-heartbeat";
  auto firstBeat = fs::last_write_time(heartbeat);
  ASSERT_TRUE(service->waitForOutput("Reconcile failed: ", 5s, 5));
  EXPECT_GT(fs::last_write_time(heartbeat), firstBeat);
  EXPECT_EQ(readFile(dir_ / "config.json"), "{\"schemaVersion\": 2}");
  // Mended, it is said once.
  writeDocument(ConfigSnapshot::empty());
  ASSERT_TRUE(service->waitForOutput("Reconcile works again", 5s));
  std::this_thread::sleep_for(200ms);
  service->signal(SIGTERM);
  ASSERT_EQ(service->waitFor(10s), 0);

  // The start names what the service uses; then one failure line per cycle until mended.
  auto lines = messages(service->standardOutput());
  ASSERT_GE(lines.size(), 10u);
  EXPECT_EQ(std::vector(lines.begin(), lines.begin() + 4),
            (std::vector<std::string>{
                "Starting Brisola audio service", "Document: " + (dir_ / "config.json").string(),
                "Hardware: simulated, from " + (dir_ / "hardware.json").string(),
                "Helpers: " + (dir_ / "helpers").string()}));
  EXPECT_EQ(lines.back(), "Stopped Brisola audio service");
  const auto mended = std::find(lines.begin(), lines.end(),
                                "Reconcile works again: the document loads and is published");
  ASSERT_NE(mended, lines.end());
  EXPECT_EQ(mended + 2, lines.end()) << "said more than once";
  for (auto line = lines.begin() + 4; line != mended; ++line) {
    EXPECT_EQ(*line, "Reconcile failed: Invalid JSON at devices: the required key is missing.");
  }
}

TEST_F(ServiceProcess, StopSignalCutsALongSleepShort) {
  writeDocument(ConfigSnapshot::empty());
  environment_["BRISOLA_SERVICE_POLL_SECONDS"] = "inf";
  for (int signal : {SIGTERM, SIGINT}) {
    auto service = start();
    ASSERT_TRUE(service->waitForOutput("Starting Brisola audio service", 5s));
    std::this_thread::sleep_for(100ms);  // well inside the first sleep
    service->signal(signal);
    service->signal(signal);  // a second signal changes nothing
    // The interval is an hour: only a cut-short sleep ends the process in time.
    EXPECT_EQ(service->waitFor(20s), 0);
    EXPECT_EQ(messages(service->standardOutput()).back(), "Stopped Brisola audio service");
  }
}

// Process ids of the script helpers that recorded themselves, with their route variables.
std::map<pid_t, std::string> recordedHelpers(const fs::path& records) {
  std::map<pid_t, std::string> helpers;
  for (const auto& entry : fs::directory_iterator(records)) {
    if (entry.path().extension() != ".env") continue;
    helpers[std::stoi(entry.path().stem().string())] = readFile(entry.path());
  }
  return helpers;
}

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit = 10s) {
  return testing::eventually(condition, limit, 20ms);
}

TEST_F(ServiceProcess, HelpersFollowTheDocumentAndTheirOwnExits) {
  writeDocument(studioDocument());
  auto service = start();
  fs::path records = dir_ / "records";
  // Whether a helper started with this monitor gain.
  auto monitorWithGain = [&](const std::string& gain) {
    return std::ranges::any_of(recordedHelpers(records), [&](const auto& helper) {
      return helper.second.find("BRISOLA_MONITOR_GAIN=" + gain + "\n") != std::string::npos;
    });
  };

  // Both routes start: the monitor and the hardware input.
  ASSERT_TRUE(eventually([&] { return recordedHelpers(records).size() == 2; }))
      << service->standardOutput();
  auto initial = recordedHelpers(records);
  pid_t monitorPid = 0, hardwarePid = 0;
  for (const auto& [pid, variables] : initial) {
    (variables.find("BRISOLA_MONITOR_ID=m1") != std::string::npos ? monitorPid : hardwarePid) = pid;
  }
  ASSERT_TRUE(monitorPid != 0 && hardwarePid != 0);
  EXPECT_THAT(initial[hardwarePid], HasSubstr("BRISOLA_SOURCE_ROUTES=1:1,2:2\n"));

  // A gain edit restarts exactly the monitor helper, with the new value.
  ConfigSnapshot edited = studioDocument();
  edited.devices[0].monitors[0].gain = 0.5;
  writeDocument(edited);
  ASSERT_TRUE(eventually([&] { return !alive(monitorPid); }));
  ASSERT_TRUE(eventually([&] { return monitorWithGain("0.5"); }));
  EXPECT_TRUE(alive(hardwarePid)) << "an unchanged route was restarted";

  // An edit of the same size written over the file in place, with the modification time of
  // the last one put back: only the change time tells it, and it is still seen.
  edited.devices[0].monitors[0].gain = 0.7;
  writeFile(dir_ / "config.json", encodeJSON(edited));
  struct stat written {};
  ASSERT_EQ(::stat((dir_ / "config.json").c_str(), &written), 0);
  ASSERT_TRUE(eventually([&] { return monitorWithGain("0.7"); }));
  edited.devices[0].monitors[0].gain = 0.9;
  writeFile(dir_ / "config.json", encodeJSON(edited));
  const timespec times[] = {written.st_atim, written.st_mtim};
  ASSERT_EQ(::utimensat(AT_FDCWD, (dir_ / "config.json").c_str(), times, 0), 0);
  ASSERT_TRUE(eventually([&] { return monitorWithGain("0.9"); }));

  // A helper that dies is restarted (after its back-off of 2 s).
  ::kill(hardwarePid, SIGKILL);
  ASSERT_TRUE(
      service->waitForOutput("hardware input 'Mic' (Studio) was ended by signal 9 (SIGKILL)", 5s));
  ASSERT_TRUE(eventually([&] { return recordedHelpers(records).size() == 6; }));

  // SIGTERM ends every helper (plain shell scripts without handlers) and the service.
  auto all = recordedHelpers(records);
  service->signal(SIGTERM);
  ASSERT_EQ(service->waitFor(10s), 0);
  for (const auto& [pid, variables] : all)
    EXPECT_FALSE(alive(pid)) << "helper " << pid << " outlived the service";
  EXPECT_EQ(messages(service->standardOutput()).back(), "Stopped Brisola audio service");
}

TEST_F(ServiceProcess, NoHelperOutlivesAServiceKilledOutright) {
  writeDocument(studioDocument());
  auto service = start();
  ASSERT_TRUE(eventually([&] { return recordedHelpers(dir_ / "records").size() == 2; }))
      << service->standardOutput();
  service->signal(SIGKILL);
  ASSERT_EQ(service->waitFor(10s), 128 + SIGKILL);
  for (const auto& [pid, variables] : recordedHelpers(dir_ / "records")) {
    EXPECT_TRUE(eventually([pid] { return !alive(pid); }, 5s)) << "helper " << pid << " lives on";
    ::kill(pid, SIGKILL);
  }
}

}  // namespace
}  // namespace brisola
