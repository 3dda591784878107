#pragma once

// Helpers that run until they are stopped, for whatever drives a supervisor without starting
// processes (the service's cycle in tests and benchmarks). Needs the service's headers.

#include <memory>

#include "supervision/route_supervisor.hpp"

namespace brisola::testing {

class IdleChild final : public ChildProcess {
 public:
  pid_t pid() const override { return 1; }
  bool isRunning() override { return !ended_; }
  int terminationStatus() const override { return 0; }
  void terminate() override { ended_ = true; }
  void kill() override { ended_ = true; }

 private:
  bool ended_ = false;
};

class IdleLauncher final : public ProcessLauncher {
 public:
  LaunchResult launch(const std::filesystem::path&, const EnvironmentMap&) override {
    return std::make_unique<IdleChild>();
  }
};

}  // namespace brisola::testing
