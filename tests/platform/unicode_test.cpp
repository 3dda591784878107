#include <gtest/gtest.h>

#include "brisola/platform/unicode.hpp"

namespace brisola::unicode {
namespace {

TEST(Unicode, TrimmingRemovesEveryKindOfSpaceAndLineBreakOnlyAtTheEnds) {
  EXPECT_EQ(trimmingWhitespaceAndNewlines(" \t\r\n Left \u00A0\u2028\u0085\u3000"), "Left");
  EXPECT_EQ(trimmingWhitespaceAndNewlines("a \u2003 b"), "a \u2003 b");
  EXPECT_EQ(trimmingWhitespaceAndNewlines(""), "");
  EXPECT_TRUE(isBlank(" \u2029\u000B\u000C"));
  EXPECT_FALSE(isBlank("\u200B"));  // zero-width space is a format character, not a space
  EXPECT_FALSE(isBlank(" x "));
}

TEST(Unicode, IdentifiersCompareUnderCanonicalEquivalenceOnly) {
  EXPECT_TRUE(canonicallyEqual("caf\u00E9", "cafe\u0301"));
  EXPECT_EQ(canonicalKey("caf\u00E9"), canonicalKey("cafe\u0301"));
  EXPECT_FALSE(canonicallyEqual("abc", "ABC"));
  EXPECT_FALSE(canonicallyEqual("abc", "abc "));
  EXPECT_FALSE(canonicallyEqual("\uFB01", "fi"));  // compatibility, not canonical
  EXPECT_EQ(canonicalKey("plain"), "plain");
}

TEST(Unicode, TruncationNeverSplitsAUserPerceivedCharacter) {
  std::string threeByte;
  for (int i = 0; i < 43; ++i) threeByte += "\u20AC";  // 129 bytes
  std::string cut = truncatedToByteLength(threeByte, 127);
  EXPECT_EQ(cut.size(), 126u);
  EXPECT_EQ(truncatedToByteLength(std::string(200, 'a'), 127), std::string(127, 'a'));
  EXPECT_EQ(truncatedToByteLength("short", 127), "short");

  // A family emoji is one cluster of 25 bytes; an accented letter is two code points.
  std::string family = "\U0001F468\u200D\U0001F469\u200D\U0001F467\u200D\U0001F466";
  EXPECT_EQ(truncatedToByteLength("ab" + family, 26), "ab");
  EXPECT_EQ(truncatedToByteLength("ab" + family, 27), "ab" + family);
  EXPECT_EQ(truncatedToByteLength("xe\u0301", 2), "x");
  EXPECT_EQ(truncatedToByteLength("\u20AC", 2), "");
  // Bytes that are not UTF-8 never make the result longer than asked.
  std::string broken = "ab\xE2\x82\xE2\x82\xAC\xFF\xFE";
  for (std::size_t limit = 0; limit < broken.size(); ++limit) {
    EXPECT_LE(truncatedToByteLength(broken, limit).size(), limit);
  }
}

TEST(Unicode, DecodingReplacesEachMaximalInvalidSubsequence) {
  EXPECT_EQ(decodingUTF8Replacing("ok \u00E9"), "ok \u00E9");
  EXPECT_EQ(decodingUTF8Replacing("a\xF0\x9F\x98"
                                  "b"),
            "a\uFFFDb");                                                   // truncated sequence
  EXPECT_EQ(decodingUTF8Replacing("\xC0\xAF"), "\uFFFD\uFFFD");            // overlong form
  EXPECT_EQ(decodingUTF8Replacing("\xED\xA0\x80"), "\uFFFD\uFFFD\uFFFD");  // surrogate
  EXPECT_EQ(decodingUTF8Replacing(std::string("a\0b", 3)), std::string("a\0b", 3));
  EXPECT_TRUE(isValidUTF8("\u00E9\U0001F600"));
  EXPECT_FALSE(isValidUTF8("\xFF"));
}

}  // namespace
}  // namespace brisola::unicode
