// The supervisor over fake helpers and a fake clock, then the launcher and the supervisor over
// real processes.

#include "supervision/posix_process_launcher.hpp"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "brisola/platform/unique_fd.hpp"
#include "common/service_log.hpp"
#include "support/fake_helpers.hpp"
#include "support/system_helpers.hpp"

namespace brisola {
namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;
using testing::eventually;
using testing::FakeLauncher;
using testing::FakeProcessState;
using testing::readFile;
using testing::TempDir;

// Time that moves only when the test (or a sleeping caller) moves it.
struct FakeClock final : Clock {
  time_point now() override { return current; }
  void sleepFor(duration interval) override { current += interval, ++sleeps; }
  void advance(duration interval) { current += interval; }
  time_point current{};
  int sleeps = 0;
};

DesiredRoute makeRoute(std::string key, std::string summary, EnvironmentMap environment) {
  return {.key = std::move(key),
          .executableURL = "/helpers/brisola-monitor",
          .environment = std::move(environment),
          .summary = std::move(summary)};
}
const DesiredRoute deskMonitor =
    makeRoute("monitor:d1:m1", "monitor 'Desk' (Studio)",
              {{"BRISOLA_MONITOR_GAIN", "1.0"}, {"BRISOLA_MONITOR_OUTPUT_UID", "O1"}});
const DesiredRoute micSource =
    makeRoute("hardware:d1:s1", "hardware input 'Mic' (Studio)",
              {{"BRISOLA_SOURCE_GAIN", "1.0"}, {"BRISOLA_SOURCE_INPUT_UID", "U1"}});
const DesiredRoute musicTap =
    makeRoute("tap:d1:s2", "application 'Music' (Studio)", {{"BRISOLA_TAP_PID", "4242"}});

struct Harness {
  FakeClock clock;
  FakeLauncher launcher;
  BrisolaServiceLog::Capture log;
  RouteSupervisor supervisor{
      {{"HOME", "/home/user"}, {"BRISOLA_MONITOR_GAIN", "base"}}, launcher, clock};

