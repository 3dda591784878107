#pragma once

// Internal helpers behind every record's JSON form: reading a parsed tree with the key path
// of every value at hand, and the encoder preset. Only the core library's sources see this.

#include <cmath>
#include <concepts>
#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "brisola/model/enum_cases.hpp"
#include "brisola/model/json_coding.hpp"

namespace brisola::json {

using Json = nlohmann::json;

std::string childPath(const std::string& path, std::string_view key);
std::string indexPath(const std::string& path, std::size_t index);

[[noreturn]] void fail(DecodingError::Kind kind, const std::string& path, std::string problem);
[[noreturn]] void typeMismatch(const Json& value, const std::string& path,
                               std::string_view expected);

// Parses bytes into a tree; input that is not JSON raises DecodingError::dataCorrupted.
Json parse(std::string_view bytes);

// The encoder preset. Raises EncodingError for non-finite numbers or text that is not UTF-8.
std::string dump(const Json& value);

// What every reader calls on its node type: nlohmann's tree, or the FastNode of fast_json.hpp.
inline std::string_view stringView(const Json& value) {
  return value.get_ref<const std::string&>();
}
// nlohmann's objects are indexed already.
inline const Json& indexMembers(const Json& object) {
  return object;
}
inline const Json* findMember(const Json& object, std::string_view key) {
  auto it = object.find(key);
  return it == object.end() ? nullptr : &*it;
}

// The readers' rules, written once for both node types. A failure on the tree raises the
// DecodingError users see; on a FastNode it only sends the caller to the tree.
namespace any {

constexpr double maximumExactInteger = 9007199254740992.0;  // 2^53

template <class Node, class Path>
std::string readString(const Node& value, const Path& path) {
  if (!value.is_string()) typeMismatch(value, path, "a string");
  return std::string(stringView(value));
}

template <class Node, class Path>
bool readBool(const Node& value, const Path& path) {
  if (!value.is_boolean()) typeMismatch(value, path, "a Boolean");
  return value.template get<bool>();
}

template <class Node, class Path>
double readReal(const Node& value, const Path& path) {
  if (!value.is_number()) typeMismatch(value, path, "a number");
  return value.template get<double>();
}

template <class Node, class Path>
std::int64_t readIntegerIn(const Node& value, const Path& path, std::int64_t low, std::int64_t high,
                           std::string_view typeName) {
  auto outOfRange = [&]() -> std::int64_t {
    fail(DecodingError::Kind::valueOutOfRange, path,
         value.dump() + " is outside the range of a " + std::string(typeName));
  };
  switch (value.type()) {
    case Json::value_t::number_integer: {
      auto v = value.template get<std::int64_t>();
      return v < low || v > high ? outOfRange() : v;
    }
    case Json::value_t::number_unsigned: {
      auto v = value.template get<std::uint64_t>();
      return v > static_cast<std::uint64_t>(high) ? outOfRange() : static_cast<std::int64_t>(v);
    }
    case Json::value_t::number_float: {
      double v = value.template get<double>();
      if (std::trunc(v) != v) typeMismatch(value, path, "an integer");
      if (std::fabs(v) > maximumExactInteger || v < static_cast<double>(low) ||
          v > static_cast<double>(high)) {
        return outOfRange();
      }
      return static_cast<std::int64_t>(v);
    }
    default:
      typeMismatch(value, path, "an integer");
  }
}

template <class Node, class Path>
std::uint64_t readUnsigned64(const Node& value, const Path& path) {
  auto outOfRange = [&]() -> std::uint64_t {
    fail(DecodingError::Kind::valueOutOfRange, path,
         value.dump() + " is outside the range of an unsigned 64-bit integer");
  };
  switch (value.type()) {
    case Json::value_t::number_unsigned:
      return value.template get<std::uint64_t>();
    case Json::value_t::number_integer: {
      auto v = value.template get<std::int64_t>();
      return v < 0 ? outOfRange() : static_cast<std::uint64_t>(v);
    }
    case Json::value_t::number_float: {
      double v = value.template get<double>();
      if (std::trunc(v) != v) typeMismatch(value, path, "an integer");
      if (v < 0 || v > maximumExactInteger) return outOfRange();
      return static_cast<std::uint64_t>(v);
    }
    default:
      typeMismatch(value, path, "an integer");
  }
}

template <std::signed_integral T, class Node, class Path>
T readInteger(const Node& value, const Path& path) {
  constexpr std::string_view name = sizeof(T) == 8   ? "signed 64-bit integer"
                                    : sizeof(T) == 4 ? "signed 32-bit integer"
                                                     : "signed integer";
  return static_cast<T>(readIntegerIn(value, path, std::numeric_limits<T>::min(),
                                      std::numeric_limits<T>::max(), name));
}

template <class E, class Node, class Path>
E readEnum(const Node& value, const Path& path) {
  std::string text = readString(value, path);
  if (auto result = enumFromName<E>(text)) return *result;
  std::string expected;
  for (const auto& [candidate, name] : allCases<E>()) {
    if (!expected.empty()) expected += ", ";
    expected += name;
  }
  fail(DecodingError::Kind::unknownCase, path,
       "\"" + text + "\" is not one of the allowed values (" + expected + ")");
}

template <class T, class Node, class Path, class Read>
std::vector<T> readArray(const Node& value, const Path& path, Read read) {
  if (!value.is_array()) typeMismatch(value, path, "an array");
  std::vector<T> result;
  result.reserve(value.size());
  std::size_t index = 0;
  for (const auto& item : value) result.push_back(read(item, indexPath(path, index++)));
  return result;
}

// The readers as objects, to hand to ObjectReader and readArray for either node type.
inline constexpr auto string = [](const auto& v, const auto& p) { return readString(v, p); };
inline constexpr auto boolean = [](const auto& v, const auto& p) { return readBool(v, p); };
inline constexpr auto real = [](const auto& v, const auto& p) { return readReal(v, p); };
inline constexpr auto unsigned64 = [](const auto& v, const auto& p) {
  return readUnsigned64(v, p);
};
inline constexpr auto realArray = [](const auto& v, const auto& p) {
  return readArray<double>(v, p, real);
};
template <std::signed_integral T>
inline constexpr auto integer = [](const auto& v, const auto& p) { return readInteger<T>(v, p); };
template <class E>
inline constexpr auto enumeration = [](const auto& v, const auto& p) { return readEnum<E>(v, p); };

}  // namespace any

std::string readString(const Json& value, const std::string& path);
bool readBool(const Json& value, const std::string& path);
double readReal(const Json& value, const std::string& path);
double readFloat(const Json& value, const std::string& path);  // then narrowed by the caller
std::int64_t readIntegerIn(const Json& value, const std::string& path, std::int64_t low,
                           std::int64_t high, std::string_view typeName);
std::uint64_t readUnsigned64(const Json& value, const std::string& path);

template <std::signed_integral T>
T readInteger(const Json& value, const std::string& path) {
  return any::readInteger<T>(value, path);
}

template <class E>
E readEnum(const Json& value, const std::string& path) {
  return any::readEnum<E>(value, path);
}

template <class E>
Json writeEnum(E value) {
  return std::string(enumName(value));
}

template <class T, class Read>
std::vector<T> readArray(const Json& value, const std::string& path, Read read) {
  return any::readArray<T>(value, path, read);
}

// Reads the members of one JSON object. A required key must be present and not null; an
// optional key may be absent or null. Keys the record does not know are ignored.
template <class Node, class Path>
class BasicObjectReader {
 public:
  BasicObjectReader(const Node& value, Path path)
      : path_(std::move(path)), members_(indexMembers(objectOf(value, path_))) {}

