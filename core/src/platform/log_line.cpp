#include "brisola/platform/log_line.hpp"

#include <ctime>

namespace brisola {

std::string logLine(std::string_view message, std::chrono::system_clock::time_point time) {
  std::time_t seconds =
      std::chrono::system_clock::to_time_t(std::chrono::floor<std::chrono::seconds>(time));
  std::tm utc{};
  ::gmtime_r(&seconds, &utc);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%SZ", &utc);
  std::string line;
  line.reserve(message.size() + 24);
  line.append("[").append(stamp).append("] ").append(message);
  return line;
}

}  // namespace brisola
