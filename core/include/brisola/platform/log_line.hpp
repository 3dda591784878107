#pragma once

#include <chrono>
#include <string>
#include <string_view>

namespace brisola {

// "[" + UTC time with whole seconds and "Z" + "] " + message: the form of every log line of
// the service and the audio programs, without the line feed.
std::string logLine(std::string_view message, std::chrono::system_clock::time_point time);

}  // namespace brisola
