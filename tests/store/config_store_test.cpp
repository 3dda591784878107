#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "brisola/model/json_coding.hpp"
#include "brisola/store/config_store.hpp"
#include "support/documents.hpp"
#include "support/temp_dir.hpp"

namespace brisola {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using testing::readFile;
using testing::richSnapshot;
using testing::TempDir;
using testing::writeFile;

std::vector<std::string> namesIn(const fs::path& directory) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

ConfigStore storeAt(const fs::path& url) {
  return ConfigStore(url, FileManager::defaultManager());
}

TEST(ConfigStore, FirstUseCreatesTheEmptyDocumentAndLaterLoadsReadIt) {
  TempDir dir;
  fs::path url = dir / "nested" / "Brisola" / "config.json";
  ConfigStore store = storeAt(url);
  EXPECT_EQ(store.loadOrCreateEmpty(), ConfigSnapshot::empty());
  EXPECT_EQ(namesIn(url.parent_path()), std::vector<std::string>{"config.json"});
  EXPECT_EQ(store.load(), ConfigSnapshot::empty());
}

TEST(ConfigStore, MissingDocumentIsAnErrorForPlainLoadsAndCreatesNothing) {
  TempDir dir;
  fs::path url = dir / "sub" / "config.json";
  ConfigStore store = storeAt(url);
  auto expected = ConfigStoreError::missingConfig(url);
  for (auto load : {&ConfigStore::load, &ConfigStore::loadValidated}) {
    try {
      (store.*load)();
      FAIL() << "loaded a missing document";
    } catch (const ConfigStoreError& error) {
      EXPECT_EQ(error, expected);
      EXPECT_EQ(std::string(error.what()), "No Brisola config exists at " + url.string() + ".");
    }
  }
  EXPECT_FALSE(fs::exists(dir / "sub"));
}

TEST(ConfigStore, BrokenDocumentsAreReportedAndNeverOverwritten) {
  TempDir dir;
  fs::path url = dir / "config.json";
  ConfigStore store = storeAt(url);
  for (const std::string content : {"not json", "{\"schemaVersion\": 2, \"devices\": ["}) {
    SCOPED_TRACE(content);
    writeFile(url, content);
    EXPECT_THROW(store.load(), DecodingError);
    EXPECT_THROW(store.loadValidated(), DecodingError);
    EXPECT_THROW(store.loadOrCreateEmpty(), DecodingError);
    EXPECT_EQ(readFile(url), content);
  }

  fs::remove(url);
  fs::create_directory(url);  // a directory where the file should be
  for (auto load :
       {&ConfigStore::load, &ConfigStore::loadValidated, &ConfigStore::loadOrCreateEmpty}) {
    try {
      (store.*load)();
      FAIL() << "read a directory as a document";
    } catch (const fs::filesystem_error& error) {
      EXPECT_EQ(error.code(), std::errc::is_a_directory);
      EXPECT_EQ(error.path1(), url);
    }
  }
  EXPECT_TRUE(fs::is_directory(url));
  EXPECT_TRUE(fs::is_empty(url));
}

TEST(ConfigStore, SavedDocumentsReadBackEqualAndOlderSchemasAreUpgradedInMemoryOnly) {
  TempDir dir;
  fs::path url = dir / "config.json";
  ConfigStore store = storeAt(url);
  store.save(ConfigSnapshot::empty());
  ConfigSnapshot old = richSnapshot();
  old.schemaVersion = 1;
  store.save(old);
  EXPECT_EQ(readFile(url), encodeJSON(old));
  EXPECT_EQ(namesIn(dir.path()), std::vector<std::string>{"config.json"});

  ConfigSnapshot loaded = store.load();
  EXPECT_EQ(loaded.schemaVersion, 2);
  EXPECT_EQ(loaded.devices[1].uid, "dev.kestrine.pass-thru");  // the selected device
  loaded.schemaVersion = 1;
  loaded.devices[1].uid = old.devices[1].uid;
  EXPECT_EQ(loaded, old);
  EXPECT_EQ(readFile(url), encodeJSON(old));
}

TEST(ConfigStoreError, DescriptionsCountErrorsOnly) {
  ValidationResult result{
      .errors = {{"device.emptyName", "Device name must not be empty.", "devices[0].name"}},
      .warnings = {{"a", "b", "c"}, {"d", "e", "f"}}};
  auto error = ConfigStoreError::invalidConfig(result);
  EXPECT_STREQ(error.what(), "Config contains 1 validation error(s).");
  result.warnings.pop_back();
  EXPECT_FALSE(error == ConfigStoreError::invalidConfig(result));
}

// Makes exactly one step of a save fail with an I/O error.
enum class Step { createDirectory, createFile, append, sync, close, replace, move };

class FailingFileManager : public FileManagerWrapper {
 public:
  explicit FailingFileManager(Step step)
      : FileManagerWrapper(FileManager::defaultManager()), step_(step) {}

