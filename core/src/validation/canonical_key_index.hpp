#pragma once

#include <algorithm>
#include <cstddef>
#include <forward_list>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "brisola/platform/unicode.hpp"

namespace brisola {

// A table keyed by identifier, where canonically equivalent texts are the same identifier.
// ASCII text (nearly every identifier) is its own canonical key and is kept as a view, so
// inserting costs no copy; the texts inserted must therefore outlive the index. Only other
// text is normalised, and that key is owned here.
//
// Open addressing in one array that reset() reuses: validating a document sets up one small
// index per device, and this way that costs no allocation once the array is large enough.
template <typename Value>
class CanonicalKeyIndex {
 public:
  // Empties the index and makes room for `count` identifiers, in time proportional to
  // `count` whatever the index held before.
  void reset(std::size_t count) {
    std::size_t capacity = 8;
    while (capacity < 2 * count) capacity *= 2;
    if (slots_.size() < capacity) slots_.resize(capacity);
    std::fill_n(slots_.begin(), capacity, Slot{});
    mask_ = capacity - 1;
    size_ = 0;
    ownedKeys_.clear();
  }

  std::size_t size() const { return size_; }

  // Adds the identifier with the value unless an equal one is present: the first one wins.
  // Returns the value stored under the identifier and whether this call stored it.
  std::pair<Value, bool> insert(std::string_view text, Value value) {
    if (isASCII(text)) return insertKey(text, std::move(value), false);
    return insertKey(unicode::canonicalKey(text), std::move(value), true);
  }

  // The value stored under an identifier equal to the text, or null.
  const Value* find(std::string_view text) const {
    if (isASCII(text)) return findKey(text, hash(text));
    const std::string key = unicode::canonicalKey(text);
    return findKey(key, hash(key));
  }

 private:
  struct Slot {
    std::string_view key;
    std::size_t hash = 0;
    Value value{};
    bool used = false;
  };

  static bool isASCII(std::string_view text) {
    // No early exit, so the loop vectorises; identifiers are short.
    unsigned char bits = 0;
    for (char c : text) bits |= static_cast<unsigned char>(c);
    return bits < 0x80;
  }

  static std::size_t hash(std::string_view key) { return std::hash<std::string_view>{}(key); }

  template <typename Key>
  std::pair<Value, bool> insertKey(Key&& key, Value value, bool owned) {
    const std::size_t keyHash = hash(key);
    if (const Value* existing = findKey(key, keyHash)) return {*existing, false};
    if (2 * (size_ + 1) > mask_ + 1) grow();
    std::string_view stored = key;
    if (owned) stored = ownedKeys_.emplace_front(std::forward<Key>(key));
    std::size_t i = keyHash & mask_;
    while (slots_[i].used) i = (i + 1) & mask_;
    slots_[i] = Slot{stored, keyHash, value, true};
    ++size_;
    return {std::move(value), true};
  }

  const Value* findKey(std::string_view key, std::size_t keyHash) const {
    if (slots_.empty()) return nullptr;
    for (std::size_t i = keyHash & mask_; slots_[i].used; i = (i + 1) & mask_) {
      if (slots_[i].hash == keyHash && slots_[i].key == key) return &slots_[i].value;
    }
    return nullptr;
  }

  // Only when more identifiers arrive than reset() was told of.
  void grow() {
    std::vector<Slot> old;
    if (!slots_.empty()) {
      old.assign(slots_.begin(), slots_.begin() + static_cast<std::ptrdiff_t>(mask_ + 1));
    }
    const std::size_t capacity = slots_.empty() ? 8 : 2 * (mask_ + 1);
    slots_.assign(capacity, Slot{});
    mask_ = capacity - 1;
    for (const Slot& slot : old) {
      if (!slot.used) continue;
      std::size_t i = slot.hash & mask_;
      while (slots_[i].used) i = (i + 1) & mask_;
      slots_[i] = slot;
    }
  }

  std::vector<Slot> slots_;  // the first mask_ + 1 are in use; at most half of those full
  std::size_t mask_ = 0;
  std::size_t size_ = 0;
  // Never moves its elements, so the views into these keys stay valid.
  std::forward_list<std::string> ownedKeys_;
};

}  // namespace brisola
