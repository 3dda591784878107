#pragma once

#include <filesystem>
#include <map>
#include <string>

namespace brisola {

// One helper process that the document asks for. Every field, and every environment entry,
// is part of the identity of a running helper: a change restarts it.
struct DesiredRoute {
  std::string key;  // "monitor:<device>:<monitor>", "hardware:<device>:<source>", ...
  std::filesystem::path executableURL;
  std::map<std::string, std::string> environment;
  std::string summary;  // human-readable, used in every log line about the route
  bool operator==(const DesiredRoute&) const = default;
};

}  // namespace brisola
