#include "model/json_support.hpp"

#include <cmath>
#include <set>
#include <vector>

namespace brisola {

namespace {
std::string describe(const std::string& path, const std::string& problem) {
  return "Invalid JSON at " + (path.empty() ? std::string("the top level") : path) + ": " +
         problem + ".";
}
}  // namespace

DecodingError::DecodingError(Kind kind, std::string path, std::string problem)
    // Malformed text has no path, unless the parser knew where it was (a repeated key).
    : std::runtime_error(kind == Kind::dataCorrupted && path.empty()
                             ? "The data is not valid JSON: " + problem + "."
                             : describe(path, problem)),
      kind_(kind),
      path_(std::move(path)),
      problem_(std::move(problem)) {}

EncodingError::EncodingError(std::string path, std::string problem)
    : std::runtime_error("Cannot write JSON at " +
                         (path.empty() ? std::string("the top level") : path) + ": " + problem +
                         "."),
      path_(std::move(path)) {}

namespace json {

namespace {

std::string foundDescription(const Json& value) {
  switch (value.type()) {
    case Json::value_t::null:
      return "null";
    case Json::value_t::object:
      return "an object";
    case Json::value_t::array:
      return "an array";
    case Json::value_t::string:
      return "a string";
    case Json::value_t::boolean:
      return "a Boolean";
    case Json::value_t::number_float:
      return "the number " + value.dump();
    case Json::value_t::number_integer:
    case Json::value_t::number_unsigned:
      return "the integer " + value.dump();
    default:
      return "an unexpected value";
  }
}

// Strips the library's "[json.exception.parse_error.101] " prefix: the rest says what and where.
std::string parseProblem(const std::string& message) {
  auto close = message.find("] ");
  return close == std::string::npos ? message : message.substr(close + 2);
}

bool hasNonFiniteNumber(const Json& value) {
  switch (value.type()) {
    case Json::value_t::number_float:
      return !std::isfinite(value.get<double>());
    case Json::value_t::object:
    case Json::value_t::array:
      for (const auto& member : value) {
        if (hasNonFiniteNumber(member)) return true;
      }
      return false;
    default:
      return false;
  }
}

// Only walked with paths once a problem is known to exist, to keep writing cheap.
void reportNonFiniteNumber(const Json& value, const std::string& path) {
  switch (value.type()) {
    case Json::value_t::number_float:
      if (!std::isfinite(value.get<double>())) {
        throw EncodingError(path, "the number " + std::to_string(value.get<double>()) +
                                      " cannot be written as JSON");
      }
      break;
    case Json::value_t::object:
      for (const auto& [key, member] : value.items()) {
        reportNonFiniteNumber(member, childPath(path, key));
      }
      break;
    case Json::value_t::array:
      for (std::size_t i = 0; i < value.size(); ++i)
        reportNonFiniteNumber(value[i], indexPath(path, i));
      break;
    default:
      break;
  }
}

// As above, for text the library refuses to write (not UTF-8): the first string or key it
// refuses, in its own words.
void reportUnwritableText(const Json& value, const std::string& path) {
  const auto check = [](const std::string& text, const std::string& at) {
    try {
      static_cast<void>(Json(text).dump());
    } catch (const Json::type_error& error) {
      throw EncodingError(at, parseProblem(error.what()));
    }
  };
  switch (value.type()) {
    case Json::value_t::string:
      check(value.get_ref<const std::string&>(), path);
      break;
    case Json::value_t::object:
      for (const auto& [key, member] : value.items()) {
        check(key, path);
        reportUnwritableText(member, childPath(path, key));
      }
      break;
    case Json::value_t::array:
      for (std::size_t i = 0; i < value.size(); ++i)
        reportUnwritableText(value[i], indexPath(path, i));
      break;
    default:
      break;
  }
}

}  // namespace

std::string childPath(const std::string& path, std::string_view key) {
  if (path.empty()) return std::string(key);
  std::string result;
  result.reserve(path.size() + 1 + key.size());
  result.append(path).append(1, '.').append(key);
  return result;
}

std::string indexPath(const std::string& path, std::size_t index) {
  return path + "[" + std::to_string(index) + "]";
}

void fail(DecodingError::Kind kind, const std::string& path, std::string problem) {
  throw DecodingError(kind, path, std::move(problem));
}

void typeMismatch(const Json& value, const std::string& path, std::string_view expected) {
  fail(DecodingError::Kind::typeMismatch, path,
       "expected " + std::string(expected) + ", found " + foundDescription(value));
}

namespace {

// Follows the parser through the document so that a repeated key is refused with its path
// (the library would silently keep the last one).
class DuplicateKeyCheck {
 public:
  bool operator()(int, Json::parse_event_t event, const Json& parsed) {
    switch (event) {
      case Json::parse_event_t::object_start:
        frames_.push_back({});
        break;
      case Json::parse_event_t::array_start:
        frames_.push_back({.isArray = true});
        break;
      case Json::parse_event_t::key: {
        Frame& frame = frames_.back();
        frame.key = parsed.get_ref<const std::string&>();
        if (!frame.keys.insert(frame.key).second) {
          fail(DecodingError::Kind::dataCorrupted, path(), "the key appears more than once");
        }
        break;
      }
      case Json::parse_event_t::object_end:
      case Json::parse_event_t::array_end:
        frames_.pop_back();
        nextElement();
        break;
      case Json::parse_event_t::value:
        nextElement();
        break;
    }
    return true;
  }

