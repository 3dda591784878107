#include "common/service_log.hpp"

#include <cstdio>

#include "brisola/platform/log_line.hpp"

namespace brisola::BrisolaServiceLog {

namespace {
Capture* activeCapture = nullptr;
}

std::string format(std::string_view message, std::chrono::system_clock::time_point time) {
  return logLine(message, time);
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
