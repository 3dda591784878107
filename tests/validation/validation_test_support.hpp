#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "brisola/validation/validation.hpp"

namespace brisola {

// Readable failure output: one issue per line rather than bytes.
inline void PrintTo(const ValidationIssue& issue, std::ostream* out) {
  *out << "{" << issue.code << " | " << issue.message << " | " << issue.path << "}";
}

namespace testing {

inline std::vector<std::string> codes(const std::vector<ValidationIssue>& issues) {
  std::vector<std::string> result;
  for (const auto& issue : issues) result.push_back(issue.code);
  return result;
}

}  // namespace testing
}  // namespace brisola
