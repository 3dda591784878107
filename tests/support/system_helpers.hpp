#pragma once

// Process-level helpers shared by suites that touch the environment, descriptors, child
// processes and executable files.

#include <dirent.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>

#include "support/temp_dir.hpp"

namespace brisola::testing {

// Sets (or, with nullopt, clears) an environment variable for the life of the object.
class ScopedEnvironment {
 public:
  ScopedEnvironment(const char* name, const std::optional<std::string>& value) : name_(name) {
    if (const char* old = ::getenv(name)) previous_ = old;
    value ? ::setenv(name, value->c_str(), 1) : ::unsetenv(name);
  }
  ~ScopedEnvironment() { previous_ ? ::setenv(name_, previous_->c_str(), 1) : ::unsetenv(name_); }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  const char* name_;
  std::optional<std::string> previous_;
};

// Polls `condition` every `step` until it holds (true) or `limit` has passed (false).
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds limit = std::chrono::seconds(10),
                       std::chrono::milliseconds step = std::chrono::milliseconds(2)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(step);
  }
  return true;
}

// Descriptors open in this process, to show that a call closes what it opened.
inline int openDescriptorCount() {
  int count = 0;
  if (DIR* directory = ::opendir("/proc/self/fd")) {
    while (::readdir(directory) != nullptr) ++count;
    ::closedir(directory);
  }
  return count;
}

// Whether `pid` is running: a zombie still answers kill(pid, 0), its state letter tells it apart.
inline bool alive(pid_t pid, std::string* name = nullptr, pid_t* parent = nullptr) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  std::getline(in, line);
  const auto open = line.find('('), close = line.rfind(')');
  if (close == std::string::npos || close + 2 >= line.size()) return false;
  if (name != nullptr) *name = line.substr(open + 1, close - open - 1);
  if (parent != nullptr) std::istringstream(line.substr(close + 3)) >> *parent;
  return line[close + 2] != 'Z';
}

// The running children of `parent`: their process names and ids.
inline std::multimap<std::string, pid_t> childrenOf(pid_t parent) {
  std::multimap<std::string, pid_t> found;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string id = entry.path().filename();
    std::string name;
    pid_t itsParent = 0;
    if (id.find_first_not_of("0123456789") == std::string::npos &&
        alive(std::stoi(id), &name, &itsParent) && itsParent == parent) {
      found.emplace(name, std::stoi(id));
    }
  }
  return found;
}

// Writes `contents` to `path` with mode 0755 (or `mode`) and returns the path.
inline std::filesystem::path writeExecutable(const std::filesystem::path& path,
                                             std::string_view contents, mode_t mode = 0755) {
  writeFile(path, contents);
  ::chmod(path.c_str(), mode);
  return path;
}

}  // namespace brisola::testing
