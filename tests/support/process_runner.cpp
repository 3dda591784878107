#include "support/process_runner.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <sstream>
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

namespace {

fs::path findProgram(const fs::path& program) {
  if (program.has_parent_path()) return program;
  const char* path = ::getenv("PATH");
  std::stringstream directories(path != nullptr ? path : "/usr/bin:/bin");
  for (std::string directory; std::getline(directories, directory, ':');) {
    if (::access((fs::path(directory) / program).c_str(), X_OK) == 0) return directory / program;
  }
  throw std::runtime_error(program.string() + " is not installed (scripts/deps.sh installs it)");
}

int statusOf(int raw) {
  return WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> result;
  for (auto& text : texts) result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

}  // namespace

RunningProcess::RunningProcess(const fs::path& program, const std::vector<std::string>& arguments,
                               const std::map<std::string, std::string>& environment,
                               const fs::path& outputDirectory, const fs::path& workingDirectory) {
  static std::atomic<int> counter{0};
  const int index = counter++;
  stdoutPath_ = outputDirectory / ("stdout-" + std::to_string(index) + ".txt");
  stderrPath_ = outputDirectory / ("stderr-" + std::to_string(index) + ".txt");
  // Made here, so that they can be read at once.
  writeFile(stdoutPath_, "");
  writeFile(stderrPath_, "");

  // Everything the child needs is made before fork: only async-signal-safe calls follow it.
  const fs::path executable = findProgram(program);
  std::vector<std::string> argumentTexts{program.string()};
  argumentTexts.insert(argumentTexts.end(), arguments.begin(), arguments.end());
  std::vector<std::string> environmentTexts;
  for (const auto& [name, value] : environment) environmentTexts.push_back(name + "=" + value);
  const auto argv = pointers(argumentTexts), envp = pointers(environmentTexts);
  const std::string out = stdoutPath_.string(), err = stderrPath_.string(),
                    directory = workingDirectory.string();
  const pid_t parent = ::getpid();

  pid_ = ::fork();
  if (pid_ < 0) throw std::runtime_error("could not start " + program.string());
  if (pid_ != 0) return;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) ::_exit(127);
  struct sigaction defaults {};
  defaults.sa_handler = SIG_DFL;
  for (int signal = 1; signal < NSIG; ++signal) ::sigaction(signal, &defaults, nullptr);
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  const int streams[] = {::open("/dev/null", O_RDONLY | O_CLOEXEC),
                         ::open(out.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC),
                         ::open(err.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC)};
  for (int fd = 0; fd < 3; ++fd) {
    if (streams[fd] < 0 || ::dup2(streams[fd], fd) < 0) ::_exit(127);
  }
  if (::chdir(directory.c_str()) == 0) ::execve(executable.c_str(), argv.data(), envp.data());
  ::_exit(127);
}

RunningProcess::~RunningProcess() {
  stop(std::chrono::milliseconds(0));
}

void RunningProcess::signal(int number) const {
  if (!status_) ::kill(pid_, number);
}

std::optional<int> RunningProcess::waitFor(std::chrono::milliseconds timeout) {
  eventually(
      [&] {
        int raw = 0;
        if (!status_ && ::waitpid(pid_, &raw, WNOHANG) == pid_) status_ = statusOf(raw);
        return status_.has_value();
      },
      timeout);
  return status_;
}

void RunningProcess::stop(std::chrono::milliseconds grace) {
  if (grace.count() > 0) {
    signal(SIGTERM);
    if (waitFor(grace)) return;
  }
  signal(SIGKILL);
  int raw = 0;
  if (!status_ && ::waitpid(pid_, &raw, 0) == pid_) status_ = statusOf(raw);
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
