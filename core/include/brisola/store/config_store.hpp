#pragma once

// The one file that holds the configuration document: where it lives, reading it (with the
// schema upgrade), validated reading, first-use creation, and saving so that no reader ever
// sees a half-written file.

#include <filesystem>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "brisola/model/config.hpp"
#include "brisola/platform/file_manager.hpp"
#include "brisola/validation/validation.hpp"

namespace brisola {

class ConfigStoreError : public std::runtime_error {
 public:
  enum class Case { missingConfig, invalidConfig };

  static ConfigStoreError missingConfig(std::filesystem::path url);
  static ConfigStoreError invalidConfig(ValidationResult result);

  Case errorCase() const { return case_; }
  const std::filesystem::path& url() const { return url_; }
  const ValidationResult& result() const { return result_; }
  bool operator==(const ConfigStoreError& other) const {
    return case_ == other.case_ && url_ == other.url_ && result_ == other.result_;
  }

 private:
  ConfigStoreError(Case errorCase, std::string description, std::filesystem::path url,
                   ValidationResult result);
  Case case_;
  std::filesystem::path url_;
  ValidationResult result_;
};

// Upgrades documents of earlier schema versions in memory.
namespace ConfigMigration {
// Version 1 and lower: the selected device (or else the first) takes the pass-thru device's
// UID. Every result carries the current schema version.
ConfigSnapshot migrate(ConfigSnapshot snapshot);
}  // namespace ConfigMigration

class ConfigStore {
 public:
  ConfigStore(std::filesystem::path url, std::shared_ptr<FileManager> fileManager,
              ConfigValidator validator = {});

  // Application Support/Brisola/config.json. Moves an earlier release's data directory into
  // place first, once; that step never fails.
  static std::filesystem::path defaultURL(const FileManager& fileManager);
  // The document every program of the product agrees on: `configPath` (the value of
  // BRISOLA_CONFIG_PATH or a command-line choice) when not empty, relative paths taken from
  // the current directory; otherwise defaultURL.
  static std::filesystem::path configuredURL(const std::optional<std::string>& configPath,
                                             const FileManager& fileManager);

  // Throws ConfigStoreError::missingConfig, a file-system error or a DecodingError.
  ConfigSnapshot load() const;
  // As load(), then refuses a document with validation errors (invalidConfig).
  ConfigSnapshot loadValidated() const;
  // As load(), but writes and returns the empty document when there is no file. A file that
  // exists but cannot be read or decoded is never overwritten.
  ConfigSnapshot loadOrCreateEmpty() const;
  // Writes a complete, flushed temporary file beside the document and renames it over the
  // document. On failure the old document is intact and the temporary file is removed (kept
  // only when the document vanished meanwhile, as its one whole copy). A successful save also
  // removes this document's temporary files that saves killed midway left behind (untouched
  // for ten minutes).
  void save(const ConfigSnapshot& snapshot) const;

  const std::filesystem::path& url() const { return url_; }
  const std::shared_ptr<FileManager>& fileManager() const { return fileManager_; }
  const ConfigValidator& validator() const { return validator_; }

 private:
  void removeAbandonedTemporaryFiles() const;
  static void migrateLegacyDataDirectoryIfNeeded(const std::filesystem::path& base,
                                                 const FileManager& fileManager);

  std::filesystem::path url_;
  std::shared_ptr<FileManager> fileManager_;
  ConfigValidator validator_;
};

}  // namespace brisola
