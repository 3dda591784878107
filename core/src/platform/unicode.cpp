#include "brisola/platform/unicode.hpp"

#include <unicode/brkiter.h>
#include <unicode/coll.h>
#include <unicode/locid.h>
#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>
#include <unicode/utf8.h>

// ICU's UTF-8 iteration macros use C casts and implicit narrowing.
#pragma GCC diagnostic ignored "-Wold-style-cast"
#pragma GCC diagnostic ignored "-Wconversion"
#pragma GCC diagnostic ignored "-Wsign-compare"

#include <algorithm>
#include <stdexcept>

namespace brisola::unicode {

namespace {

bool isWhitespaceOrNewline(UChar32 c) {
  if ((c >= 0x09 && c <= 0x0D) || c == 0x85) return true;
  auto type = u_charType(c);
  return type == U_SPACE_SEPARATOR || type == U_LINE_SEPARATOR || type == U_PARAGRAPH_SEPARATOR;
}

bool isASCII(std::string_view text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

icu::UnicodeString toUnicode(std::string_view text) {
  return icu::UnicodeString::fromUTF8(
      icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
}

std::string toUTF8(const icu::UnicodeString& text) {
  std::string result;
  text.toUTF8String(result);
  return result;
}

}  // namespace

std::string trimmingWhitespaceAndNewlines(std::string_view text) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
  const auto length = static_cast<int32_t>(text.size());
  int32_t start = 0;
  while (start < length) {
    int32_t next = start;
    UChar32 c;
    U8_NEXT(bytes, next, length, c);
    if (c < 0 || !isWhitespaceOrNewline(c)) break;
    start = next;
  }
  int32_t end = length;
  while (end > start) {
    int32_t previous = end;
    UChar32 c;
    U8_PREV(bytes, start, previous, c);
    if (c < 0 || !isWhitespaceOrNewline(c)) break;
    end = previous;
  }
  return std::string(
      text.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(end - start)));
}

bool isBlank(std::string_view text) {
  return trimmingWhitespaceAndNewlines(text).empty();
}

std::string canonicalKey(std::string_view text) {
  if (isASCII(text)) return std::string(text);
  UErrorCode status = U_ZERO_ERROR;
  const icu::Normalizer2* nfc = icu::Normalizer2::getNFCInstance(status);
  if (U_FAILURE(status)) throw std::runtime_error("ICU normalisation data is unavailable");
  icu::UnicodeString normalized = nfc->normalize(toUnicode(text), status);
  if (U_FAILURE(status)) return std::string(text);
  return toUTF8(normalized);
}

bool canonicallyEqual(std::string_view a, std::string_view b) {
  if (a == b) return true;
  if (isASCII(a) && isASCII(b)) return false;
  return canonicalKey(a) == canonicalKey(b);
}

std::string truncatedToByteLength(std::string_view text, std::size_t maxBytes) {
  if (text.size() <= maxBytes) return std::string(text);
  // Start from the last code point start at or before the limit: ICU snaps offsets inside a
  // code point back to its start, which would lose one character too many.
  // (A stray continuation byte is a code point of its own, as in decoding.)
  auto limit = static_cast<int32_t>(maxBytes);
  U8_SET_CP_START(reinterpret_cast<const uint8_t*>(text.data()), 0, limit);
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::BreakIterator> characters(
      icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
  if (U_FAILURE(status)) throw std::runtime_error("ICU break iteration is unavailable");
  UText* utext = utext_openUTF8(nullptr, text.data(), static_cast<int64_t>(text.size()), &status);
  if (U_FAILURE(status)) throw std::runtime_error("ICU could not open the text");
  characters->setText(utext, status);
  // Native indices of a UTF-8 text are byte offsets.
  int32_t boundary = characters->isBoundary(limit) ? limit : characters->preceding(limit);
  utext_close(utext);
  if (boundary == icu::BreakIterator::DONE || boundary < 0) boundary = 0;
  return std::string(text.substr(0, static_cast<std::size_t>(boundary)));
}

std::string decodingUTF8Replacing(std::string_view bytes) {
  std::string result;
  result.reserve(bytes.size());
  const auto* data = reinterpret_cast<const uint8_t*>(bytes.data());
  const auto length = static_cast<int32_t>(bytes.size());
  for (int32_t i = 0; i < length;) {
    int32_t start = i;
    UChar32 c;
    U8_NEXT(data, i, length, c);
    if (c < 0) {
      result += "\xEF\xBF\xBD";
    } else {
      result.append(
          bytes.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(i - start)));
    }
  }
  return result;
}

bool isValidUTF8(std::string_view bytes) {
  const auto* data = reinterpret_cast<const uint8_t*>(bytes.data());
  const auto length = static_cast<int32_t>(bytes.size());
  for (int32_t i = 0; i < length;) {
    UChar32 c;
    U8_NEXT(data, i, length, c);
    if (c < 0) return false;
  }
  return true;
}

std::string lowercased(std::string_view text) {
  if (isASCII(text)) {
    std::string result(text);
    for (char& c : result) {
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return result;
  }
  return toUTF8(toUnicode(text).toLower(icu::Locale::getRoot()));
}

struct LocalizedStandardOrder::Impl {
  std::unique_ptr<icu::Collator> collator;
};

LocalizedStandardOrder::LocalizedStandardOrder() {
  auto impl = std::make_shared<Impl>();
  UErrorCode status = U_ZERO_ERROR;
  // The C/POSIX locale maps to ICU's en_US_POSIX, whose collation is plain code order; a
  // process without a language preference sorts like the root locale instead.
  icu::Locale locale = icu::Locale::getDefault();
  if (std::string_view(locale.getVariant()) == "POSIX") locale = icu::Locale::getRoot();
  impl->collator.reset(icu::Collator::createInstance(locale, status));
  if (U_FAILURE(status)) {
    status = U_ZERO_ERROR;
    impl->collator.reset(icu::Collator::createInstance(icu::Locale::getRoot(), status));
  }
  if (U_FAILURE(status) || !impl->collator) {
    throw std::runtime_error("ICU collation is unavailable");
  }
  // Secondary strength ignores case but keeps accents; numeric collation orders digit runs
  // by value.
  impl->collator->setStrength(icu::Collator::SECONDARY);
  impl->collator->setAttribute(UCOL_NUMERIC_COLLATION, UCOL_ON, status);
  impl_ = std::move(impl);
}

int LocalizedStandardOrder::compare(std::string_view a, std::string_view b) const {
  UErrorCode status = U_ZERO_ERROR;
  auto result = impl_->collator->compareUTF8(
      icu::StringPiece(a.data(), static_cast<int32_t>(a.size())),
      icu::StringPiece(b.data(), static_cast<int32_t>(b.size())), status);
  if (U_FAILURE(status)) return a.compare(b);
  return static_cast<int>(result);
}

}  // namespace brisola::unicode