 private:
  struct Frame {
    bool isArray = false;
    std::size_t index = 0;
    std::string key;
    std::set<std::string, std::less<>> keys;
  };

  void nextElement() {
    if (!frames_.empty() && frames_.back().isArray) ++frames_.back().index;
  }

  std::string path() const {
    std::string result;
    for (const Frame& frame : frames_) {
      result = frame.isArray ? indexPath(result, frame.index) : childPath(result, frame.key);
    }
    return result;
  }

  std::vector<Frame> frames_;
};

}  // namespace

Json parse(std::string_view bytes) {
  // The parser would stop at a NUL byte and ignore the rest; a document is its whole file.
  if (const auto nul = bytes.find('\0'); nul != std::string_view::npos) {
    fail(DecodingError::Kind::dataCorrupted, "",
         "a NUL byte at offset " + std::to_string(nul) + " is not allowed");
  }
  try {
    return Json::parse(bytes.begin(), bytes.end(), DuplicateKeyCheck());
  } catch (const Json::exception& error) {
    // parse_error for malformed text, out_of_range for numbers beyond a double.
    fail(DecodingError::Kind::dataCorrupted, "", parseProblem(error.what()));
  }
}

std::string dump(const Json& value) {
  if (hasNonFiniteNumber(value)) reportNonFiniteNumber(value, "");
  try {
    return value.dump(2);
  } catch (const Json::type_error& error) {
    reportUnwritableText(value, "");
    throw EncodingError("", parseProblem(error.what()));
  }
}

std::string readString(const Json& value, const std::string& path) {
  return any::readString(value, path);
}

bool readBool(const Json& value, const std::string& path) {
  return any::readBool(value, path);
}

double readReal(const Json& value, const std::string& path) {
  return any::readReal(value, path);
}

double readFloat(const Json& value, const std::string& path) {
  return readReal(value, path);
}

std::int64_t readIntegerIn(const Json& value, const std::string& path, std::int64_t low,
                           std::int64_t high, std::string_view typeName) {
  return any::readIntegerIn(value, path, low, high, typeName);
}

std::uint64_t readUnsigned64(const Json& value, const std::string& path) {
  return any::readUnsigned64(value, path);
}

std::vector<double> readRealArray(const Json& value, const std::string& path) {
  return readArray<double>(value, path, readReal);
}

}  // namespace json
}  // namespace brisola
