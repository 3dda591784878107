#pragma once

// The library's JSON presets. Reading: default decoder settings, unknown keys ignored, the
// first problem ends the read of the whole value. Writing: pretty-printed, keys sorted at
// every level, forward slash never escaped, reals in their shortest round-trip form.
//
// Each area declares, for every record it owns, `std::string encodeJSON(const T&)` and
// `T decodeJSON(std::string_view, JSONTag<T>)`; callers use `decodeJSON<T>(bytes)`.

#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "brisola/model/config.hpp"

namespace brisola {

// Reading JSON failed. `path` names the place in the document's own terms
// ("devices[0].sources[1].channelCount"); empty for the top level or for input that is not
// JSON at all.
class DecodingError : public std::runtime_error {
 public:
  enum class Kind { dataCorrupted, keyNotFound, typeMismatch, valueOutOfRange, unknownCase };

  DecodingError(Kind kind, std::string path, std::string problem);

  Kind kind() const { return kind_; }
  const std::string& path() const { return path_; }
  const std::string& problem() const { return problem_; }
  bool operator==(const DecodingError& other) const {
    return kind_ == other.kind_ && path_ == other.path_ && problem_ == other.problem_;
  }

 private:
  Kind kind_;
  std::string path_;
  std::string problem_;
};

// Writing JSON failed: the in-memory value holds something JSON cannot carry (a non-finite
// number, text that is not UTF-8).
class EncodingError : public std::runtime_error {
 public:
  EncodingError(std::string path, std::string problem);
  const std::string& path() const { return path_; }
  bool operator==(const EncodingError& other) const {
    return path_ == other.path_ && std::string_view(what()) == other.what();
  }

 private:
  std::string path_;
};

template <class T>
struct JSONTag {};

template <class T>
T decodeJSON(std::string_view bytes) {
  return decodeJSON(bytes, JSONTag<T>{});
}

std::string encodeJSON(const ConfigSnapshot& snapshot);
std::string encodeJSON(const DeviceConfig& device);
std::string encodeJSON(const SourceConfig& source);
std::string encodeJSON(const MonitorConfig& monitor);
std::string encodeJSON(const Wire& wire);
// Lists, as JSON arrays of the records' forms.
std::string encodeJSON(const std::vector<DeviceConfig>& devices);
std::string encodeJSON(const std::vector<SourceConfig>& sources);
std::string encodeJSON(const std::vector<MonitorConfig>& monitors);
std::string encodeJSON(const std::vector<Wire>& wires);
ConfigSnapshot decodeJSON(std::string_view bytes, JSONTag<ConfigSnapshot>);
DeviceConfig decodeJSON(std::string_view bytes, JSONTag<DeviceConfig>);
SourceConfig decodeJSON(std::string_view bytes, JSONTag<SourceConfig>);
MonitorConfig decodeJSON(std::string_view bytes, JSONTag<MonitorConfig>);
Wire decodeJSON(std::string_view bytes, JSONTag<Wire>);

}  // namespace brisola
