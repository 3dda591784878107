#pragma once

// Where the service finds its helpers.

#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "brisola/platform/file_manager.hpp"
#include "brisola/platform/settings.hpp"

namespace brisola {

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

struct HelperPaths {
  std::filesystem::path monitor;
  std::filesystem::path hardwareSource;
  std::filesystem::path processTap;
  bool operator==(const HelperPaths&) const = default;

  // Their directory when they share one, else the three paths; for people.
  std::string describe() const;

  static constexpr std::string_view monitorName = "brisola-monitor";
  static constexpr std::string_view hardwareSourceName = "brisola-hardware-source";
  static constexpr std::string_view processTapName = "brisola-process-tap";

  // The settings' helper directory (when not empty), the directory of the program's own path (the
  // first argument; left out when there is none), then build/tools and build/service under the
  // current directory; standardised, first occurrence kept.
  static std::vector<std::filesystem::path> candidateDirectories(
      const Settings& settings, const std::vector<std::string>& arguments,
      const FileManager& fileManager);
  // The first candidate holding an executable regular file of that name.
  static std::filesystem::path executable(std::string_view name,
                                          const std::vector<std::filesystem::path>& directories,
                                          const FileManager& fileManager);
  // Looks up the three helpers in order; the first missing one is raised.
  static HelperPaths resolve(const Settings& settings, const std::vector<std::string>& arguments,
                             const FileManager& fileManager);
};

}  // namespace brisola
