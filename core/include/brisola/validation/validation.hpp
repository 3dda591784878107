#pragma once

// Validation of a configuration document: findings with stable codes, messages and paths.
// Validation is a pure function of the document; it never fails and never stops early.

#include <string>
#include <string_view>
#include <vector>

#include "brisola/model/config.hpp"
#include "brisola/model/json_coding.hpp"

namespace brisola {

struct ValidationIssue {
  std::string code;     // "device.emptyName"
  std::string message;  // "Device name must not be empty."
  std::string path;     // "devices[0].name"
  bool operator==(const ValidationIssue&) const = default;
};

struct ValidationResult {
  std::vector<ValidationIssue> errors;
  std::vector<ValidationIssue> warnings;
  bool operator==(const ValidationResult&) const = default;

  // Warnings never make a document invalid.
  bool isValid() const { return errors.empty(); }
};

class ConfigValidator {
 public:
  ValidationResult validate(const ConfigSnapshot& snapshot) const;
  bool operator==(const ConfigValidator&) const = default;
};

std::string encodeJSON(const ValidationIssue& issue);
std::string encodeJSON(const ValidationResult& result);
ValidationIssue decodeJSON(std::string_view bytes, JSONTag<ValidationIssue>);
ValidationResult decodeJSON(std::string_view bytes, JSONTag<ValidationResult>);

}  // namespace brisola
