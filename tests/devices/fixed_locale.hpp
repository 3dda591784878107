#pragma once

// Ordering by name follows ICU's default locale, which comes from the environment (LANG,
// LC_ALL; "C" gives en_US_POSIX). Tests that check an order fix the locale for their duration.

#include <unicode/locid.h>

namespace brisola::testing {

class FixedICULocale {
 public:
  explicit FixedICULocale(const char* name) : previous_(icu::Locale::getDefault()) {
    UErrorCode status = U_ZERO_ERROR;
    icu::Locale::setDefault(icu::Locale(name), status);
  }
  ~FixedICULocale() {
    UErrorCode status = U_ZERO_ERROR;
    icu::Locale::setDefault(previous_, status);
  }
  FixedICULocale(const FixedICULocale&) = delete;
  FixedICULocale& operator=(const FixedICULocale&) = delete;

 private:
  icu::Locale previous_;
};

}  // namespace brisola::testing
