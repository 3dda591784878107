#include "brisola/store/config_store.hpp"

#include "brisola/model/json_coding.hpp"
#include "brisola/platform/uuid.hpp"

namespace brisola {
namespace fs = std::filesystem;

ConfigStoreError::ConfigStoreError(Case errorCase, std::string description, fs::path url,
                                   ValidationResult result)
    : std::runtime_error(std::move(description)),
      case_(errorCase),
      url_(std::move(url)),
      result_(std::move(result)) {}

ConfigStoreError ConfigStoreError::missingConfig(fs::path url) {
  std::string description = "No Brisola config exists at " + url.string() + ".";
  return ConfigStoreError(Case::missingConfig, std::move(description), std::move(url), {});
}

ConfigStoreError ConfigStoreError::invalidConfig(ValidationResult result) {
  std::string description =
      "Config contains " + std::to_string(result.errors.size()) + " validation error(s).";
  return ConfigStoreError(Case::invalidConfig, std::move(description), {}, std::move(result));
}

ConfigSnapshot ConfigMigration::migrate(ConfigSnapshot snapshot) {
  if (snapshot.schemaVersion <= 1 && !snapshot.devices.empty()) {
    auto target = snapshot.devices.begin();
    if (snapshot.ui.selectedDeviceID) {
      for (auto it = snapshot.devices.begin(); it != snapshot.devices.end(); ++it) {
        if (it->id == *snapshot.ui.selectedDeviceID) {
          target = it;
          break;
        }
      }
    }
    target->uid = std::string(BrisolaCore::passThruDeviceUID);
  }
  snapshot.schemaVersion = BrisolaCore::schemaVersion;
  return snapshot;
}

ConfigStore::ConfigStore(fs::path url, std::shared_ptr<FileManager> fileManager,
                         ConfigValidator validator)
    : url_(std::move(url)), fileManager_(std::move(fileManager)), validator_(validator) {}

fs::path ConfigStore::configuredURL(const std::optional<std::string>& configPath,
                                    const FileManager& fileManager) {
  if (configPath && !configPath->empty()) {
    fs::path url(*configPath);
    return url.is_absolute() ? url : fileManager.currentDirectory() / url;
  }
  return defaultURL(fileManager);
}

fs::path ConfigStore::defaultURL(const FileManager& fileManager) {
  auto directories = fileManager.applicationSupportDirectories();
  fs::path base = directories.empty()
                      ? fileManager.homeDirectory() / "Library" / "Application Support"
                      : directories.front();
  migrateLegacyDataDirectoryIfNeeded(base, fileManager);
  return base / Branding::dataDirectoryName / "config.json";
}

void ConfigStore::migrateLegacyDataDirectoryIfNeeded(const fs::path& base,
                                                     const FileManager& fileManager) {
  // Every failure is swallowed: the default location must be computable whatever happens.
  try {
    fs::path legacy = base / Branding::legacyDataDirectoryName;
    fs::path current = base / Branding::dataDirectoryName;
    if (!fileManager.fileExists(legacy) || fileManager.fileExists(current)) return;
    try {
      fileManager.createDirectory(current, true);
    } catch (const std::exception&) {
    }
    std::vector<std::string> names;
    try {
      names = fileManager.contentsOfDirectory(legacy);
    } catch (const std::exception&) {
      return;
    }
    for (const auto& name : names) {
      if (name == "bin") continue;
      try {
        fileManager.moveItem(legacy / name, current / name);
      } catch (const std::exception&) {
      }
    }
  } catch (const std::exception&) {
  }
}

ConfigSnapshot ConfigStore::load() const {
  if (!fileManager_->fileExists(url_)) {
    // A link that leads nowhere is no missing document: creating one in its place would fail
    // on every cycle.
    if (const auto broken = fileManager_->brokenLink(url_)) {
      throw fs::filesystem_error(broken == std::errc::too_many_symbolic_link_levels
                                     ? "The document's path is a symbolic link loop"
                                     : "The document's path is a dangling symbolic link",
                                 url_, broken);
    }
    throw ConfigStoreError::missingConfig(url_);
  }
  std::string bytes = fileManager_->contents(url_);
  return ConfigMigration::migrate(decodeJSON<ConfigSnapshot>(bytes));
}

ConfigSnapshot ConfigStore::loadValidated() const {
  ConfigSnapshot snapshot = load();
  ValidationResult result = validator_.validate(snapshot);
  if (!result.isValid()) throw ConfigStoreError::invalidConfig(std::move(result));
  return snapshot;
}

ConfigSnapshot ConfigStore::loadOrCreateEmpty() const {
  try {
    return load();
  } catch (const ConfigStoreError& error) {
    if (error.errorCase() != ConfigStoreError::Case::missingConfig) throw;
  }
  ConfigSnapshot empty = ConfigSnapshot::empty();
  save(empty);
  return empty;
}

void ConfigStore::save(const ConfigSnapshot& snapshot) const {
  fs::path directory = url_.parent_path();
  if (!directory.empty()) fileManager_->createDirectory(directory, true);
  std::string bytes = encodeJSON(snapshot);
  fs::path temporary =
      directory / ("." + url_.filename().string() + "." + makeUUIDString() + ".tmp");
  try {
    fileManager_->write(temporary, bytes);
  } catch (...) {
    // A partly written temporary file is of no use to anyone.
    try {
      fileManager_->removeItem(temporary);
    } catch (const std::exception&) {
    }
    throw;
  }
  // A failed final step leaves the complete temporary file behind; it is never read.
  if (fileManager_->fileExists(url_)) {
    fileManager_->replaceItem(url_, temporary);
  } else {
    fileManager_->moveItem(temporary, url_);
  }
}

}  // namespace brisola
