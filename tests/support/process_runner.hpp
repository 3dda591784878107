#pragma once

// Runs a built program as a separate process for end-to-end tests: a chosen environment,
// output collected in files, signals, and waits that cannot hang a test.

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace brisola::testing {

// Where the build put its programs (set by CMake for the test executables).
std::filesystem::path buildDirectory();

class RunningProcess {
 public:
  // Starts `program` (looked up in PATH when it is a bare name) with exactly `environment`, in
  // `workingDirectory`, with default signal handling, standard input from /dev/null and
  // standard output and error into files inside `outputDirectory`. It gets SIGKILL when the
  // thread that started it ends, so nothing outlives a test killed by its time limit.
  RunningProcess(const std::filesystem::path& program, const std::vector<std::string>& arguments,
                 const std::map<std::string, std::string>& environment,
                 const std::filesystem::path& outputDirectory,
                 const std::filesystem::path& workingDirectory);
  ~RunningProcess();  // kills and reaps a process that is still running
  RunningProcess(const RunningProcess&) = delete;
  RunningProcess& operator=(const RunningProcess&) = delete;

  pid_t pid() const { return pid_; }
  void signal(int number) const;
  // The exit status (exit code, or 128 + signal number) once the process has ended, or nothing
  // when it is still running after `timeout`.
  std::optional<int> waitFor(std::chrono::milliseconds timeout);
  bool running() { return !waitFor(std::chrono::milliseconds(0)); }
  // SIGTERM, then SIGKILL if it has not ended within `grace`; reaps it.
  void stop(std::chrono::milliseconds grace = std::chrono::seconds(2));
  std::string standardOutput() const;
  std::string standardError() const;
  // Waits until standard output holds `count` lines containing `text`; false on timeout.
  bool waitForOutput(const std::string& text, std::chrono::milliseconds timeout, int count = 1);

 private:
  pid_t pid_ = -1;
  std::optional<int> status_;
  std::filesystem::path stdoutPath_;
  std::filesystem::path stderrPath_;
};

// The environment of this test process, for children that need PATH and friends.
std::map<std::string, std::string> currentEnvironment();

// Runs to completion (at most `timeout`) and returns {status, stdout, stderr}.
struct Completed {
  int status = -1;
  std::string out;
  std::string err;
};
Completed runToCompletion(const std::filesystem::path& program,
                          const std::vector<std::string>& arguments,
                          const std::map<std::string, std::string>& environment,
                          const std::filesystem::path& workingDirectory,
                          std::chrono::milliseconds timeout = std::chrono::seconds(20));

int countOccurrences(const std::string& text, const std::string& needle);

}  // namespace brisola::testing
