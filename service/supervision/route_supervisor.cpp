#include "supervision/route_supervisor.hpp"

#include <string_view>
#include <unordered_set>
#include <utility>

#include "common/service_log.hpp"
#include "supervision/posix_process_launcher.hpp"

namespace brisola {

RouteSupervisor::RouteSupervisor(EnvironmentMap baseEnvironment)
    : RouteSupervisor(std::move(baseEnvironment), PosixProcessLauncher::shared(),
                      SteadyClock::shared()) {}

RouteSupervisor::RouteSupervisor(EnvironmentMap baseEnvironment, ProcessLauncher& launcher,
                                 Clock& clock, Clock::duration gracePeriod)
    : environment_(std::move(baseEnvironment)),
      launcher_(launcher),
      clock_(clock),
      reaper_(clock, gracePeriod) {}

RouteSupervisor::~RouteSupervisor() {
  if (routes_.empty() && reaper_.count() == 0) return;
  try {
    stopAllRoutes();
  } catch (...) {
    // Only logging can throw here; the helpers' handles still kill and reap them.
  }
}

void RouteSupervisor::reconcile(const std::vector<DesiredRoute>& desired) {
  reaper_.collect();

  duplicateLines_.clear();
  std::unordered_set<std::string_view> keys;
  std::vector<const DesiredRoute*> plan;
  keys.reserve(desired.size());
  plan.reserve(desired.size());
  for (const DesiredRoute& route : desired) {
    if (keys.insert(route.key).second) {
      plan.push_back(&route);
    } else {
      duplicateLines_.push_back("Ignoring duplicate route " + route.key + ": " + route.summary);
      BrisolaServiceLog::write(duplicateLines_.back());
    }
  }

  for (auto entry = routes_.begin(); entry != routes_.end();) {
    if (keys.contains(entry->first)) {
      ++entry;
      continue;
    }
    entry->second.stop(StopReason::configurationRemovedRoute);
    entry = routes_.erase(entry);
  }

  for (const DesiredRoute* route : plan) {
    auto existing = routes_.find(route->key);
    if (existing != routes_.end()) {
      if (existing->second.route() == *route) continue;
      existing->second.stop(StopReason::configurationChangedRoute);
      routes_.erase(existing);
    }
    routes_.try_emplace(route->key, *route, launcher_, clock_, reaper_);
  }

  startPass();
}

void RouteSupervisor::keepRunning() {
  reaper_.collect();
  for (const auto& line : duplicateLines_) BrisolaServiceLog::write(line);
  startPass();
}

void RouteSupervisor::startPass() {
  // One question to the system instead of one per helper, while none has ended.
  const bool mayHaveEnded = launcher_.anyChildMayHaveEnded();
  for (auto& [key, managed] : routes_) managed.ensureRunning(environment_, mayHaveEnded);
}

void RouteSupervisor::stopAllRoutes() {
  for (auto& [key, managed] : routes_) managed.stop(StopReason::serviceStopping);
  routes_.clear();
  reaper_.drain();
}

}  // namespace brisola
