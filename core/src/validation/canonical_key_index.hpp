#pragma once

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "brisola/platform/unicode.hpp"

namespace brisola {

// A table keyed by identifier, where canonically equivalent texts are the same identifier.
// ASCII text (nearly every identifier) is its own canonical key and is kept as a view, so
// inserting costs no copy; the texts inserted must therefore outlive the index. Only other
// text is normalised, and that key is owned here.
template <typename Value>
class CanonicalKeyIndex {
 public:
  void reserve(std::size_t count) { entries_.reserve(count); }
  std::size_t size() const { return entries_.size(); }

  // Adds the identifier with the value unless an equal one is present: the first one wins.
  // Returns the value stored under the identifier and whether this call stored it.
  std::pair<const Value&, bool> insert(std::string_view text, Value value) {
    if (isASCII(text)) {
      auto [it, added] = entries_.try_emplace(text, std::move(value));
      return {it->second, added};
    }
    std::string key = unicode::canonicalKey(text);
    if (auto it = entries_.find(key); it != entries_.end()) return {it->second, false};
    std::string_view stored = ownedKeys_.emplace_back(std::move(key));
    return {entries_.try_emplace(stored, std::move(value)).first->second, true};
  }

  // The value stored under an identifier equal to the text, or null.
  const Value* find(std::string_view text) const {
    auto it = isASCII(text) ? entries_.find(text) : entries_.find(unicode::canonicalKey(text));
    return it == entries_.end() ? nullptr : &it->second;
  }

 private:
  static bool isASCII(std::string_view text) {
    // No early exit, so the loop vectorises; identifiers are short.
    unsigned char bits = 0;
    for (char c : text) bits |= static_cast<unsigned char>(c);
    return bits < 0x80;
  }

  std::unordered_map<std::string_view, Value> entries_;
  // A deque never moves its elements, so the views into these keys stay valid.
  std::deque<std::string> ownedKeys_;
};

}  // namespace brisola
