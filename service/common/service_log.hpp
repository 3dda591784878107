#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace brisola {

// The service's one log writer: "[" + UTC time with whole seconds and "Z" + "] " + message,
// on standard output, flushed after every line.
namespace BrisolaServiceLog {

void write(std::string_view message);

// The line as written at the given time, without the line feed.
std::string format(std::string_view message, std::chrono::system_clock::time_point time);

// Collects the messages (without time stamps) written while it lives, instead of printing
// them: for tests, and for the service to repeat what a plan it reuses had to say. Captures
// nest; not thread-safe against concurrent writers.
class Capture {
 public:
  Capture();
  ~Capture();
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;
  const std::vector<std::string>& lines() const { return lines_; }
  void record(std::string_view message) { lines_.emplace_back(message); }
  void clear() { lines_.clear(); }

 private:
  std::vector<std::string> lines_;
  Capture* previous_;
};

}  // namespace BrisolaServiceLog
}  // namespace brisola
