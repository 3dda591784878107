#pragma once

// The fast way in for the configuration records: simdjson's tree seen through the few calls the
// record readers make of nlohmann's. Its failures carry no text: on any of them the caller
// decodes again with nlohmann, whose errors are the ones users see, so both ways accept the
// same documents and say the same things about the others.

#include <simdjson.h>

#include <array>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>

#include "model/json_support.hpp"

namespace brisola::json {

// Raised by the fast way at anything it does not accept.
struct FastPathMiss {};

// Paths are only spelled out by the nlohmann way, on its error path.
struct NoPath {};
inline NoPath childPath(NoPath, std::string_view) {
  return {};
}
inline NoPath indexPath(NoPath, std::size_t) {
  return {};
}
[[noreturn]] inline void fail(DecodingError::Kind, NoPath, const std::string&) {
  throw FastPathMiss{};
}

class FastNode {
 public:
  explicit FastNode(simdjson::dom::element element) : element_(element) {}

  Json::value_t type() const {
    using simdjson::dom::element_type;
    switch (element_.type()) {
      case element_type::ARRAY:
        return Json::value_t::array;
      case element_type::OBJECT:
        return Json::value_t::object;
      case element_type::INT64:
        return Json::value_t::number_integer;
      case element_type::UINT64:
        return Json::value_t::number_unsigned;
      case element_type::DOUBLE:
        return Json::value_t::number_float;
      case element_type::STRING:
        return Json::value_t::string;
      case element_type::BOOL:
        return Json::value_t::boolean;
      case element_type::NULL_VALUE:
        return Json::value_t::null;
    }
    return Json::value_t::discarded;
  }
  bool is_null() const { return element_.is_null(); }
  bool is_object() const { return element_.is_object(); }
  bool is_array() const { return element_.is_array(); }
  bool is_string() const { return element_.is_string(); }
  bool is_boolean() const { return element_.is_bool(); }
  bool is_number() const { return element_.is_number(); }

  template <class T>
  T get() const {
    T value{};
    if (element_.get(value) != simdjson::SUCCESS) throw FastPathMiss{};
    return value;
  }
  // Only error texts print values, and those come from the nlohmann way.
  [[noreturn]] std::string dump() const { throw FastPathMiss{}; }

  std::size_t size() const { return array().size(); }

  class Iterator {
   public:
    explicit Iterator(simdjson::dom::array::iterator at) : at_(at) {}
    FastNode operator*() const { return FastNode(*at_); }
    Iterator& operator++() {
      ++at_;
      return *this;
    }
    bool operator!=(const Iterator& other) const { return at_ != other.at_; }

   private:
    simdjson::dom::array::iterator at_;
  };
  Iterator begin() const { return Iterator(array().begin()); }
  Iterator end() const { return Iterator(array().end()); }

  friend std::string_view stringView(const FastNode& node) {
    return node.element_.get_string().value_unsafe();
  }
  friend class FastMembers;

 private:
  simdjson::dom::array array() const {
    simdjson::dom::array array;
    if (element_.get(array) != simdjson::SUCCESS) throw FastPathMiss{};
    return array;
  }
  simdjson::dom::element element_;
};

// An object's members, found once for all the lookups of its reader. A key that appears twice
// sends the document to the nlohmann way, which has the last word on duplicates; so does an
// object of more members than any record has, rather than a reader that slows down.
class FastMembers {
 public:
  explicit FastMembers(const FastNode& object);
  friend std::optional<FastNode> findMember(const FastMembers& members, std::string_view key) {
    for (std::size_t i = 0; i < members.count_; ++i) {
      if (members.slots_[i].member.key == key) return FastNode(members.slots_[i].member.value);
    }
    return std::nullopt;
  }

 private:
  struct Member {
    std::string_view key;
    simdjson::dom::element value;
  };
  // Left uninitialised until filled: clearing every slot cost more than reading an object.
  union Slot {
    Slot() {}
    Member member;
  };
  static constexpr std::size_t capacity = 32;
  std::array<Slot, capacity> slots_;
  std::size_t count_ = 0;
};

inline FastMembers indexMembers(const FastNode& object) {
  return FastMembers(object);
}

[[noreturn]] inline void typeMismatch(const FastNode&, NoPath, std::string_view) {
  throw FastPathMiss{};
}

// Reads `bytes` with `read` the fast way; nothing when the fast way does not accept them (the
// caller then decodes them with nlohmann).
bool decodeFast(std::string_view bytes, const std::function<void(const FastNode&)>& read);

template <class T, class Read>
std::optional<T> decodeFast(std::string_view bytes, Read read) {
  std::optional<T> result;
  if (!decodeFast(bytes, [&](const FastNode& root) { result = read(root); })) return std::nullopt;
  return result;
}

}  // namespace brisola::json
