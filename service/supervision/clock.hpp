#pragma once

#include <chrono>

namespace brisola {

// The supervisor's source of time, so back-off and termination deadlines can be tested
// without waiting.
class Clock {
 public:
  using duration = std::chrono::steady_clock::duration;
  using time_point = std::chrono::steady_clock::time_point;

  // Earlier than every time now() returns: "start at once".
  static constexpr time_point distantPast() { return time_point::min(); }

  virtual ~Clock() = default;
  virtual time_point now() = 0;
  // Blocks the calling thread for about the given time (a fake advances its time instead).
  virtual void sleepFor(duration interval) = 0;
};

// Monotonic time: back-off is unaffected when the wall clock is set.
class SteadyClock final : public Clock {
 public:
  time_point now() override;
  void sleepFor(duration interval) override;

  // A process-wide instance; the clock has no state.
  static SteadyClock& shared();
};

}  // namespace brisola
