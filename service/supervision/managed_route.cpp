#include "supervision/managed_route.hpp"

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include "common/service_log.hpp"

namespace brisola {

Clock::duration ManagedRoute::restartDelay(std::int64_t failureCount) {
  const std::int64_t last = static_cast<std::int64_t>(restartDelays.size()) - 1;
  return restartDelays[static_cast<std::size_t>(
      std::clamp<std::int64_t>(failureCount - 1, 0, last))];
}

ManagedRoute::ManagedRoute(DesiredRoute route, ProcessLauncher& launcher, Clock& clock,
                           HelperReaper& reaper)
    : route_(std::move(route)), launcher_(launcher), clock_(clock), reaper_(reaper) {}

void ManagedRoute::start(const EnvironmentMap& baseEnvironment) {
  EnvironmentMap environment = baseEnvironment;
  for (const auto& [name, value] : route_.environment) environment.insert_or_assign(name, value);

  LaunchResult result = launcher_.launch(route_.executableURL, environment);
  if (auto* process = std::get_if<std::unique_ptr<ChildProcess>>(&result)) {
    process_ = std::move(*process);
    failureCount_ = 0;
    nextStartDate_ = Clock::distantPast();
    BrisolaServiceLog::write("Started " + route_.summary);
  } else {
    recordFailure(clock_.now());
    BrisolaServiceLog::write("Could not start " + route_.summary + ": " +
                             std::get<LaunchError>(result).description);
  }
}

void ManagedRoute::ensureRunning(const EnvironmentMap& baseEnvironment, bool mayHaveEnded) {
  if (process_ && !mayHaveEnded) return;
  const Clock::time_point now = clock_.now();
  if (process_) {
    if (process_->isRunning()) return;
    BrisolaServiceLog::write(route_.summary + " exited with status " +
                             std::to_string(process_->terminationStatus()));
    // The status alone cannot tell "exit 9" from SIGKILL.
    if (const auto signal = process_->terminationSignal()) {
      const char* name = ::sigabbrev_np(*signal);
      BrisolaServiceLog::write(route_.summary + " was ended by signal " + std::to_string(*signal) +
                               (name != nullptr ? std::string(" (SIG") + name + ")" : ""));
    }
    process_.reset();
    recordFailure(now);
  }
  if (now >= nextStartDate_) start(baseEnvironment);
}

void ManagedRoute::stop(std::string_view reason) {
  if (!process_) return;
  BrisolaServiceLog::write("Stopping " + route_.summary + ": " + std::string(reason));
  process_->terminate();
  reaper_.adopt(std::move(process_), route_.summary);
  process_.reset();
}

void ManagedRoute::recordFailure(Clock::time_point now) {
  ++failureCount_;
  nextStartDate_ = now + restartDelay(failureCount_);
}

}  // namespace brisola
