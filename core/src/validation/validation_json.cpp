#include "validation/validation_json.hpp"

namespace brisola {
namespace json {

namespace {
std::vector<ValidationIssue> readIssues(const Json& value, const std::string& path) {
  return readArray<ValidationIssue>(value, path, readIssue);
}

Json issuesToJSON(const std::vector<ValidationIssue>& issues) {
  Json array = Json::array();
  for (const auto& issue : issues) array.push_back(toJSON(issue));
  return array;
}
}  // namespace

Json toJSON(const ValidationIssue& issue) {
  return Json{{"code", issue.code}, {"message", issue.message}, {"path", issue.path}};
}

Json toJSON(const ValidationResult& result) {
  return Json{{"errors", issuesToJSON(result.errors)}, {"warnings", issuesToJSON(result.warnings)}};
}

ValidationIssue readIssue(const Json& value, const std::string& path) {
  ObjectReader r(value, path);
  return ValidationIssue{
      .code = r.required("code", readString),
      .message = r.required("message", readString),
      .path = r.required("path", readString),
  };
}

ValidationResult readValidationResult(const Json& value, const std::string& path) {
  ObjectReader r(value, path);
  return ValidationResult{
      .errors = r.required("errors", readIssues),
      .warnings = r.required("warnings", readIssues),
  };
}

}  // namespace json

std::string encodeJSON(const ValidationIssue& issue) {
  return json::dump(json::toJSON(issue));
}
std::string encodeJSON(const ValidationResult& result) {
  return json::dump(json::toJSON(result));
}
ValidationIssue decodeJSON(std::string_view bytes, JSONTag<ValidationIssue>) {
  return json::readIssue(json::parse(bytes), "");
}
ValidationResult decodeJSON(std::string_view bytes, JSONTag<ValidationResult>) {
  return json::readValidationResult(json::parse(bytes), "");
}

}  // namespace brisola
