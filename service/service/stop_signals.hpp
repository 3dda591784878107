#pragma once

#include <chrono>

#include <csignal>

#include "brisola/platform/unique_fd.hpp"

namespace brisola {

// SIGTERM and SIGINT as events instead of process death: both are blocked in the calling
// thread (construct it before any thread starts, so every thread inherits the mask) and read
// from a signal descriptor. The sleep between cycles waits on that descriptor, so a stop
// signal cuts it short. Helpers get an empty mask when they are launched.
class StopSignals {
 public:
  StopSignals();
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  // Sleeps up to `seconds`; returns early when a stop signal arrives. Returns whether a stop
  // signal has been received, now or before. Later signals change nothing.
  bool sleep(std::chrono::duration<double> interval);
  bool stopRequested();

 private:
  bool drain();
  UniqueFd fd_;
  sigset_t previousMask_{};
  bool stopRequested_ = false;
};

}  // namespace brisola
