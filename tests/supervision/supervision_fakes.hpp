#pragma once

#include <signal.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "supervision/child_process.hpp"
#include "supervision/clock.hpp"

namespace brisola::testing {

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

}  // namespace brisola::testing
