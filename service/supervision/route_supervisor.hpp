#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "common/desired_route.hpp"
#include "supervision/child_process.hpp"
#include "supervision/clock.hpp"
#include "supervision/helper_reaper.hpp"
#include "supervision/managed_route.hpp"

namespace brisola {

// Keeps the helper processes in line with the planned routes: one ManagedRoute per route key.
// Everything runs on the calling thread; exits are found by polling once per reconcile.
class RouteSupervisor {
 public:
  // With fork/exec and the steady clock. The base environment is the service's own; every
  // helper gets it overlaid by its route's variables.
  explicit RouteSupervisor(EnvironmentMap baseEnvironment);
  RouteSupervisor(EnvironmentMap baseEnvironment, ProcessLauncher& launcher, Clock& clock,
                  Clock::duration gracePeriod = terminationGracePeriod);
  // Stops whatever is still supervised, as stopAllRoutes() does.
  ~RouteSupervisor();
  RouteSupervisor(const RouteSupervisor&) = delete;
  RouteSupervisor& operator=(const RouteSupervisor&) = delete;

  // Reaps helpers stopped earlier (killing those that outlived the grace period), then:
  // removal pass (routes no longer planned are stopped and dropped), adoption pass (in plan
  // order: equal routes are kept untouched, changed ones stopped and replaced, new ones
  // added) and start pass (ensureRunning on every route). Of several routes with one key
  // the first is kept and each other one is logged as
  // "Ignoring duplicate route " + key + ": " + summary.
  void reconcile(const std::vector<DesiredRoute>& desired);

  // What reconcile does when given the same routes as last time, at a fraction of the cost:
  // reaping, the duplicate lines again, and the start pass.
  void keepRunning();

  // Asks every helper to terminate ("Stopping " + summary + ": service stopping" for those
  // with a process), empties the routes, then waits at most the grace period for all
  // helpers, those stopped earlier included, and kills and reaps whatever is left. Returns as
  // soon as every helper has ended.
  void stopAllRoutes();

  const std::map<std::string, ManagedRoute>& routes() const { return routes_; }
  const EnvironmentMap& baseEnvironment() const { return environment_; }
  // Helpers asked to terminate that have not yet been seen to end.
  std::size_t terminatingHelperCount() const { return reaper_.count(); }

 private:
  void startPass();

  EnvironmentMap environment_;
  ProcessLauncher& launcher_;
  Clock& clock_;
  // Declared before the routes, which hand their stopped helpers to it.
  HelperReaper reaper_;
  std::map<std::string, ManagedRoute> routes_;
  std::vector<std::string> duplicateLines_;  // of the last reconcile
};

}  // namespace brisola
