#include "service/service_settings.hpp"

#include <locale.h>
#include <stdlib.h>

#include <algorithm>
#include <cmath>

#include "brisola/platform/unicode.hpp"

namespace brisola {
namespace fs = std::filesystem;

ServiceError::ServiceError(std::string name)
    : std::runtime_error("Could not find executable helper '" + name +
                         "'. Build helpers with scripts/build-service.sh."),
      name_(std::move(name)) {}

ServiceError ServiceError::missingHelper(std::string name) {
  return ServiceError(std::move(name));
}

namespace ServiceSettings {

std::optional<std::string> lookup(const Environment& environment, std::string_view name) {
  auto it = environment.find(std::string(name));
  if (it == environment.end()) return std::nullopt;
  return it->second;
}

bool isTruthy(const std::optional<std::string>& value) {
  if (!value) return false;
  std::string lowered = unicode::lowercased(*value);
  return lowered == "1" || lowered == "true" || lowered == "yes" || lowered == "on";
}

double pollInterval(const std::optional<std::string>& value) {
  if (!value || value->empty()) return defaultPollInterval;
  unsigned char first = static_cast<unsigned char>(value->front());
  if (first == ' ' || (first >= '\t' && first <= '\r')) return defaultPollInterval;
  // strtod in the C locale, whatever locale the process runs in.
  static const locale_t cLocale = ::newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
  char* end = nullptr;
  double parsed = ::strtod_l(value->c_str(), &end, cLocale);
  if (end != value->c_str() + value->size()) return defaultPollInterval;  // trailing text
  if (std::isnan(parsed) || parsed <= 0) return defaultPollInterval;
  return std::clamp(parsed, minimumPollInterval, maximumPollInterval);
}

}  // namespace ServiceSettings

namespace {
// Resolves "." and ".." and drops a trailing separator, so equal directories compare equal.
fs::path standardised(const fs::path& path) {
  fs::path normal = path.lexically_normal();
  if (!normal.has_filename() && normal.has_parent_path() && normal != normal.root_path()) {
    normal = normal.parent_path();
  }
  return normal;
}
}  // namespace

std::vector<fs::path> HelperPaths::candidateDirectories(const Environment& environment,
                                                        const std::vector<std::string>& arguments,
                                                        const FileManager& fileManager) {
  fs::path current = fileManager.currentDirectory();
  std::vector<fs::path> candidates;
  if (auto directory = ServiceSettings::lookup(environment, "BRISOLA_HELPER_DIR");
      directory && !directory->empty()) {
    fs::path path(*directory);
    candidates.push_back(path.is_absolute() ? path : current / path);
  }
  // Without a first argument the program's own directory is unknown and left out.
  if (!arguments.empty() && !arguments.front().empty()) {
    const std::string& program = arguments.front();
    fs::path path = program.front() == '/' ? fs::path(program) : current / program;
    candidates.push_back(path.parent_path());
  }
  candidates.push_back(current / "build" / "tools");
  candidates.push_back(current / "build" / "service");

  std::vector<fs::path> kept;
  for (const auto& candidate : candidates) {
    fs::path normal = standardised(candidate);
    if (std::find(kept.begin(), kept.end(), normal) == kept.end()) kept.push_back(normal);
  }
  return kept;
}

fs::path HelperPaths::executable(std::string_view name, const std::vector<fs::path>& directories,
                                 const FileManager& fileManager) {
  for (const auto& directory : directories) {
    fs::path candidate = directory / name;
    if (fileManager.isExecutableFile(candidate)) return candidate;
  }
  throw ServiceError::missingHelper(std::string(name));
}

HelperPaths HelperPaths::resolve(const Environment& environment,
                                 const std::vector<std::string>& arguments,
                                 const FileManager& fileManager) {
  auto directories = candidateDirectories(environment, arguments, fileManager);
  HelperPaths paths;
  paths.monitor = executable(monitorName, directories, fileManager);
  paths.hardwareSource = executable(hardwareSourceName, directories, fileManager);
  paths.processTap = executable(processTapName, directories, fileManager);
  return paths;
}

}  // namespace brisola
