#include "supervision/route_supervisor.hpp"

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/service_log.hpp"

namespace brisola {
namespace {

using namespace std::chrono_literals;

// Time that moves only when the test (or a sleeping caller) moves it.
class FakeClock final : public Clock {
 public:
  time_point now() override { return now_; }
  void sleepFor(duration interval) override {
    now_ += interval;
    ++sleeps;
  }
  void advance(duration interval) { now_ += interval; }

  int sleeps = 0;

 private:
  time_point now_{};
};

// What the test sees of one fake helper; shared with its handle.
struct FakeProcessState {
  pid_t pid = 0;
  std::filesystem::path executable;
  EnvironmentMap environment;
  bool running = true;
  int status = 0;
  bool endsOnTerminate = true;
  int terminateRequests = 0;
  int killRequests = 0;
  bool handleAlive = true;

  void exit(int code) {
    running = false;
    status = code;
  }
};

class FakeChildProcess final : public ChildProcess {
 public:
  explicit FakeChildProcess(std::shared_ptr<FakeProcessState> state) : state_(std::move(state)) {}
  ~FakeChildProcess() override { state_->handleAlive = false; }

  pid_t pid() const override { return state_->pid; }
  bool isRunning() override { return state_->running; }
  int terminationStatus() const override { return state_->status; }
  void terminate() override {
    ++state_->terminateRequests;
    if (state_->running && state_->endsOnTerminate) state_->exit(SIGTERM);
  }
  void kill() override {
    ++state_->killRequests;
    if (state_->running) state_->exit(SIGKILL);
  }

 private:
  std::shared_ptr<FakeProcessState> state_;
};

// Records every launch; fails them all while `failure` holds a description.
class FakeLauncher final : public ProcessLauncher {
 public:
  LaunchResult launch(const std::filesystem::path& executable,
                      const EnvironmentMap& environment) override {
    ++attempts;
    if (failure) return LaunchError{*failure};
    auto state = std::make_shared<FakeProcessState>();
    state->pid = static_cast<pid_t>(1000 + launches.size());
    state->executable = executable;
    state->environment = environment;
    state->endsOnTerminate = helpersEndOnTerminate;
    launches.push_back(state);
    return std::make_unique<FakeChildProcess>(state);
  }

  std::optional<std::string> failure;
  bool helpersEndOnTerminate = true;
  int attempts = 0;
  std::vector<std::shared_ptr<FakeProcessState>> launches;
};

DesiredRoute makeRoute(std::string key, std::string summary, EnvironmentMap environment = {}) {
  return DesiredRoute{.key = std::move(key),
                      .executableURL = "/helpers/brisola-monitor",
                      .environment = std::move(environment),
                      .summary = std::move(summary)};
}

DesiredRoute deskMonitor() {
  return makeRoute("monitor:d1:m1", "monitor 'Desk' (Studio)",
                   {{"BRISOLA_MONITOR_GAIN", "1.0"}, {"BRISOLA_MONITOR_OUTPUT_UID", "O1"}});
}
DesiredRoute micSource() {
  return makeRoute("hardware:d1:s1", "hardware input 'Mic' (Studio)",
                   {{"BRISOLA_SOURCE_GAIN", "1.0"}, {"BRISOLA_SOURCE_INPUT_UID", "U1"}});
}
DesiredRoute musicTap() {
  return makeRoute("tap:d1:s2", "application 'Music' (Studio)", {{"BRISOLA_TAP_PID", "4242"}});
}

struct Harness {
  FakeClock clock;
  FakeLauncher launcher;
  BrisolaServiceLog::Capture log;
  RouteSupervisor supervisor{
      {{"HOME", "/home/user"}, {"BRISOLA_MONITOR_GAIN", "base"}}, launcher, clock};