  // The fake helper currently running for the key (the fake launcher numbers them from 1000).
  std::shared_ptr<FakeProcessState> helperOf(const std::string& key) const {
    const ChildProcess* process = supervisor.routes().at(key).process();
    return process ? launcher.launches.at(static_cast<std::size_t>(process->pid() - 1000))
                   : nullptr;
  }
};

TEST(RouteSupervisorTest, RepeatedLaunchFailuresBackOffTwoFiveTenThirtyThenEverySixtySeconds) {
  Harness h;
  const std::string error = "Could not launch /helpers/brisola-monitor: No such file or directory";
  h.launcher.failure = error;
  const std::vector<DesiredRoute> plan{deskMonitor};

  // One cycle per second for five minutes.
  std::vector<int> attemptSeconds;
  for (int second = 0; second <= 300; ++second) {
    const int before = h.launcher.attempts;
    h.supervisor.reconcile(plan);
    if (h.launcher.attempts != before) attemptSeconds.push_back(second);
    h.clock.advance(1s);
  }

  EXPECT_EQ(attemptSeconds, (std::vector<int>{0, 2, 7, 17, 47, 107, 167, 227, 287}));
  EXPECT_EQ(h.log.lines(), Lines(9, "Could not start monitor 'Desk' (Studio): " + error));

  // Once the file is back, the next due attempt succeeds and the count starts over.
  h.launcher.failure.reset();
  h.log.clear();
  const ManagedRoute& managed = h.supervisor.routes().at("monitor:d1:m1");
  h.clock.advance(managed.nextStartDate() - h.clock.now());
  h.supervisor.reconcile(plan);
  EXPECT_EQ(h.log.lines(), Lines{"Started monitor 'Desk' (Studio)"});
  EXPECT_EQ(managed.failureCount(), 0);
  ASSERT_NE(managed.process(), nullptr);
}

TEST(RouteSupervisorTest, HelperExitingAfterEveryLaunchRestartsTwoSecondsAfterEachExit) {
  Harness h;
  // One cycle per second; the helper dies right after each launch, alternately with 0 and 3.
  // A failure count kept over a good launch, or a back-off a step late, moves the restarts.
  std::vector<std::string> events;
  for (int second = 0; second <= 12; ++second) {
    const std::size_t before = h.log.lines().size();
    h.supervisor.reconcile({deskMonitor});
    for (std::size_t i = before; i < h.log.lines().size(); ++i) {
      events.push_back(std::to_string(second) + " " + h.log.lines()[i]);
    }
    if (auto& last = h.launcher.launches.back(); last->running) {
      last->exit(h.launcher.launches.size() % 2 == 0 ? 0 : 3);
    }
    h.clock.advance(1s);
  }
  std::vector<std::string> expected;
  for (int start = 0; start <= 12; start += 3) {
    expected.push_back(std::to_string(start) + " Started monitor 'Desk' (Studio)");
    if (start + 1 > 12) break;
    expected.push_back(std::to_string(start + 1) + " monitor 'Desk' (Studio) exited with status " +
                       (start % 6 == 0 ? "3" : "0"));
  }
  EXPECT_EQ(events, expected);
}

TEST(RouteSupervisorTest, ChangingOneFieldOfOneRouteRestartsExactlyThatHelperInTheSameCall) {
  struct Row {
    const char* change;
    std::function<void(DesiredRoute&)> apply;
  };
  const std::vector<Row> rows{
      {"gain", [](DesiredRoute& r) { r.environment["BRISOLA_SOURCE_GAIN"] = "0.5"; }},
      {"removed variable", [](DesiredRoute& r) { r.environment.erase("BRISOLA_SOURCE_GAIN"); }},
      {"executable", [](DesiredRoute& r) { r.executableURL = "/other/brisola-hardware-source"; }},
      {"summary", [](DesiredRoute& r) { r.summary = "hardware input 'Voice' (Studio)"; }},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.change);
    Harness h;
    std::vector<DesiredRoute> plan{deskMonitor, micSource, musicTap};
    h.supervisor.reconcile(plan);
    const auto oldMic = h.helperOf("hardware:d1:s1");
    h.log.clear();
    // The same plan again touches nothing and logs nothing.
    h.clock.advance(1s);
    h.supervisor.reconcile(plan);
    EXPECT_TRUE(h.log.lines().empty());
    ASSERT_EQ(h.launcher.launches.size(), 3u);

    row.apply(plan[1]);
    h.clock.advance(1s);
    h.supervisor.reconcile(plan);
    EXPECT_EQ(h.log.lines(),
              (Lines{"Stopping hardware input 'Mic' (Studio): configuration changed route",
                     "Started " + plan[1].summary}));
    ASSERT_EQ(h.launcher.launches.size(), 4u);
    EXPECT_EQ(h.helperOf("hardware:d1:s1"), h.launcher.launches[3]);
    EXPECT_EQ(h.launcher.launches[3]->executable, plan[1].executableURL);
    EXPECT_EQ(h.supervisor.routes().at("hardware:d1:s1").route(), plan[1]);
    for (const auto& state : h.launcher.launches) {
      EXPECT_EQ(state->terminateRequests, state == oldMic ? 1 : 0);
    }
  }
}

TEST(RouteSupervisorTest, DuplicatesAreIgnoredAndOnlyRunningHelpersStoppedWhenRoutesGo) {
  Harness h;
  // A duplicate key keeps the first route, and the same plan again does not flip it.
  DesiredRoute copy = deskMonitor;
  copy.summary = "monitor 'Desk copy' (Studio)";
  copy.environment["BRISOLA_MONITOR_GAIN"] = "0.5";
  for (int pass = 0; pass < 2; ++pass) h.supervisor.reconcile({deskMonitor, musicTap, copy});
  const std::string ignored = "Ignoring duplicate route monitor:d1:m1: " + copy.summary;
  EXPECT_EQ(h.log.lines(), (Lines{ignored, "Started monitor 'Desk' (Studio)",
                                  "Started application 'Music' (Studio)", ignored}));
  EXPECT_EQ(h.supervisor.routes().at("monitor:d1:m1").route(), deskMonitor);
  ASSERT_EQ(h.launcher.launches.size(), 2u);

  h.launcher.failure = "Could not launch /helpers/brisola-monitor: Permission denied";
  h.supervisor.reconcile({deskMonitor, micSource, musicTap});  // mic never launches
  ASSERT_EQ(h.supervisor.routes().at("hardware:d1:s1").process(), nullptr);
  h.launcher.failure.reset();
  h.helperOf("tap:d1:s2")->exit(1);
  h.log.clear();

  h.supervisor.reconcile({musicTap});
  h.supervisor.stopAllRoutes();
  EXPECT_EQ(h.log.lines(), (Lines{"Stopping monitor 'Desk' (Studio): configuration removed route",
                                  "application 'Music' (Studio) exited with status 1"}));
  EXPECT_TRUE(h.supervisor.routes().empty());
  EXPECT_EQ(h.supervisor.terminatingHelperCount(), 0u);
  EXPECT_EQ(h.clock.sleeps, 0) << "helpers that end on SIGTERM are not waited for";
  for (const auto& state : h.launcher.launches) {
    EXPECT_FALSE(state->handleAlive);
    EXPECT_EQ(state->killRequests, 0);
  }
  EXPECT_EQ(h.launcher.launches[0]->terminateRequests, 1);
}

