#include "service/service_log.hpp"

#include <cstdio>
#include <ctime>

namespace brisola::BrisolaServiceLog {

namespace {
Capture* activeCapture = nullptr;
}

std::string format(std::string_view message, std::chrono::system_clock::time_point time) {
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

void write(std::string_view message) {
  if (activeCapture != nullptr) {
    activeCapture->record(message);
    return;
  }
  std::string line = format(message, std::chrono::system_clock::now());
  line.push_back('\n');
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fflush(stdout);
}

Capture::Capture() : previous_(activeCapture) {
  activeCapture = this;
}
Capture::~Capture() {
  activeCapture = previous_;
}

}  // namespace brisola::BrisolaServiceLog