  template <class Read>
  auto required(std::string_view key, Read read) const {
    auto keyPath = childPath(path_, key);
    const auto member = findMember(members_, key);
    if (!member) fail(DecodingError::Kind::keyNotFound, keyPath, "the required key is missing");
    if (member->is_null()) typeMismatch(*member, keyPath, "a value");
    return read(*member, keyPath);
  }

  template <class Read>
  auto optional(std::string_view key, Read read) const
      -> std::optional<decltype(read(std::declval<const Node&>(), std::declval<Path>()))> {
    const auto member = findMember(members_, key);
    if (!member || member->is_null()) return std::nullopt;
    return read(*member, childPath(path_, key));
  }

  const Path& path() const { return path_; }

 private:
  static const Node& objectOf(const Node& value, const Path& path) {
    if (!value.is_object()) typeMismatch(value, path, "an object");
    return value;
  }
  Path path_;
  decltype(indexMembers(std::declval<const Node&>())) members_;
};

using ObjectReader = BasicObjectReader<Json, std::string>;

// Reading and writing lists of reals, the most common list field.
std::vector<double> readRealArray(const Json& value, const std::string& path);

template <class T>
void putOptional(Json& object, const char* key, const std::optional<T>& value) {
  if (value) object[key] = *value;
}

}  // namespace brisola::json