TEST(RouteSupervisorTest, HelpersIgnoringTerminateAreKilledAfterTheGracePeriod) {
  Harness h;
  h.launcher.helpersEndOnTerminate = false;
  DesiredRoute changed = deskMonitor;
  changed.environment["BRISOLA_MONITOR_GAIN"] = "0.5";
  h.supervisor.reconcile({deskMonitor});
  h.supervisor.reconcile({changed});
  const auto replaced = h.launcher.launches[0];
  ASSERT_EQ(replaced->terminateRequests, 1);
  ASSERT_EQ(h.supervisor.terminatingHelperCount(), 1u);
  h.log.clear();

  h.clock.advance(terminationGracePeriod - 1ms);
  h.supervisor.reconcile({changed});
  EXPECT_EQ(replaced->killRequests, 0);
  EXPECT_TRUE(h.log.lines().empty());

  h.clock.advance(1ms);
  h.supervisor.reconcile({changed});
  EXPECT_EQ(replaced->killRequests, 1);
  const std::string killing =
      "Killing monitor 'Desk' (Studio): still running after the terminate request";
  EXPECT_EQ(h.log.lines(), Lines{killing});
  h.supervisor.reconcile({changed});
  EXPECT_EQ(h.supervisor.terminatingHelperCount(), 0u);
  EXPECT_FALSE(replaced->handleAlive);

  // At shutdown the wait covers helpers stopped earlier too, and ends with the grace period.
  h.supervisor.reconcile({deskMonitor});
  h.log.clear();
  const Clock::time_point shutdown = h.clock.now();
  h.supervisor.stopAllRoutes();
  EXPECT_GE(h.clock.now() - shutdown, terminationGracePeriod);
  EXPECT_LT(h.clock.now() - shutdown, terminationGracePeriod + 10 * terminationPollInterval);
  EXPECT_EQ(h.log.lines(),
            (Lines{"Stopping monitor 'Desk' (Studio): service stopping", killing, killing}));
  EXPECT_EQ(h.supervisor.terminatingHelperCount(), 0u);
  for (const auto& state : h.launcher.launches) EXPECT_FALSE(state->handleAlive);
}

std::filesystem::path writeScript(const TempDir& dir, const std::string& name,
                                  const std::string& body,
                                  const std::string& interpreter = "/bin/sh") {
  return testing::writeExecutable(dir / name, "#!" + interpreter + "\n" + body, 0700);
}

std::set<std::string> directoryNames(const std::filesystem::path& directory) {
  std::set<std::string> names;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(directory, error))
    names.insert(entry.path().filename().string());
  return names;
}

// waitpid(-1) finds neither a running nor a defunct (unreaped) child of this process.
bool hasNoChildren() {
  int status = 0;
  const pid_t result = ::waitpid(-1, &status, WNOHANG);
  return result == -1 && errno == ECHILD;
}

std::unique_ptr<ChildProcess> launchOrFail(const std::filesystem::path& executable) {
  LaunchResult result = PosixProcessLauncher::shared().launch(executable, {});
  if (auto* error = std::get_if<LaunchError>(&result)) ADD_FAILURE() << error->description;
  auto* process = std::get_if<std::unique_ptr<ChildProcess>>(&result);
  return process != nullptr ? std::move(*process) : nullptr;
}

