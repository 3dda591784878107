#pragma once

#include "brisola/validation/validation.hpp"
#include "model/json_support.hpp"

namespace brisola::json {

Json toJSON(const ValidationIssue& issue);
Json toJSON(const ValidationResult& result);
ValidationIssue readIssue(const Json& value, const std::string& path);
ValidationResult readValidationResult(const Json& value, const std::string& path);

}  // namespace brisola::json
