#pragma once

#include <algorithm>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "brisola/validation/validation.hpp"

namespace brisola {

// Readable failure output: one issue per line rather than bytes.
inline void PrintTo(const ValidationIssue& issue, std::ostream* out) {
  *out << "{" << issue.code << " | " << issue.message << " | " << issue.path << "}";
}

namespace testing {

// Issues written one per line as "code | message | path"; blank lines are skipped.
inline std::vector<ValidationIssue> issues(std::string_view table) {
  std::vector<ValidationIssue> result;
  while (!table.empty()) {
    std::string_view line = table.substr(0, table.find('\n'));
    table.remove_prefix(std::min(table.size(), line.size() + 1));
    line.remove_prefix(std::min(line.size(), line.find_first_not_of(' ')));
    if (line.empty()) continue;
    const auto first = line.find(" | "), second = line.rfind(" | ");
    result.push_back({std::string(line.substr(0, first)),
                      std::string(line.substr(first + 3, second - first - 3)),
                      std::string(line.substr(second + 3))});
  }
  return result;
}

inline std::vector<std::string> codes(const std::vector<ValidationIssue>& issues) {
  std::vector<std::string> result;
  for (const auto& issue : issues) result.push_back(issue.code);
  return result;
}

}  // namespace testing
}  // namespace brisola