TEST(PosixProcessLauncherTest, FailedLaunchNamesFileAndErrorAndHelperGetsExactlyWhatIsGiven) {
  TempDir dir;
  const auto notExecutable = testing::writeExecutable(dir / "brisola-monitor", "#!/bin/sh\n", 0600);
  const std::vector<std::pair<std::filesystem::path, std::string>> failures{
      {dir / "missing" / "brisola-monitor", "No such file or directory"},
      {notExecutable, "Permission denied"},
      {dir.path(), "Permission denied"}};
  for (const auto& [executable, reason] : failures) {
    SCOPED_TRACE(executable.string());
    LaunchResult result = PosixProcessLauncher::shared().launch(executable, {});
    ASSERT_TRUE(std::holds_alternative<LaunchError>(result));
    EXPECT_EQ(std::get<LaunchError>(result).description,
              "Could not launch " + executable.string() + ": " + reason);
  }

  // Deliberately inheritable: the launcher must close it in the child all the same.
  UniqueFd leaked(::open("/dev/null", O_RDONLY));
  ASSERT_TRUE(leaked);
  const auto script = writeScript(dir, "helper",
                                  "env | grep -v ^PWD= | sort > \"$OUT/env.tmp\"\n"
                                  "mv \"$OUT/env.tmp\" \"$OUT/env\"\n"
                                  "exec sleep 1000\n");
  BrisolaServiceLog::Capture log;
  RouteSupervisor supervisor({{"PATH", "/usr/bin:/bin"}, {"SHARED", "base"}, {"BASE_ONLY", "b"}},
                             PosixProcessLauncher::shared(), SteadyClock::shared());
  const DesiredRoute route{.key = "monitor:d1:m1",
                           .executableURL = script,
                           .environment = {{"SHARED", "route wins"},
                                           {"OUT", dir.path().string()},
                                           {"BRISOLA_MONITOR_CHANNEL_GAINS", ""}},
                           .summary = "monitor 'Desk' (Studio)"};
  supervisor.reconcile({route});
  ASSERT_NE(supervisor.routes().at(route.key).process(), nullptr);
  const pid_t pid = supervisor.routes().at(route.key).process()->pid();

  // Once the script has become `sleep`, what it holds is what it inherited.
  ASSERT_TRUE(eventually([&] {
    return std::filesystem::exists(dir / "env") &&
           readFile("/proc/" + std::to_string(pid) + "/comm") == "sleep\n";
  }));
  // The shell adds PWD of its own; the rest is the merged environment, route values winning.
  EXPECT_EQ(readFile(dir / "env"),
            "BASE_ONLY=b\nBRISOLA_MONITOR_CHANNEL_GAINS=\nOUT=" + dir.path().string() +
                "\nPATH=/usr/bin:/bin\nSHARED=route wins\n");
  std::set<std::string> standardStreams;
  for (int fd = 0; fd <= 2; ++fd) {
    if (::fcntl(fd, F_GETFD) != -1) standardStreams.insert(std::to_string(fd));
  }
  // The new program's name shows a moment before the kernel has closed the shell's own
  // close-on-exec descriptors, and the loader then opens and closes descriptors of its own. A
  // leak stays, so wait for only the streams, twice in a row.
  const std::string fdDirectory = "/proc/" + std::to_string(pid) + "/fd";
  const bool onlyStreams = eventually([&] {
    if (directoryNames(fdDirectory) != standardStreams) return false;
    std::this_thread::sleep_for(100ms);
    return directoryNames(fdDirectory) == standardStreams;
  });
  EXPECT_TRUE(onlyStreams) << ::testing::PrintToString(directoryNames(fdDirectory));
  EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(pid) + "/cwd"),
            std::filesystem::current_path());

  // Neither the helper nor a child of a failed launch is left.
  supervisor.stopAllRoutes();
  EXPECT_TRUE(hasNoChildren());
}

