#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <random>
#include <thread>
#include <tuple>

#include "brisola/model/json_coding.hpp"
#include "brisola/store/config_store.hpp"
#include "support/documents.hpp"
#include "support/temp_dir.hpp"
#include "support/thrown.hpp"

namespace brisola {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using testing::readFile;
using testing::richSnapshot;
using testing::TempDir;
using testing::thrown;
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

TEST(ConfigStore, OnlyFirstUseCreatesTheEmptyDocument) {
  TempDir dir;
  fs::path url = dir / "nested" / "Brisola" / "config.json";
  ConfigStore store = storeAt(url);
  for (auto load : {&ConfigStore::load, &ConfigStore::loadValidated}) {
    EXPECT_EQ(thrown<ConfigStoreError>([&] { (store.*load)(); }),
              ConfigStoreError::missingConfig(url));
  }
  EXPECT_FALSE(fs::exists(dir / "nested"));
  EXPECT_EQ(store.loadOrCreateEmpty(), ConfigSnapshot::empty());
  EXPECT_EQ(namesIn(url.parent_path()), std::vector<std::string>{"config.json"});
  EXPECT_EQ(store.load(), ConfigSnapshot::empty());
}

TEST(ConfigStore, BrokenDocumentsAreReportedAndNeverOverwritten) {
  TempDir dir;
  fs::path url = dir / "config.json";
  ConfigStore store = storeAt(url);
  const auto loads = {&ConfigStore::load, &ConfigStore::loadValidated,
                      &ConfigStore::loadOrCreateEmpty};
  for (const std::string content : {"not json", "{\"schemaVersion\": 2, \"devices\": ["}) {
    writeFile(url, content);
    for (auto load : loads) EXPECT_TRUE(thrown<DecodingError>([&] { (store.*load)(); }));
    EXPECT_EQ(readFile(url), content);
  }
  fs::remove(url);

  // Entries at the path that are no document: each is named for what it is, and creating the
  // empty document is never attempted, so no temporary file is left however many cycles run.
  const std::vector<std::tuple<const char*, std::function<void()>, std::errc, std::string>> rows{
      {"directory", [&] { fs::create_directory(url); }, std::errc::is_a_directory, ""},
      {"FIFO", [&] { ::mkfifo(url.c_str(), 0600); }, std::errc::invalid_argument,
       "not a regular file"},
      {"link to /dev/zero", [&] { fs::create_symlink("/dev/zero", url); },
       std::errc::invalid_argument, "not a regular file"},
      {"dangling link", [&] { fs::create_symlink(dir / "nowhere", url); },
       std::errc::no_such_file_or_directory, "The document's path is a dangling symbolic link"},
      {"link loop", [&] { fs::create_symlink(url, url); }, std::errc::too_many_symbolic_link_levels,
       "The document's path is a symbolic link loop"},
      {"over 64 MiB", [&] { fs::resize_file((writeFile(url, ""), url), (64 << 20) + 1); },
       std::errc::file_too_large, "larger than 64 MiB"},
  };
  for (const auto& [what, make, code, text] : rows) {
    SCOPED_TRACE(what);
    make();
    for (int cycle = 0; cycle < 100; ++cycle) {
      for (auto load : loads) {
        const auto error = thrown<fs::filesystem_error>([&] { (store.*load)(); });
        ASSERT_TRUE(error);
        EXPECT_EQ(error->code(), code);
        EXPECT_EQ(error->path1(), url);
        EXPECT_THAT(error->what(), ::testing::HasSubstr(text));
      }
    }
    EXPECT_EQ(namesIn(dir.path()), std::vector<std::string>{"config.json"});
    fs::remove(url);
  }
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

  EXPECT_EQ(store.load(), ConfigMigration::migrate(old));
  EXPECT_NE(store.load(), old);
  EXPECT_EQ(readFile(url), encodeJSON(old));
}

// Makes exactly one step of a save fail with an I/O error.
// replaceLosingDocument: the document vanishes while the replacement fails.
enum class Step {
  createDirectory,
  createFile,
  append,
  sync,
  close,
  replace,
  replaceLosingDocument,
  move
};

void failAt(Step step, Step failing, const fs::path& path) {
  if (step != failing) return;
  throw fs::filesystem_error("injected failure", path, std::make_error_code(std::errc::io_error));
}

class FailingFile : public WritableFile {
 public:
  FailingFile(std::unique_ptr<WritableFile> file, Step failing, fs::path path)
      : file_(std::move(file)), failing_(failing), path_(std::move(path)) {}
  // A short write: part of the bytes reach the file before the failure.
  void append(std::string_view bytes) override {
    file_->append(failing_ == Step::append ? bytes.substr(0, bytes.size() / 2) : bytes);
    failAt(Step::append, failing_, path_);
  }
  void sync() override {
    failAt(Step::sync, failing_, path_);
    file_->sync();
  }
  void close() override {
    failAt(Step::close, failing_, path_);
    file_->close();
  }

