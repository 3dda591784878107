#include "supervision/posix_process_launcher.hpp"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <system_error>
#include <thread>
#include <vector>

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
};

class SpawnAttributes {
 public:
  SpawnAttributes() { initError_ = ::posix_spawnattr_init(&attributes_); }
  ~SpawnAttributes() {
    if (initError_ == 0) ::posix_spawnattr_destroy(&attributes_);
  }
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;

  // Every signal back to its default action and nothing blocked: the service ignores and
  // blocks SIGTERM for its own signal handling, and the child must not inherit that.
  int resetSignals() {
    if (initError_ != 0) return initError_;
    sigset_t all;
    sigset_t none;
    ::sigfillset(&all);
    ::sigemptyset(&none);
    if (int error = ::posix_spawnattr_setsigdefault(&attributes_, &all)) return error;
    if (int error = ::posix_spawnattr_setsigmask(&attributes_, &none)) return error;
    return ::posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  }
  const posix_spawnattr_t* get() const { return &attributes_; }

 private:
  posix_spawnattr_t attributes_{};
  int initError_ = 0;
};

class SpawnFileActions {
 public:
  SpawnFileActions() { initError_ = ::posix_spawn_file_actions_init(&actions_); }
  ~SpawnFileActions() {
    if (initError_ == 0) ::posix_spawn_file_actions_destroy(&actions_);
  }
  SpawnFileActions(const SpawnFileActions&) = delete;
  SpawnFileActions& operator=(const SpawnFileActions&) = delete;

  // Descriptors opened without O_CLOEXEC (by a library, say) must not reach a helper either.
  int keepOnlyStandardStreams() {
    if (initError_ != 0) return initError_;
    return ::posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1);
  }
  const posix_spawn_file_actions_t* get() const { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
  int initError_ = 0;
};

LaunchError launchError(const std::filesystem::path& executable, int error) {
  return LaunchError{"Could not launch " + executable.string() + ": " +
                     std::generic_category().message(error)};
}

}  // namespace

LaunchResult PosixProcessLauncher::launch(const std::filesystem::path& executable,
                                          const EnvironmentMap& environment) {
  SpawnAttributes attributes;
  if (int error = attributes.resetSignals()) return launchError(executable, error);
  SpawnFileActions actions;
  if (int error = actions.keepOnlyStandardStreams()) return launchError(executable, error);

  std::string path = executable.string();
  std::vector<char*> arguments{path.data(), nullptr};
  std::vector<std::string> entries;
  entries.reserve(environment.size());
  for (const auto& [name, value] : environment) entries.push_back(name + "=" + value);
  std::vector<char*> entryPointers;
  entryPointers.reserve(entries.size() + 1);
  for (std::string& entry : entries) entryPointers.push_back(entry.data());
  entryPointers.push_back(nullptr);

  pid_t pid = 0;
  // glibc runs the child until exec before returning, so a missing or non-executable file
  // is reported here rather than as an exit status of 127.
  int error = ::posix_spawn(&pid, path.c_str(), actions.get(), attributes.get(), arguments.data(),
                            entryPointers.data());
  if (error != 0) return launchError(executable, error);
  return std::make_unique<PosixChildProcess>(pid);
}

PosixProcessLauncher& PosixProcessLauncher::shared() {
  static PosixProcessLauncher launcher;
  return launcher;
}

}  // namespace brisola
