#include "support/process_runner.hpp"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <stdexcept>

#include "support/system_helpers.hpp"

extern char** environ;

namespace brisola::testing {

namespace fs = std::filesystem;

fs::path buildDirectory() {
#ifdef BRISOLA_BUILD_DIR
  return fs::path(BRISOLA_BUILD_DIR);
#else
  return fs::current_path();
#endif
}

std::map<std::string, std::string> currentEnvironment() {
  std::map<std::string, std::string> result;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    std::string text(*entry);
    auto equals = text.find('=');
    if (equals != std::string::npos) result[text.substr(0, equals)] = text.substr(equals + 1);
  }
  return result;
}

RunningProcess::RunningProcess(const fs::path& program, const std::vector<std::string>& arguments,
                               const std::map<std::string, std::string>& environment,
                               const fs::path& outputDirectory, const fs::path& workingDirectory) {
  static std::atomic<int> counter{0};
  int index = counter++;
  stdoutPath_ = outputDirectory / ("stdout-" + std::to_string(index) + ".txt");
  stderrPath_ = outputDirectory / ("stderr-" + std::to_string(index) + ".txt");

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, stdoutPath_.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, stderrPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  posix_spawn_file_actions_addchdir_np(&actions, workingDirectory.c_str());
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t empty, all;
  sigemptyset(&empty);
  sigfillset(&all);
  posix_spawnattr_setsigmask(&attributes, &empty);
  posix_spawnattr_setsigdefault(&attributes, &all);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  std::vector<std::string> argumentTexts{program.string()};
  argumentTexts.insert(argumentTexts.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (auto& text : argumentTexts) argv.push_back(text.data());
  argv.push_back(nullptr);
  std::vector<std::string> environmentTexts;
  for (const auto& [name, value] : environment) environmentTexts.push_back(name + "=" + value);
  std::vector<char*> envp;
  for (auto& text : environmentTexts) envp.push_back(text.data());
  envp.push_back(nullptr);

  int error =
      ::posix_spawn(&pid_, program.c_str(), &actions, &attributes, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  if (error != 0) throw std::runtime_error("could not start " + program.string());
}

RunningProcess::~RunningProcess() {
  if (!status_) {
    ::kill(pid_, SIGKILL);
    int ignored = 0;
    ::waitpid(pid_, &ignored, 0);
  }
}

void RunningProcess::signal(int number) const {
  if (!status_) ::kill(pid_, number);
}

std::optional<int> RunningProcess::waitFor(std::chrono::milliseconds timeout) {
  eventually(
      [&] {
        int raw = 0;
        if (!status_ && ::waitpid(pid_, &raw, WNOHANG) == pid_) {
          status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
        }
        return status_.has_value();
      },
      timeout);
  return status_;
}

std::string RunningProcess::standardOutput() const {
  return readFile(stdoutPath_);
}
std::string RunningProcess::standardError() const {
  return readFile(stderrPath_);
}

bool RunningProcess::waitForOutput(const std::string& text, std::chrono::milliseconds timeout,
                                   int count) {
  return eventually([&] { return countOccurrences(standardOutput(), text) >= count; }, timeout,
                    std::chrono::milliseconds(10));
}

Completed runToCompletion(const fs::path& program, const std::vector<std::string>& arguments,
                          const std::map<std::string, std::string>& environment,
                          const fs::path& workingDirectory, std::chrono::milliseconds timeout) {
  TempDir output;
  RunningProcess process(program, arguments, environment, output.path(), workingDirectory);
  const int status = process.waitFor(timeout).value_or(-1);
  return {status, process.standardOutput(), process.standardError()};
}

int countOccurrences(const std::string& text, const std::string& needle) {
  int count = 0;
  for (auto at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
    ++count;
  }
  return count;
}

}  // namespace brisola::testing