  void createDirectory(const fs::path& path, bool intermediates) const override {
    failIf(Step::createDirectory, path);
    FileManagerWrapper::createDirectory(path, intermediates);
  }
  std::unique_ptr<WritableFile> createWritableFile(const fs::path& path) const override {
    failIf(Step::createFile, path);
    return std::make_unique<FailingFile>(FileManagerWrapper::createWritableFile(path), this, path);
  }
  void replaceItem(const fs::path& target, const fs::path& replacement) const override {
    failIf(Step::replace, target);
    FileManagerWrapper::replaceItem(target, replacement);
  }
  void moveItem(const fs::path& from, const fs::path& to) const override {
    failIf(Step::move, to);
    FileManagerWrapper::moveItem(from, to);
  }

 private:
  class FailingFile : public WritableFile {
   public:
    FailingFile(std::unique_ptr<WritableFile> file, const FailingFileManager* owner, fs::path path)
        : file_(std::move(file)), owner_(owner), path_(std::move(path)) {}
    void append(std::string_view bytes) override {
      // A short write: part of the bytes reach the file before the failure.
      if (owner_->step_ == Step::append) {
        file_->append(bytes.substr(0, bytes.size() / 2));
        owner_->failIf(Step::append, path_);
      }
      file_->append(bytes);
    }
    void sync() override {
      owner_->failIf(Step::sync, path_);
      file_->sync();
    }
    void close() override {
      owner_->failIf(Step::close, path_);
      file_->close();
    }

   private:
    std::unique_ptr<WritableFile> file_;
    const FailingFileManager* owner_;
    fs::path path_;
  };

  void failIf(Step step, const fs::path& path) const {
    if (step == step_) {
      throw fs::filesystem_error("injected failure", path,
                                 std::make_error_code(std::errc::io_error));
    }
  }
  Step step_;
};

TEST(ConfigStore, EveryFailingStepOfASaveLeavesTheDocumentIntact) {
  struct Case {
    Step step;
    bool documentExists;
    bool temporaryLeftBehind;
  };
  // A temporary file is removed when writing it failed; one that is complete but could not be
  // put in place stays (it is never read).
  const std::vector<Case> cases = {{Step::createDirectory, false, false},
                                   {Step::createFile, true, false},
                                   {Step::append, true, false},
                                   {Step::sync, true, false},
                                   {Step::close, true, false},
                                   {Step::replace, true, true},
                                   {Step::move, false, true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(static_cast<int>(c.step));
    TempDir dir;
    fs::path url = dir / "data" / "config.json";
    if (c.documentExists) {
      fs::create_directories(url.parent_path());
      writeFile(url, encodeJSON(richSnapshot()));
    }
    ConfigStore store(url, std::make_shared<FailingFileManager>(c.step));
    try {
      store.save(ConfigSnapshot::empty());
      FAIL() << "the save succeeded";
    } catch (const fs::filesystem_error& error) {
      EXPECT_EQ(error.code(), std::errc::io_error);
    }
    if (c.documentExists) {
      EXPECT_EQ(storeAt(url).load(), richSnapshot());
    } else {
      EXPECT_FALSE(fs::exists(url));
    }
    if (fs::exists(url.parent_path())) {
      auto names = namesIn(url.parent_path());
      std::erase(names, "config.json");
      if (c.temporaryLeftBehind) {
        EXPECT_THAT(names, ElementsAre(MatchesRegex(R"(\.config\.json\.[0-9A-F-]{36}\.tmp)")));
      } else {
        EXPECT_THAT(names, IsEmpty());
      }
    }
  }
}

TEST(ConfigStore, LoadOrCreateEmptyReportsAFailedCreation) {
  TempDir dir;
  ConfigStore store(dir / "config.json", std::make_shared<FailingFileManager>(Step::sync));
  EXPECT_THROW(store.loadOrCreateEmpty(), fs::filesystem_error);
  EXPECT_FALSE(fs::exists(dir / "config.json"));
}

}  // namespace
}  // namespace brisola
