#include "brisola/store/config_store.hpp"

#include <cctype>
#include <chrono>

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

namespace {

// ".config.json.<UUID>.tmp": only names of this form, for this document, are ever removed.
bool isTemporaryName(std::string_view name, std::string_view documentName) {
  constexpr std::string_view suffix = ".tmp";
  constexpr std::size_t uuidLength = 36;
  if (name.size() != 1 + documentName.size() + 1 + uuidLength + suffix.size()) return false;
  if (name[0] != '.' || name.substr(1, documentName.size()) != documentName) return false;
  name.remove_prefix(1 + documentName.size());
  if (name[0] != '.' || !name.ends_with(suffix)) return false;
  const std::string_view uuid = name.substr(1, uuidLength);
  for (std::size_t i = 0; i < uuid.size(); ++i) {
    const char c = uuid[i];
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? c != '-' : !std::isxdigit(static_cast<unsigned char>(c))) return false;
  }
  return true;
}

// A save never makes a directory: one of that name is someone else's, and removing it would
// remove all it holds.
bool isDirectory(const FileManager& fileManager, const fs::path& path) {
  try {
    fileManager.contentsOfDirectory(path);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

void removeQuietly(const FileManager& fileManager, const fs::path& path) {
  try {
    fileManager.removeItem(path);
  } catch (const std::exception&) {
  }
}

}  // namespace

void ConfigStore::save(const ConfigSnapshot& snapshot) const {
  fs::path directory = url_.parent_path();
  if (!directory.empty()) fileManager_->createDirectory(directory, true);
  std::string bytes = encodeJSON(snapshot);
  fs::path temporary =
      directory / ("." + url_.filename().string() + "." + makeUUIDString() + ".tmp");
  const bool replacing = fileManager_->fileExists(url_);
  bool whole = false;
  try {
    fileManager_->write(temporary, bytes);
    whole = true;
    if (replacing) {
      fileManager_->replaceItem(url_, temporary);
    } else {
      fileManager_->moveItem(temporary, url_);
    }
  } catch (...) {
    // Nothing reads a temporary file, so it is only worth keeping when the document it was
    // to replace has gone meanwhile: then it is the one whole copy left.
    if (!whole || !replacing || fileManager_->fileExists(url_)) {
      removeQuietly(*fileManager_, temporary);
    }
    throw;
  }
  removeAbandonedTemporaryFiles();
}

void ConfigStore::removeAbandonedTemporaryFiles() const {
  // A save that is killed leaves its temporary file behind. One untouched for this long
  // belongs to no running save (a save writes and renames in milliseconds); should a save
  // stalled for longer lose its file, its rename fails and the document stays as it was.
  constexpr auto abandonedAfter = std::chrono::minutes(10);
  const fs::path directory = url_.parent_path().empty() ? fs::path(".") : url_.parent_path();
  const std::string documentName = url_.filename().string();
  try {
    const auto cutoff = FileManager::Clock::now() - abandonedAfter;
    for (const auto& name : fileManager_->contentsOfDirectory(directory)) {
      if (!isTemporaryName(name, documentName)) continue;
      const fs::path path = directory / name;
      const auto modified = fileManager_->modificationDate(path);
      if (!modified || *modified >= cutoff || isDirectory(*fileManager_, path)) continue;
      removeQuietly(*fileManager_, path);
    }
  } catch (const std::exception&) {
    // Tidying up is a courtesy: the document is saved whatever happens here.
  }
}

}  // namespace brisola