 private:
  std::unique_ptr<WritableFile> file_;
  Step failing_;
  fs::path path_;
};

class FailingFileManager : public FileManagerWrapper {
 public:
  explicit FailingFileManager(Step failing)
      : FileManagerWrapper(FileManager::defaultManager()), failing_(failing) {}
  void createDirectory(const fs::path& path, bool intermediates) const override {
    failAt(Step::createDirectory, failing_, path);
    FileManagerWrapper::createDirectory(path, intermediates);
  }
  std::unique_ptr<WritableFile> createWritableFile(const fs::path& path) const override {
    failAt(Step::createFile, failing_, path);
    return std::make_unique<FailingFile>(FileManagerWrapper::createWritableFile(path), failing_,
                                         path);
  }
  void replaceItem(const fs::path& target, const fs::path& replacement) const override {
    if (failing_ == Step::replaceLosingDocument) fs::remove(target);
    failAt(Step::replace, failing_, target);
    failAt(Step::replaceLosingDocument, failing_, target);
    FileManagerWrapper::replaceItem(target, replacement);
  }
  void moveItem(const fs::path& from, const fs::path& to) const override {
    failAt(Step::move, failing_, to);
    FileManagerWrapper::moveItem(from, to);
  }

 private:
  Step failing_;
};

TEST(ConfigStore, EveryFailingStepOfASaveLeavesTheDocumentIntactAndNoTemporaryFile) {
  struct Case {
    Step step;
    bool documentExists, temporaryLeftBehind;
  };
  // Nothing reads a temporary file: it stays only as the one whole copy of a document that
  // vanished.
  const std::vector<Case> cases = {{Step::createDirectory, false, false},
                                   {Step::createFile, true, false},
                                   {Step::append, true, false},
                                   {Step::sync, true, false},
                                   {Step::close, true, false},
                                   {Step::replace, true, false},
                                   {Step::replaceLosingDocument, true, true},
                                   {Step::move, false, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(static_cast<int>(c.step));
    TempDir dir;
    fs::path url = dir / "data" / "config.json";
    if (c.documentExists) {
      fs::create_directories(url.parent_path());
      writeFile(url, encodeJSON(richSnapshot()));
    }
    ConfigStore store(url, std::make_shared<FailingFileManager>(c.step));
    const auto error = thrown<fs::filesystem_error>([&] { store.save(ConfigSnapshot::empty()); });
    ASSERT_TRUE(error) << "the save succeeded";
    EXPECT_EQ(error->code(), std::errc::io_error);
    if (c.documentExists && !c.temporaryLeftBehind) {
      EXPECT_EQ(storeAt(url).load(), richSnapshot());
    } else {
      EXPECT_FALSE(fs::exists(url));
    }
    if (fs::exists(url.parent_path())) {
      auto names = namesIn(url.parent_path());
      std::erase(names, "config.json");
      if (c.temporaryLeftBehind) {
        ASSERT_THAT(names, ElementsAre(MatchesRegex(R"(\.config\.json\.[0-9A-F-]{36}\.tmp)")));
        EXPECT_EQ(readFile(url.parent_path() / names[0]), encodeJSON(ConfigSnapshot::empty()));
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

TEST(ConfigStore, ValidatedLoadRefusesErrorsAndAcceptsWarnings) {
  TempDir dir;
  ConfigStore store = storeAt(dir / "config.json");
  ConfigSnapshot document = ConfigSnapshot::empty();
  document.devices.push_back(testing::stereoDevice("d", ""));
  document.devices[0].sampleRate = 44100;
  store.save(document);
  EXPECT_EQ(thrown<ConfigStoreError>([&] { store.loadValidated(); }),
            ConfigStoreError::invalidConfig(ConfigValidator{}.validate(document)));
  document.devices[0].name = "Desk";
  document.ui.selectedDeviceID = "gone";
  store.save(document);
  EXPECT_EQ(store.loadValidated(), document);
}

// A writer killed at any moment must leave a loadable, whole document behind.
TEST(ConfigStoreCrash, KilledWriterNeverLeavesATornOrMissingDocument) {
  TempDir dir;
  ConfigStore store(dir / "config.json", FileManager::defaultManager());
  const ConfigSnapshot first = richSnapshot();
  ConfigSnapshot second = ConfigSnapshot::empty();
  for (int i = 0; i < 40; ++i) {
    second.devices.push_back(testing::stereoDevice("d" + std::to_string(i), "Device"));
  }
  store.save(first);

  // Kill within about two rounds of saves, however fast this build saves, so that kills land
  // before, during and after each step of both saves.
  auto started = std::chrono::steady_clock::now();
  for (int i = 0; i < 3; ++i) {
    store.save(second);
    store.save(first);
  }
  auto saveRound = std::chrono::duration_cast<std::chrono::microseconds>(
                       std::chrono::steady_clock::now() - started) /
                   3;
  std::mt19937 random(12345);
  // A forked child starts slower than the parent saves (more so under sanitizers): kill within
  // four rounds.
  std::uniform_int_distribution<long> delayMicroseconds(0, 4 * saveRound.count() + 100);
  const int kills = 400;
  int sawFirst = 0;
  int sawSecond = 0;
  for (int round = 0; round < kills; ++round) {
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      try {
        // Alternate which document comes first, so a kill during the first save of a round
        // does not always find the same document in place.
        const ConfigSnapshot& one = round % 2 == 0 ? second : first;
        const ConfigSnapshot& other = round % 2 == 0 ? first : second;
        for (;;) {
          store.save(one);
          store.save(other);
        }
      } catch (...) {
        ::_exit(3);
      }
    }
    std::this_thread::sleep_for(std::chrono::microseconds(delayMicroseconds(random)));
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the writer stopped by itself, status " << status;

    ConfigSnapshot loaded = store.load();
    if (loaded == first) {
      ++sawFirst;
    } else if (loaded == second) {
      ++sawSecond;
    } else {
      FAIL() << "round " << round << " loaded a document that was never saved";
    }
  }
  // Both documents must have been seen, or the kills did not land while writing.
  EXPECT_GT(sawFirst, 0);
  EXPECT_GT(sawSecond, 0);

  // The killed saves' files go with the next save once they are old enough to belong to no
  // running save; others' files stay.
  writeFile(dir / ".config.json.ABCDEF01-2345-6789-abcd-EF0123456789.tmp", "{\"devi");
  writeFile(dir / ".config.json.notes.tmp", "");
  writeFile(dir / ".other.json.00000000-0000-0000-0000-000000000000.tmp", "");
  const auto files = FileManager::defaultManager();
  for (const auto& name : namesIn(dir.path())) {
    files->setModificationDate(dir / name, FileManager::Clock::now() - std::chrono::minutes(11));
  }
  writeFile(dir / ".config.json.11111111-2222-3333-4444-555555555555.tmp", "a running save");
  store.save(first);
  EXPECT_THAT(
      namesIn(dir.path()),
      ElementsAre(".config.json.11111111-2222-3333-4444-555555555555.tmp", ".config.json.notes.tmp",
                  ".other.json.00000000-0000-0000-0000-000000000000.tmp", "config.json"));
}

}  // namespace
}  // namespace brisola
