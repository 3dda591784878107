#pragma once

#include <gtest/gtest.h>

#include <optional>

namespace brisola::testing {

// The exception of type E that `action` throws; nothing, and a test failure, when it throws none.
template <class E, class Action>
std::optional<E> thrown(Action&& action) {
  try {
    action();
  } catch (const E& error) {
    return error;
  }
  ADD_FAILURE() << "nothing was thrown";
  return std::nullopt;
}

}  // namespace brisola::testing