TEST(PosixProcessLauncherTest, EndingsAreSeenAtOnceWithTheirStatusAndEveryHelperIsReaped) {
  TempDir dir;
  // The service ignores SIGTERM and blocks it in its threads; helpers must not inherit either.
  struct sigaction ignore {
  }, previousAction{};
  ignore.sa_handler = SIG_IGN;
  ::sigaction(SIGTERM, &ignore, &previousAction);
  sigset_t blocked, previousMask;
  ::sigemptyset(&blocked);
  ::sigaddset(&blocked, SIGTERM);
  ::pthread_sigmask(SIG_BLOCK, &blocked, &previousMask);
  // Once per cycle the supervisor asks whether any helper ended: a wrong "no" leaves an exit
  // unnoticed, as would an ignored SIGCHLD inherited from our parent (the launcher undoes it).
  ::sigaction(SIGCHLD, &ignore, nullptr);
  auto& launcher = PosixProcessLauncher::shared();
  auto running = launchOrFail(writeScript(dir, "running", "exec sleep 30\n"));
  auto ending = launchOrFail(writeScript(dir, "ending", "exit 3\n"));
  ASSERT_TRUE(running && ending);
  ASSERT_TRUE(eventually([&] { return launcher.anyChildMayHaveEnded(); }));
  EXPECT_FALSE(ending->isRunning());
  EXPECT_EQ(ending->terminationStatus(), 3) << "the status was lost";
  EXPECT_FALSE(launcher.anyChildMayHaveEnded()) << "only a running child is left";
  running->kill();
  EXPECT_TRUE(eventually([&] { return launcher.anyChildMayHaveEnded(); }));
  EXPECT_FALSE(running->isRunning());

  struct Row {
    const char* name;
    const char* interpreter;
    const char* body;
    std::function<void(ChildProcess&)> action;
    int status;
  };
  const std::vector<Row> rows{
      // The shell keeps an inherited ignored SIGTERM ignored (but unblocks it)...
      {"plain script ended by terminate", "/bin/sh", "while :; do sleep 0.05; done\n",
       [](ChildProcess& p) { p.terminate(); }, SIGTERM},
      // ...while tail keeps an inherited blocked SIGTERM blocked.
      {"program leaving its signal state alone, ended by terminate", "/usr/bin/tail -fn0", "",
       [](ChildProcess& p) { p.terminate(); }, SIGTERM},
      {"script ignoring SIGTERM, killed", "/bin/sh", "trap '' TERM\nwhile :; do sleep 0.05; done\n",
       [](ChildProcess& p) { p.kill(); }, SIGKILL},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const auto script = writeScript(dir, "helper", row.body, row.interpreter);
    auto process = launchOrFail(script);
    ASSERT_NE(process, nullptr);
    row.action(*process);
    ASSERT_TRUE(eventually([&] { return !process->isRunning(); }));
    EXPECT_EQ(process->terminationStatus(), row.status);
    EXPECT_TRUE(hasNoChildren()) << "not reaped";
    // Signals after the reap must not reach a recycled pid.
    process->terminate();
    process->kill();
  }
  // A dropped handle kills and reaps its helper, even one that ignores SIGTERM.
  auto dropped = launchOrFail(writeScript(dir, "helper", "trap '' TERM\nexec sleep 1000\n"));
  ASSERT_NE(dropped, nullptr);
  dropped.reset();
  EXPECT_TRUE(hasNoChildren());
  ::pthread_sigmask(SIG_SETMASK, &previousMask, nullptr);
  ::sigaction(SIGTERM, &previousAction, nullptr);
}

// A leak of one zombie or one descriptor per replacement would show hundreds of times over.
TEST(RouteSupervisorProcessTest, HundredsOfReplacementsLeaveNoZombiesAndNoDescriptors) {
  constexpr int replacements = 500;
  TempDir dir;
  const auto script = writeScript(dir, "helper", "exec sleep 1000\n");
  const int descriptorsAtStart = testing::openDescriptorCount();
  BrisolaServiceLog::Capture log;
  {
    RouteSupervisor supervisor({{"PATH", "/usr/bin:/bin"}}, PosixProcessLauncher::shared(),
                               SteadyClock::shared());
    for (int i = 0; i <= replacements; ++i) {
      supervisor.reconcile(
          {DesiredRoute{.key = "monitor:d1:m1",
                        .executableURL = script,
                        .environment = {{"BRISOLA_MONITOR_GAIN", std::to_string(i)}},
                        .summary = "monitor 'Desk' (Studio)"}});
    }
    ASSERT_EQ(supervisor.routes().size(), 1u);
    ASSERT_NE(supervisor.routes().begin()->second.process(), nullptr);
    // The replaced helpers end on SIGTERM and are reaped by the cycles themselves.
    const std::vector<DesiredRoute> plan{supervisor.routes().begin()->second.route()};
    EXPECT_TRUE(eventually([&] {
      supervisor.reconcile(plan);
      return supervisor.terminatingHelperCount() == 0;
    }));
    supervisor.stopAllRoutes();
  }
  EXPECT_TRUE(hasNoChildren());
  EXPECT_EQ(testing::openDescriptorCount(), descriptorsAtStart);
  // None was killed for outliving SIGTERM, and every launch worked.
  std::size_t started = 0;
  for (const std::string& line : log.lines()) {
    EXPECT_FALSE(line.starts_with("Killing ")) << line;
    if (line.starts_with("Started ")) ++started;
  }
  EXPECT_EQ(started, replacements + 1u);
}

}  // namespace
}  // namespace brisola
