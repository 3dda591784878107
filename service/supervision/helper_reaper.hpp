#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "supervision/child_process.hpp"
#include "supervision/clock.hpp"

namespace brisola {

// How long a helper may take to end after its terminate request before it gets SIGKILL.
inline constexpr std::chrono::seconds terminationGracePeriod{3};
// How often a shutdown looks whether the helpers have ended.
inline constexpr std::chrono::milliseconds terminationPollInterval{2};
// How long a shutdown waits for killed helpers to disappear before it gives up on them.
inline constexpr std::chrono::seconds killedHelperReapLimit{1};

// Keeps the helpers that were asked to terminate and dropped by their route until they have
// ended, so none is left a zombie and none ignores its terminate request for ever.
class HelperReaper {
 public:
  HelperReaper(Clock& clock, Clock::duration gracePeriod);
  HelperReaper(const HelperReaper&) = delete;
  HelperReaper& operator=(const HelperReaper&) = delete;

  // Takes a helper whose terminate request has just been sent.
  void adopt(std::unique_ptr<ChildProcess> process, std::string summary);

  // Does not wait: reaps the helpers that have ended and kills those still alive a grace
  // period after their terminate request (a later call reaps them).
  void collect();

  // Waits at most one grace period for every helper to end, then kills the rest and waits
  // for them (at most killedHelperReapLimit). Returns as soon as all have ended.
  void drain();

  // Helpers taken and not yet seen to end.
  std::size_t count() const { return helpers_.size(); }
  Clock::duration gracePeriod() const { return gracePeriod_; }

 private:
  struct Helper {
    std::unique_ptr<ChildProcess> process;
    std::string summary;
    Clock::time_point killDate;
    bool killed = false;
  };

  void reapEnded();
  void kill(Helper& helper);
  // Polls until every helper has ended or the deadline has passed.
  void waitUntil(Clock::time_point deadline);

  Clock& clock_;
  Clock::duration gracePeriod_;
  std::vector<Helper> helpers_;
};

}  // namespace brisola
