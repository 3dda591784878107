#include "supervision/posix_process_launcher.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <system_error>
#include <thread>
#include <vector>

#include "brisola/platform/unique_fd.hpp"

namespace brisola {

namespace {

// A killed child normally disappears within microseconds; one stuck in an uninterruptible
// wait must not hang whoever drops its handle.
constexpr std::chrono::seconds killedChildReapLimit{1};
constexpr std::chrono::microseconds killedChildPollInterval{200};

class PosixChildProcess final : public ChildProcess {
 public:
  explicit PosixChildProcess(pid_t pid) : pid_(pid) {}
  PosixChildProcess(const PosixChildProcess&) = delete;
  PosixChildProcess& operator=(const PosixChildProcess&) = delete;

  ~PosixChildProcess() override {
    if (collect()) return;
    ::kill(pid_, SIGKILL);
    const auto deadline = std::chrono::steady_clock::now() + killedChildReapLimit;
    while (!collect() && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(killedChildPollInterval);
    }
  }

  pid_t pid() const override { return pid_; }
  bool isRunning() override { return !collect(); }
  int terminationStatus() const override { return status_; }
  std::optional<int> terminationSignal() const override { return signal_; }
  void terminate() override { signal(SIGTERM); }
  void kill() override { signal(SIGKILL); }

 private:
  // Until the child is reaped its pid cannot be reused, so signalling it is safe.
  void signal(int number) {
    if (!reaped_) ::kill(pid_, number);
  }

  // True when the child has ended and is reaped (by this call or an earlier one).
  bool collect() {
    if (reaped_) return true;
    int raw = 0;
    pid_t result = 0;
    do {
      result = ::waitpid(pid_, &raw, WNOHANG);
    } while (result == -1 && errno == EINTR);
    if (result == 0) return false;
    reaped_ = true;
    if (result == pid_) {
      status_ = WIFSIGNALED(raw) ? WTERMSIG(raw) : WEXITSTATUS(raw);
      if (WIFSIGNALED(raw)) signal_ = WTERMSIG(raw);
    } else {
      // ECHILD: something else collected the child (SIGCHLD ignored, or a waitpid(-1)
      // elsewhere); it has ended but its status is lost.
      status_ = -1;
    }
    return true;
  }

  pid_t pid_;
  bool reaped_ = false;
  int status_ = 0;
  std::optional<int> signal_;
};

// Hands the child's errno to the launcher and ends the child.
[[noreturn]] void failLaunch(int errorPipe, int error) {
  while (::write(errorPipe, &error, sizeof error) == -1 && errno == EINTR) {
  }
  ::_exit(127);
}

// What the child does between fork and exec: only async-signal-safe calls, since the service
// may have other threads whose locks the copy inherits in whatever state they were.
[[noreturn]] void becomeHelper(pid_t service, int errorPipe, const char* path,
                               char* const* arguments, char* const* environment) {
  // Killed with the service however it ends, SIGKILL included. A service that died before
  // this call would never send the signal: then the child is already an orphan.
  if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) failLaunch(errorPipe, errno);
  if (::getppid() != service) ::_exit(127);
  // Every signal back to its default action and nothing blocked: the service ignores and
  // blocks SIGTERM for its own signal handling. Signals that cannot be reset are skipped.
  struct sigaction defaultAction {};
  defaultAction.sa_handler = SIG_DFL;
  for (int number = 1; number < NSIG; ++number) ::sigaction(number, &defaultAction, nullptr);
  // Descriptors opened without O_CLOEXEC (by a library, say) must not reach a helper either;
  // the error pipe closes itself on exec.
  const unsigned first = STDERR_FILENO + 1;
  const auto pipe = static_cast<unsigned>(errorPipe);
  if (pipe > first) ::close_range(first, pipe - 1, 0);
  ::close_range(pipe < first ? first : pipe + 1, ~0U, 0);
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  ::execve(path, arguments, environment);
  failLaunch(errorPipe, errno);
}

// Blocks every signal for its lifetime, so the forked child runs no handler of the service's
// before it has reset them.
class AllSignalsBlocked {
 public:
  AllSignalsBlocked() {
    sigset_t all;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &previous_);
  }
  ~AllSignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }
  AllSignalsBlocked(const AllSignalsBlocked&) = delete;
  AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;

 private:
  sigset_t previous_{};
};

LaunchError launchError(const std::filesystem::path& executable, int error) {
  return LaunchError{"Could not launch " + executable.string() + ": " +
                     std::generic_category().message(error)};
}

}  // namespace

bool PosixProcessLauncher::anyChildMayHaveEnded() {
  siginfo_t info{};
  int result = 0;
  do {
    result = ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT);
  } while (result == -1 && errno == EINTR);
  // No children at all (ECHILD) while helpers are believed to run: let them find out.
  return result == -1 || info.si_pid != 0;
}

LaunchResult PosixProcessLauncher::launch(const std::filesystem::path& executable,
                                          const EnvironmentMap& environment) {
  // Ended children must stay until collected, statuses and all: a SIGCHLD ignored by whoever
  // started this process would have the kernel drop them unseen.
  struct sigaction childSignal {};
  if (::sigaction(SIGCHLD, nullptr, &childSignal) == 0 && childSignal.sa_handler == SIG_IGN) {
    childSignal.sa_handler = SIG_DFL;
    ::sigaction(SIGCHLD, &childSignal, nullptr);
  }
  std::string path = executable.string();
  std::vector<char*> arguments{path.data(), nullptr};
  std::vector<std::string> entries;
  entries.reserve(environment.size());
  for (const auto& [name, value] : environment) entries.push_back(name + "=" + value);
  std::vector<char*> entryPointers;
  entryPointers.reserve(entries.size() + 1);
  for (std::string& entry : entries) entryPointers.push_back(entry.data());
  entryPointers.push_back(nullptr);

  // The child reports a failed exec through this pipe; a successful one closes it, so a
  // missing or non-executable file is reported here rather than as an exit status of 127.
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return launchError(executable, errno);
  UniqueFd readEnd(ends[0]);
  UniqueFd writeEnd(ends[1]);
  const pid_t service = ::getpid();
  pid_t pid = -1;
  {
    AllSignalsBlocked blocked;
    pid = ::fork();
    if (pid == 0) {
      becomeHelper(service, writeEnd.get(), path.c_str(), arguments.data(), entryPointers.data());
    }
  }
  if (pid < 0) return launchError(executable, errno);
  writeEnd.reset();
  int childError = 0;
  ssize_t got = 0;
  do {
    got = ::read(readEnd.get(), &childError, sizeof childError);
  } while (got == -1 && errno == EINTR);
  auto child = std::make_unique<PosixChildProcess>(pid);
  if (got == static_cast<ssize_t>(sizeof childError)) {
    child.reset();  // reaps the child, which has exited
    return launchError(executable, childError);
  }
  return child;
}

PosixProcessLauncher& PosixProcessLauncher::shared() {
  static PosixProcessLauncher launcher;
  return launcher;
}

}  // namespace brisola
