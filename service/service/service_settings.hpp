#pragma once

// What the service reads from its environment, and where it finds its helpers.

#include <filesystem>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "brisola/platform/file_manager.hpp"

namespace brisola {

using Environment = std::map<std::string, std::string>;

class ServiceError : public std::runtime_error {
 public:
  enum class Case { missingHelper };
  // "Could not find executable helper '<name>'. Build helpers with scripts/build-service.sh."
  static ServiceError missingHelper(std::string name);

  Case errorCase() const { return Case::missingHelper; }
  const std::string& helperName() const { return name_; }
  bool operator==(const ServiceError& other) const { return name_ == other.name_; }

 private:
  explicit ServiceError(std::string name);
  std::string name_;
};

namespace ServiceSettings {

inline constexpr double defaultPollInterval = 1.0;
// A poll interval that parses as infinite or huge would stop the service from cycling, and one
// that is vanishingly small would make it spin; accepted values are brought into this range.
inline constexpr double minimumPollInterval = 0.01;
inline constexpr double maximumPollInterval = 3600.0;

std::optional<std::string> lookup(const Environment& environment, std::string_view name);

// "1", "true", "yes" or "on" after lower-casing; nothing is trimmed.
bool isTruthy(const std::optional<std::string>& value);

// The whole text must be one number in the C library's strtod syntax (C locale), with no
// leading white space and nothing after it. Unacceptable, zero, negative and NaN values give
// the default; accepted values are clamped to the bounds above.
double pollInterval(const std::optional<std::string>& value);

}  // namespace ServiceSettings

struct HelperPaths {
  std::filesystem::path monitor;
  std::filesystem::path hardwareSource;
  std::filesystem::path processTap;
  bool operator==(const HelperPaths&) const = default;

  static constexpr std::string_view monitorName = "brisola-monitor";
  static constexpr std::string_view hardwareSourceName = "brisola-hardware-source";
  static constexpr std::string_view processTapName = "brisola-process-tap";

  // BRISOLA_HELPER_DIR (when not empty), the directory of the program's own path (the first
  // argument; left out when there is none), then build/tools and build/service under the
  // current directory; standardised, first occurrence kept.
  static std::vector<std::filesystem::path> candidateDirectories(
      const Environment& environment, const std::vector<std::string>& arguments,
      const FileManager& fileManager);
  // The first candidate holding an executable regular file of that name.
  static std::filesystem::path executable(std::string_view name,
                                          const std::vector<std::filesystem::path>& directories,
                                          const FileManager& fileManager);
  // Looks up the three helpers in order; the first missing one is raised.
  static HelperPaths resolve(const Environment& environment,
                             const std::vector<std::string>& arguments,
                             const FileManager& fileManager);
};

}  // namespace brisola
