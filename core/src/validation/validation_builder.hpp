#pragma once

#include <string>
#include <utility>

#include "brisola/validation/validation.hpp"

namespace brisola {

// Collects the findings of one validation run, in the order the rules emit them. Nothing is
// ever removed, sorted or merged.
class ValidationBuilder {
 public:
  void addError(std::string code, std::string message, std::string path) {
    errors_.push_back({std::move(code), std::move(message), std::move(path)});
  }
  void addWarning(std::string code, std::string message, std::string path) {
    warnings_.push_back({std::move(code), std::move(message), std::move(path)});
  }
  ValidationResult finish() && { return {std::move(errors_), std::move(warnings_)}; }

 private:
  std::vector<ValidationIssue> errors_;
  std::vector<ValidationIssue> warnings_;
};

}  // namespace brisola
