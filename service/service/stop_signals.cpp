#include "service/stop_signals.hpp"

#include <poll.h>
#include <pthread.h>
#include <sys/signalfd.h>

#include <cerrno>
#include <cmath>
#include <ctime>
#include <system_error>

namespace brisola {

namespace {
sigset_t stopSet() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  return set;
}
}  // namespace

StopSignals::StopSignals() {
  sigset_t set = stopSet();
  if (int error = ::pthread_sigmask(SIG_BLOCK, &set, &previousMask_); error != 0) {
    throw std::system_error(error, std::generic_category(), "Could not block stop signals");
  }
  fd_.reset(::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!fd_) {
    int error = errno;
    ::pthread_sigmask(SIG_SETMASK, &previousMask_, nullptr);
    throw std::system_error(error, std::generic_category(), "Could not watch stop signals");
  }
}

StopSignals::~StopSignals() {
  fd_.reset();
  ::pthread_sigmask(SIG_SETMASK, &previousMask_, nullptr);
}

bool StopSignals::drain() {
  signalfd_siginfo info{};
  while (::read(fd_.get(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
    stopRequested_ = true;
  }
  return stopRequested_;
}

bool StopSignals::stopRequested() {
  return drain();
}

bool StopSignals::sleep(std::chrono::duration<double> interval) {
  if (drain()) return true;
  const double seconds = interval.count();
  timespec deadline{};
  ::clock_gettime(CLOCK_MONOTONIC, &deadline);
  double whole = std::floor(seconds);
  deadline.tv_sec += static_cast<time_t>(whole);
  deadline.tv_nsec += static_cast<long>((seconds - whole) * 1e9);
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1000000000L;
  }
  for (;;) {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    timespec left{deadline.tv_sec - now.tv_sec, deadline.tv_nsec - now.tv_nsec};
    if (left.tv_nsec < 0) {
      left.tv_sec -= 1;
      left.tv_nsec += 1000000000L;
    }
    if (left.tv_sec < 0) return drain();
    pollfd watch{fd_.get(), POLLIN, 0};
    int ready = ::ppoll(&watch, 1, &left, nullptr);
    if (ready > 0 && drain()) return true;
    if (ready == 0) return drain();
    // EINTR (another signal) or a spurious wake-up: wait for the rest of the interval.
  }
}

}  // namespace brisola
