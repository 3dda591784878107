#pragma once

// Helpers that are no processes, for whatever drives a supervisor without starting any (the
// supervisor's and the service's tests, benchmarks of the cycle). Needs the service's headers.

#include <csignal>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "supervision/route_supervisor.hpp"

namespace brisola::testing {

// What the test sees of one fake helper; shared with its handle.
struct FakeProcessState {
  pid_t pid = 0;
  std::filesystem::path executable;
  bool running = true, endsOnTerminate = true, handleAlive = true;
  int status = 0, terminateRequests = 0, killRequests = 0;
  void exit(int code) { running = false, status = code; }
};

struct FakeChildProcess final : ChildProcess {
  explicit FakeChildProcess(std::shared_ptr<FakeProcessState> state) : s(std::move(state)) {}
  ~FakeChildProcess() override { s->handleAlive = false; }
  pid_t pid() const override { return s->pid; }
  bool isRunning() override { return s->running; }
  int terminationStatus() const override { return s->status; }
  void terminate() override {
    if (++s->terminateRequests, s->running && s->endsOnTerminate) s->exit(SIGTERM);
  }
  void kill() override {
    if (++s->killRequests, s->running) s->exit(SIGKILL);
  }
  std::shared_ptr<FakeProcessState> s;
};

// Records every launch; its helpers run until stopped. Fails every launch while `failure` holds
// a description.
struct FakeLauncher final : ProcessLauncher {
  LaunchResult launch(const std::filesystem::path& executable, const EnvironmentMap&) override {
    ++attempts;
    if (failure) return LaunchError{*failure};
    launches.push_back(std::make_shared<FakeProcessState>(
        FakeProcessState{.pid = static_cast<pid_t>(1000 + launches.size()),
                         .executable = executable,
                         .endsOnTerminate = helpersEndOnTerminate}));
    return std::make_unique<FakeChildProcess>(launches.back());
  }

  std::optional<std::string> failure;
  bool helpersEndOnTerminate = true;
  int attempts = 0;
  std::vector<std::shared_ptr<FakeProcessState>> launches;
};

}  // namespace brisola::testing
