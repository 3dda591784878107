#include "service/service_settings.hpp"

#include <algorithm>

namespace brisola {
namespace fs = std::filesystem;

ServiceError::ServiceError(std::string name)
    : std::runtime_error("Could not find executable helper '" + name +
                         "'. Build helpers with scripts/build-service.sh."),
      name_(std::move(name)) {}

ServiceError ServiceError::missingHelper(std::string name) {
  return ServiceError(std::move(name));
}

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

std::vector<fs::path> HelperPaths::candidateDirectories(const Settings& settings,
                                                        const std::vector<std::string>& arguments,
                                                        const FileManager& fileManager) {
  fs::path current = fileManager.currentDirectory();
  std::vector<fs::path> candidates;
  if (!settings.helperDirectory.empty()) {
    fs::path path(settings.helperDirectory);
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

HelperPaths HelperPaths::resolve(const Settings& settings,
                                 const std::vector<std::string>& arguments,
                                 const FileManager& fileManager) {
  auto directories = candidateDirectories(settings, arguments, fileManager);
  HelperPaths paths;
  paths.monitor = executable(monitorName, directories, fileManager);
  paths.hardwareSource = executable(hardwareSourceName, directories, fileManager);
  paths.processTap = executable(processTapName, directories, fileManager);
  return paths;
}

}  // namespace brisola

namespace brisola {

std::string HelperPaths::describe() const {
  const auto directory = monitor.parent_path();
  if (hardwareSource.parent_path() == directory && processTap.parent_path() == directory) {
    return directory.string();
  }
  return monitor.string() + ", " + hardwareSource.string() + ", " + processTap.string();
}

}  // namespace brisola
