#include "supervision/clock.hpp"

#include <thread>

namespace brisola {

Clock::time_point SteadyClock::now() {
  return std::chrono::steady_clock::now();
}

void SteadyClock::sleepFor(duration interval) {
  std::this_thread::sleep_for(interval);
}

SteadyClock& SteadyClock::shared() {
  static SteadyClock clock;
  return clock;
}

}  // namespace brisola
