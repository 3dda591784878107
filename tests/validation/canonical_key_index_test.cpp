#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "validation/canonical_key_index.hpp"

namespace brisola {
namespace {

TEST(CanonicalKeyIndex, FirstOfEquivalentIdentifiersWins) {
  CanonicalKeyIndex<int> index;
  index.reset(4);
  EXPECT_EQ(index.insert("K", 1), std::make_pair(1, true));
  EXPECT_EQ(index.insert("\u212A", 2), std::make_pair(1, false));  // Kelvin sign
  {
    // A normalised key is owned by the index, not by the caller's text.
    std::string decomposed = "cafe\u0301";
    EXPECT_EQ(index.insert(decomposed, 3), std::make_pair(3, true));
  }
  EXPECT_EQ(index.insert("caf\u00E9", 4), std::make_pair(3, false));
  EXPECT_EQ(index.insert("", 5), std::make_pair(5, true));
  EXPECT_EQ(index.insert("k", 6), std::make_pair(6, true));
  EXPECT_EQ(index.size(), 4u);

  ASSERT_NE(index.find("\u212A"), nullptr);
  EXPECT_EQ(*index.find("\u212A"), 1);
  EXPECT_EQ(*index.find("cafe\u0301"), 3);
  EXPECT_EQ(*index.find(""), 5);
  EXPECT_EQ(index.find(" K"), nullptr);
  EXPECT_EQ(index.find("caf"), nullptr);
}

TEST(CanonicalKeyIndex, ResetForgetsAndMoreThanAnnouncedStillFit) {
  CanonicalKeyIndex<std::size_t> index;
  EXPECT_EQ(index.find("a"), nullptr);  // never reset
  // Keys that need no normalising stay the caller's: the texts outlive the index.
  std::vector<std::string> ids;
  for (std::size_t i = 0; i < 1000; ++i) ids.push_back("id-" + std::to_string(i));
  index.reset(3);
  for (std::size_t i = 0; i < ids.size(); ++i) ASSERT_TRUE(index.insert(ids[i], i).second) << i;
  for (std::size_t i = 0; i < ids.size(); ++i) {
    ASSERT_NE(index.find(ids[i]), nullptr) << i;
    EXPECT_EQ(*index.find(ids[i]), i);
  }
  index.reset(1);
  EXPECT_EQ(index.size(), 0u);
  EXPECT_EQ(index.find("id-7"), nullptr);
}

}  // namespace
}  // namespace brisola
