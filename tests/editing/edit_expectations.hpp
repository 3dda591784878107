#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "brisola/editing/config_editor.hpp"

namespace brisola::testing {

// Runs an edit that must fail with `expected` and checks that the whole document is unchanged.
template <class Edit>
void expectRejected(ConfigSnapshot document, Edit edit, const ConfigEditError& expected) {
  const ConfigSnapshot before = document;
  try {
    edit(document);
    ADD_FAILURE() << "edit succeeded; expected: " << expected.what();
  } catch (const ConfigEditError& error) {
    EXPECT_EQ(error, expected) << "got: " << error.what();
  }
  EXPECT_EQ(document, before) << "a failed edit changed the document";
}

// A fresh identifier as the editor makes them.
inline const auto upperCaseUUID =
    ::testing::MatchesRegex("[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}");

}  // namespace brisola::testing
