#pragma once

// Unicode-aware text operations on UTF-8 strings. Everything that must treat text as
// characters rather than bytes goes through these.

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace brisola::unicode {

// Removes leading and trailing white space and line breaks: general categories Zs, Zl and
// Zp, U+0009 to U+000D and U+0085.
std::string trimmingWhitespaceAndNewlines(std::string_view text);
// Nothing is left after trimming.
bool isBlank(std::string_view text);

// Whole-text equality under canonical equivalence ("é" precomposed equals "e" + U+0301).
bool canonicallyEqual(std::string_view a, std::string_view b);
// A key such that two texts are canonically equal exactly when their keys are equal (the NFC
// form); ASCII text is its own key.
std::string canonicalKey(std::string_view text);

// Removes whole extended grapheme clusters from the end until the UTF-8 length is at most
// maxBytes, so a user-perceived character is never split.
std::string truncatedToByteLength(std::string_view text, std::size_t maxBytes);

// Decodes bytes as UTF-8, each maximal invalid subsequence replaced by U+FFFD.
std::string decodingUTF8Replacing(std::string_view bytes);
bool isValidUTF8(std::string_view bytes);

// Full Unicode lower-casing (root locale).
std::string lowercased(std::string_view text);

// The order a file browser uses for names: case-insensitive, runs of digits compared by
// value, by the current locale ("mic 9" before "Mic 10"). Returns <0, 0 or >0.
class LocalizedStandardOrder {
 public:
  // Cheap to copy: copies share one collator (comparison does not change it).
  LocalizedStandardOrder();

  int compare(std::string_view a, std::string_view b) const;
  bool operator()(std::string_view a, std::string_view b) const { return compare(a, b) < 0; }

 private:
  struct Impl;
  std::shared_ptr<const Impl> impl_;
};

}  // namespace brisola::unicode
