#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string_view>

#include "common/desired_route.hpp"
#include "supervision/child_process.hpp"
#include "supervision/clock.hpp"
#include "supervision/helper_reaper.hpp"

namespace brisola {

// Why a helper is asked to terminate; each is logged as "Stopping " + summary + ": " + reason.
namespace StopReason {
inline constexpr std::string_view configurationRemovedRoute = "configuration removed route";
inline constexpr std::string_view configurationChangedRoute = "configuration changed route";
inline constexpr std::string_view serviceStopping = "service stopping";
}  // namespace StopReason

// The helper process of one route key. The route never changes: a changed route gets a new
// ManagedRoute. Exits and failed launches both count as failures; a successful launch resets
// the count, so only launches that fail one after another reach the longer delays.
class ManagedRoute {
 public:
  // Delay before the next start, by the failure count after the failure: 1, 2, 3, 4, 5 and more.
  static constexpr std::array<std::chrono::seconds, 5> restartDelays{
      std::chrono::seconds{2}, std::chrono::seconds{5}, std::chrono::seconds{10},
      std::chrono::seconds{30}, std::chrono::seconds{60}};
  static Clock::duration restartDelay(std::int64_t failureCount);

  // A new route: no process, may start at once, no failures. Stopped helpers go to the reaper.
  ManagedRoute(DesiredRoute route, ProcessLauncher& launcher, Clock& clock, HelperReaper& reaper);
  ManagedRoute(const ManagedRoute&) = delete;
  ManagedRoute& operator=(const ManagedRoute&) = delete;

  // Launches the helper with the base environment overlaid by the route's variables (the
  // route wins). Logs "Started " or "Could not start " and sets the back-off on failure.
  void start(const EnvironmentMap& baseEnvironment);
  // Notices an exit (logged with its status, back-off from now) and starts the helper when
  // none is running and its next start date has come. A helper that has just exited is never
  // restarted in the same call. Without `mayHaveEnded` a running helper is taken at its word.
  void ensureRunning(const EnvironmentMap& baseEnvironment, bool mayHaveEnded = true);
  // Asks a running helper to terminate and hands it to the reaper, without waiting; logs
  // "Stopping " + summary + ": " + reason. Without a process nothing is logged.
  void stop(std::string_view reason);

  const DesiredRoute& route() const { return route_; }
  // The helper, or null when none has been started, it has exited, failed to launch or was
  // stopped.
  const ChildProcess* process() const { return process_.get(); }
  Clock::time_point nextStartDate() const { return nextStartDate_; }
  std::int64_t failureCount() const { return failureCount_; }

 private:
  void recordFailure(Clock::time_point now);

  const DesiredRoute route_;
  std::unique_ptr<ChildProcess> process_;
  Clock::time_point nextStartDate_ = Clock::distantPast();
  std::int64_t failureCount_ = 0;

  ProcessLauncher& launcher_;
  Clock& clock_;
  HelperReaper& reaper_;
};

}  // namespace brisola
