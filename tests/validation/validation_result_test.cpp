#include <gtest/gtest.h>

#include <string>

#include "brisola/model/json_coding.hpp"
#include "brisola/validation/validation.hpp"
#include "validation/validation_test_support.hpp"

namespace brisola {
namespace {

TEST(ValidationResult, OnlyErrorsMakeItInvalid) {
  ValidationResult result{.warnings = {{"w", "W.", "p"}}};
  EXPECT_TRUE(result.isValid());
  result.errors.push_back({"e", "E.", "p"});
  EXPECT_FALSE(result.isValid());
}

TEST(ValidationResult, JSONRoundTripKeepsOrderAndBothArrays) {
  ValidationResult result{
      .errors = {{"device.emptyName", "Device name must not be empty.", "devices[0].name"},
                 {"wire.emptyID", "Wire ID must not be empty.", "devices[0].wires[1].id"}},
      .warnings = {{"ui.selectedDeviceMissing", "Quote \" and slash / and caf\u00E9.",
                    "ui.selectedDeviceID"}},
  };
  EXPECT_EQ(decodeJSON<ValidationResult>(encodeJSON(result)), result);

  ValidationResult empty;
  const std::string text = encodeJSON(empty);
  EXPECT_EQ(text, "{\n  \"errors\": [],\n  \"warnings\": []\n}");
  EXPECT_EQ(decodeJSON<ValidationResult>(text), empty);
}

TEST(ValidationResult, DecodingRequiresEveryKey) {
  struct Row {
    const char* label;
    std::string text;
    std::string missingPath;
  };
  const Row rows[] = {
      {"result without warnings", R"({"errors":[]})", "warnings"},
      {"issue inside a result without path",
       R"({"errors":[],"warnings":[{"code":"c","message":"m"}]})", "warnings[0].path"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    try {
      decodeJSON<ValidationResult>(row.text);
      ADD_FAILURE() << "decoded";
    } catch (const DecodingError& error) {
      EXPECT_EQ(error.kind(), DecodingError::Kind::keyNotFound);
      EXPECT_EQ(error.path(), row.missingPath);
    }
  }
  EXPECT_THROW(decodeJSON<ValidationIssue>(R"({"code":"c","message":"m","path":3})"),
               DecodingError);
}

}  // namespace
}  // namespace brisola