  // The fake helper currently running for the key.
  std::shared_ptr<FakeProcessState> helperOf(const std::string& key) const {
    const ChildProcess* process = supervisor.routes().at(key).process();
    for (const auto& state : launcher.launches) {
      if (process != nullptr && state->pid == process->pid()) return state;
    }
    return nullptr;
  }
};

TEST(RouteSupervisorTest, RepeatedLaunchFailuresBackOffTwoFiveTenThirtyThenEverySixtySeconds) {
  Harness h;
  const std::string error = "Could not launch /helpers/brisola-monitor: No such file or directory";
  h.launcher.failure = error;
  const std::vector<DesiredRoute> plan{deskMonitor()};

  // One cycle per second for five minutes.
  std::vector<int> attemptSeconds;
  for (int second = 0; second <= 300; ++second) {
    const int before = h.launcher.attempts;
    h.supervisor.reconcile(plan);
    if (h.launcher.attempts != before) attemptSeconds.push_back(second);
    h.clock.advance(1s);
  }

  EXPECT_EQ(attemptSeconds, (std::vector<int>{0, 2, 7, 17, 47, 107, 167, 227, 287}));
  const ManagedRoute& managed = h.supervisor.routes().at("monitor:d1:m1");
  EXPECT_EQ(managed.failureCount(), 9);
  EXPECT_EQ(managed.process(), nullptr);
  EXPECT_EQ(h.log.lines(),
            std::vector<std::string>(9, "Could not start monitor 'Desk' (Studio): " + error));

  // Once the file is back, the next due attempt succeeds and the count starts over.
  h.launcher.failure.reset();
  h.log.clear();
  h.clock.advance(managed.nextStartDate() - h.clock.now());
  h.supervisor.reconcile(plan);
  EXPECT_EQ(h.log.lines(), std::vector<std::string>{"Started monitor 'Desk' (Studio)"});
  EXPECT_EQ(managed.failureCount(), 0);
  EXPECT_EQ(managed.nextStartDate(), Clock::distantPast());
  ASSERT_NE(managed.process(), nullptr);
}

TEST(RouteSupervisorTest, HelperExitingAfterEveryLaunchRestartsTwoSecondsAfterEachExit) {
  Harness h;
  // One cycle per second; the helper dies right after each launch, alternately with 0 and 3.
  std::vector<std::string> events;
  for (int second = 0; second <= 12; ++second) {
    const std::size_t before = h.log.lines().size();
    h.supervisor.reconcile({deskMonitor()});
    EXPECT_LE(h.supervisor.routes().at("monitor:d1:m1").failureCount(), 1) << second;
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
    std::vector<DesiredRoute> plan{deskMonitor(), micSource(), musicTap()};
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
              (std::vector<std::string>{
                  "Stopping hardware input 'Mic' (Studio): configuration changed route",
                  "Started " + plan[1].summary}));
    ASSERT_EQ(h.launcher.launches.size(), 4u);
    EXPECT_EQ(h.helperOf("hardware:d1:s1"), h.launcher.launches[3]);
    EXPECT_EQ(h.launcher.launches[3]->executable, plan[1].executableURL);
    EXPECT_EQ(h.supervisor.routes().at("hardware:d1:s1").route(), plan[1]);
    int terminateRequests = 0;
    for (const auto& state : h.launcher.launches) terminateRequests += state->terminateRequests;
    EXPECT_EQ(oldMic->terminateRequests, 1);
    EXPECT_EQ(terminateRequests, 1);
  }
}

TEST(RouteSupervisorTest, OnlyRunningHelpersAreStoppedWhenTheirRouteGoesOrTheServiceStops) {
  Harness h;
  h.supervisor.reconcile({deskMonitor(), musicTap()});
  h.launcher.failure = "Could not launch /helpers/brisola-monitor: Permission denied";
  h.supervisor.reconcile({deskMonitor(), micSource(), musicTap()});  // mic never launches
  ASSERT_EQ(h.supervisor.routes().at("hardware:d1:s1").process(), nullptr);
  h.launcher.failure.reset();
  h.helperOf("tap:d1:s2")->exit(1);
  h.log.clear();

  h.supervisor.reconcile({musicTap()});
  h.supervisor.stopAllRoutes();
  EXPECT_EQ(h.log.lines(), (std::vector<std::string>{
                               "Stopping monitor 'Desk' (Studio): configuration removed route",
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

TEST(RouteSupervisorTest, DuplicateKeysKeepTheFirstRouteAndLogTheRest) {
  Harness h;
  DesiredRoute first = deskMonitor();
  DesiredRoute second = deskMonitor();
  second.summary = "monitor 'Desk copy' (Studio)";
  second.environment["BRISOLA_MONITOR_GAIN"] = "0.5";
  const std::vector<DesiredRoute> plan{first, micSource(), second};

  h.supervisor.reconcile(plan);
  const std::string ignored =
      "Ignoring duplicate route monitor:d1:m1: monitor 'Desk copy' (Studio)";
  EXPECT_EQ(h.log.lines(),
            (std::vector<std::string>{ignored, "Started hardware input 'Mic' (Studio)",
                                      "Started monitor 'Desk' (Studio)"}));
  EXPECT_EQ(h.supervisor.routes().at("monitor:d1:m1").route(), first);
  h.log.clear();

  // The same plan again changes nothing: the kept route is not flipped to the duplicate.
  h.supervisor.reconcile(plan);
  EXPECT_EQ(h.log.lines(), std::vector<std::string>{ignored});
  EXPECT_EQ(h.launcher.launches.size(), 2u);
}

TEST(RouteSupervisorTest, HelpersIgnoringTerminateAreKilledAfterTheGracePeriod) {
  Harness h;
  h.launcher.helpersEndOnTerminate = false;
  DesiredRoute changed = deskMonitor();
  changed.environment["BRISOLA_MONITOR_GAIN"] = "0.5";
  h.supervisor.reconcile({deskMonitor()});
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
  EXPECT_EQ(h.log.lines(), std::vector<std::string>{"Killing monitor 'Desk' (Studio): still "
                                                    "running after the terminate request"});
  h.supervisor.reconcile({changed});
  EXPECT_EQ(h.supervisor.terminatingHelperCount(), 0u);
  EXPECT_FALSE(replaced->handleAlive);

  // At shutdown the wait covers helpers stopped earlier too, and ends with the grace period.
  h.supervisor.reconcile({deskMonitor()});
  h.log.clear();
  const Clock::time_point shutdown = h.clock.now();
  h.supervisor.stopAllRoutes();
  EXPECT_GE(h.clock.now() - shutdown, terminationGracePeriod);
  EXPECT_LT(h.clock.now() - shutdown, terminationGracePeriod + 10 * terminationPollInterval);
  EXPECT_EQ(h.log.lines(),
            (std::vector<std::string>{
                "Stopping monitor 'Desk' (Studio): service stopping",
                "Killing monitor 'Desk' (Studio): still running after the terminate request",
                "Killing monitor 'Desk' (Studio): still running after the terminate request"}));
  EXPECT_EQ(h.supervisor.terminatingHelperCount(), 0u);
  for (const auto& state : h.launcher.launches) EXPECT_FALSE(state->handleAlive);
}

}  // namespace
}  // namespace brisola
