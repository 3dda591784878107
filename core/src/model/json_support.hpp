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

std::string readString(const Json& value, const std::string& path);
bool readBool(const Json& value, const std::string& path);
double readReal(const Json& value, const std::string& path);
double readFloat(const Json& value, const std::string& path);  // then narrowed by the caller
std::int64_t readIntegerIn(const Json& value, const std::string& path, std::int64_t low,
                           std::int64_t high, std::string_view typeName);
std::uint64_t readUnsigned64(const Json& value, const std::string& path);

template <std::signed_integral T>
T readInteger(const Json& value, const std::string& path) {
  constexpr std::string_view name = sizeof(T) == 8   ? "signed 64-bit integer"
                                    : sizeof(T) == 4 ? "signed 32-bit integer"
                                                     : "signed integer";
  return static_cast<T>(readIntegerIn(value, path, std::numeric_limits<T>::min(),
                                      std::numeric_limits<T>::max(), name));
}

template <class E>
E readEnum(const Json& value, const std::string& path) {
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

template <class E>
Json writeEnum(E value) {
  return std::string(enumName(value));
}

template <class T, class Read>
std::vector<T> readArray(const Json& value, const std::string& path, Read read) {
  if (!value.is_array()) typeMismatch(value, path, "an array");
  std::vector<T> result;
  result.reserve(value.size());
  for (std::size_t i = 0; i < value.size(); ++i)
    result.push_back(read(value[i], indexPath(path, i)));
  return result;
}

// Reads the members of one JSON object. A required key must be present and not null; an
// optional key may be absent or null. Keys the record does not know are ignored.
class ObjectReader {
 public:
  ObjectReader(const Json& value, std::string path);

  template <class Read>
  auto required(std::string_view key, Read read) const {
    std::string keyPath = childPath(path_, key);
    const Json* member = find(key);
    if (member == nullptr) {
      fail(DecodingError::Kind::keyNotFound, keyPath, "the required key is missing");
    }
    if (member->is_null()) typeMismatch(*member, keyPath, "a value");
    return read(*member, keyPath);
  }

  template <class Read>
  auto optional(std::string_view key, Read read) const
      -> std::optional<decltype(read(std::declval<const Json&>(), std::string()))> {
    const Json* member = find(key);
    if (member == nullptr || member->is_null()) return std::nullopt;
    return read(*member, childPath(path_, key));
  }

  const std::string& path() const { return path_; }

 private:
  const Json* find(std::string_view key) const;
  const Json& value_;
  std::string path_;
};

// Reading and writing lists of reals, the most common list field.
std::vector<double> readRealArray(const Json& value, const std::string& path);

template <class T>
void putOptional(Json& object, const char* key, const std::optional<T>& value) {
  if (value) object[key] = *value;
}

}  // namespace brisola::json
