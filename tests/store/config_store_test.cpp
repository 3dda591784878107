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
using ::testing::MatchesRegex;
using testing::readFile;
using testing::richSnapshot;
using testing::TempDir;
using testing::thrown;
using testing::writeFile;

// Every entry under the directory, relative, directories (not links) ending in "/", sorted.
std::vector<std::string> listing(const fs::path& root) {
  std::vector<std::string> entries;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    entries.push_back(entry.path().lexically_relative(root).string() +
                      (fs::is_directory(entry.symlink_status()) ? "/" : ""));
  }
  std::ranges::sort(entries);
  return entries;
}

TEST(ConfigStore, OnlyFirstUseCreatesTheDocumentAndLoadsUpgradeOrRefuseWithoutWriting) {
  TempDir dir;
  fs::path url = dir / "nested" / "Brisola" / "config.json";
  ConfigStore store(url, FileManager::defaultManager());
  for (auto load : {&ConfigStore::load, &ConfigStore::loadValidated}) {
    EXPECT_EQ(thrown<ConfigStoreError>([&] { (store.*load)(); }),
              ConfigStoreError::missingConfig(url));
  }
  EXPECT_FALSE(fs::exists(dir / "nested"));
  EXPECT_EQ(store.loadOrCreateEmpty(), ConfigSnapshot::empty());
  EXPECT_EQ(store.load(), ConfigSnapshot::empty());

  // An older schema is upgraded in memory only.
  ConfigSnapshot old = richSnapshot();
  old.schemaVersion = 1;
  store.save(old);
  EXPECT_EQ(listing(url.parent_path()), std::vector<std::string>{"config.json"});
  EXPECT_EQ(store.load(), ConfigMigration::migrate(old));
  EXPECT_EQ(readFile(url), encodeJSON(old));

  // Errors refuse a validated load; warnings do not.
  ConfigSnapshot document{.devices = {testing::stereoDevice("d", "")}};
  document.devices[0].sampleRate = 44100;
  store.save(document);
  EXPECT_EQ(thrown<ConfigStoreError>([&] { store.loadValidated(); }),
            ConfigStoreError::invalidConfig(ConfigValidator{}.validate(document)));
  document.devices[0].name = "Desk";
  document.ui.selectedDeviceID = "gone";
  store.save(document);
  EXPECT_EQ(store.loadValidated(), document);
}

TEST(ConfigStore, BrokenDocumentsAreReportedAndNeverOverwritten) {
  TempDir dir;
  fs::path url = dir / "config.json";
  ConfigStore store(url, FileManager::defaultManager());
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
    EXPECT_THAT(listing(dir.path()), ElementsAre(::testing::StartsWith("config.json")));
    fs::remove(url);
  }
}

// The one step of a save that fails with an I/O error. loseDocument: the document vanishes
// while the replacement fails.
enum class Step { createDirectory, createFile, append, sync, close, replace, loseDocument, move };
Step failing;

void failAt(Step step) {
  if (step == failing)
    throw fs::filesystem_error("injected", std::make_error_code(std::errc::io_error));
}

class FailingFile : public WritableFile {
 public:
  explicit FailingFile(std::unique_ptr<WritableFile> file) : file_(std::move(file)) {}
  // A short write: part of the bytes reach the file before the failure.
  void append(std::string_view bytes) override {
    file_->append(failing == Step::append ? bytes.substr(0, bytes.size() / 2) : bytes);
    failAt(Step::append);
  }
  void sync() override {
    failAt(Step::sync);
    file_->sync();
  }
  void close() override {
    failAt(Step::close);
    file_->close();
  }

 private:
  std::unique_ptr<WritableFile> file_;
};

class FailingFileManager : public FileManagerWrapper {
 public:
  FailingFileManager() : FileManagerWrapper(FileManager::defaultManager()) {}
  void createDirectory(const fs::path& path, bool intermediates) const override {
    failAt(Step::createDirectory);
    FileManagerWrapper::createDirectory(path, intermediates);
  }
  std::unique_ptr<WritableFile> createWritableFile(const fs::path& path) const override {
    failAt(Step::createFile);
    return std::make_unique<FailingFile>(FileManagerWrapper::createWritableFile(path));
  }
  void replaceItem(const fs::path& target, const fs::path& replacement) const override {
    if (failing == Step::loseDocument) fs::remove(target);
    failAt(Step::replace);
    failAt(Step::loseDocument);
    FileManagerWrapper::replaceItem(target, replacement);
  }
  void moveItem(const fs::path& from, const fs::path& to) const override {
    failAt(Step::move);
    FileManagerWrapper::moveItem(from, to);
  }
};

TEST(ConfigStore, EveryFailingStepOfASaveLeavesTheDocumentIntactAndNoTemporaryFile) {
  // Without a document (or its directory) loadOrCreateEmpty creates the empty one, and must
  // report the failure too.
  for (const bool documentExists : {false, true}) {
    for (const Step step : documentExists
                               ? std::vector{Step::createFile, Step::append, Step::sync,
                                             Step::close, Step::replace, Step::loseDocument}
                               : std::vector{Step::createDirectory, Step::sync, Step::move}) {
      SCOPED_TRACE(static_cast<int>(step));
      failing = step;
      // A temporary file stays only as the one whole copy of a document that vanished.
      const bool leftBehind = step == Step::loseDocument;
      TempDir dir;
      const fs::path url = documentExists ? dir / "config.json" : dir / "data" / "config.json";
      if (documentExists) writeFile(url, encodeJSON(richSnapshot()));
      ConfigStore store(url, std::make_shared<FailingFileManager>());
      const auto error = thrown<fs::filesystem_error>([&] {
        documentExists ? store.save(ConfigSnapshot::empty()) : (void)store.loadOrCreateEmpty();
      });
      ASSERT_TRUE(error) << "the save succeeded";
      EXPECT_EQ(error->code(), std::errc::io_error);
      EXPECT_EQ(fs::exists(url), documentExists && !leftBehind);
      if (fs::exists(url)) {
        EXPECT_EQ(ConfigStore(url, FileManager::defaultManager()).load(), richSnapshot());
      }
      auto names = listing(dir.path());
      std::erase_if(names,
                    [](const auto& name) { return name == "config.json" || name == "data/"; });
      if (leftBehind) {
        ASSERT_THAT(names, ElementsAre(MatchesRegex(R"(\.config\.json\.[0-9A-F-]{36}\.tmp)")));
        EXPECT_EQ(readFile(dir / names[0]), encodeJSON(ConfigSnapshot::empty()));
      } else {
        EXPECT_THAT(names, ::testing::IsEmpty());
      }
    }
  }
}

// A writer killed at any moment must leave a loadable, whole document behind.
TEST(ConfigStoreCrash, KilledWriterNeverLeavesATornOrMissingDocument) {
  TempDir dir;
  ConfigStore store(dir / "config.json", FileManager::defaultManager());
  const ConfigSnapshot first = richSnapshot();
  const ConfigSnapshot second{.devices = std::vector(40, testing::stereoDevice("d", "Device"))};
  store.save(first);

  // Kill within four rounds of saves as timed here (a forked child starts slower, more so under
  // sanitizers), so that kills land before, during and after each step of both saves.
  const auto started = std::chrono::steady_clock::now();
  for (int i = 0; i < 6; ++i) store.save(i % 2 == 0 ? second : first);
  const std::chrono::nanoseconds saveRound = (std::chrono::steady_clock::now() - started) / 3;
  std::mt19937 random(12345);
  std::uniform_int_distribution<long> delay(
      0, (4 * saveRound + std::chrono::microseconds(100)).count());
  int seen[2] = {0, 0};  // first, second
  for (int round = 0; round < 400; ++round) {
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      // Alternate which document comes first, so a kill during the first save of a round does
      // not always find the same document in place.
      try {
        for (bool useFirst = round % 2 != 0;; useFirst = !useFirst)
          store.save(useFirst ? first : second);
      } catch (...) {
        ::_exit(3);
      }
    }
    std::this_thread::sleep_for(std::chrono::nanoseconds(delay(random)));
    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the writer stopped by itself, status " << status;
    const ConfigSnapshot loaded = store.load();
    ASSERT_TRUE(loaded == first || loaded == second) << "round " << round << " loaded junk";
    ++seen[loaded == second ? 1 : 0];
  }
  // Both documents must have been seen, or the kills did not land while writing.
  EXPECT_THAT(seen, ::testing::Each(::testing::Gt(0)));

  // The killed saves' files go with the next save once they are old enough to belong to no
  // running save; others' files stay.
  writeFile(dir / ".config.json.ABCDEF01-2345-6789-abcd-EF0123456789.tmp", "{\"devi");
  writeFile(dir / ".config.json.notes.tmp", "");
  writeFile(dir / ".other.json.00000000-0000-0000-0000-000000000000.tmp", "");
  const auto files = FileManager::defaultManager();
  for (const auto& name : listing(dir.path()))
    files->setModificationDate(dir / name, FileManager::Clock::now() - std::chrono::minutes(11));
  writeFile(dir / ".config.json.11111111-2222-3333-4444-555555555555.tmp", "a running save");
  store.save(first);
  EXPECT_THAT(
      listing(dir.path()),
      ElementsAre(".config.json.11111111-2222-3333-4444-555555555555.tmp", ".config.json.notes.tmp",
                  ".other.json.00000000-0000-0000-0000-000000000000.tmp", "config.json"));
}

ConfigSnapshot versioned(std::int64_t version, std::optional<std::string> selected,
                         std::vector<std::string> ids) {
  ConfigSnapshot snapshot{.schemaVersion = version, .ui = {.selectedDeviceID = selected}};
  for (const auto& id : ids) snapshot.devices.push_back(testing::stereoDevice(id, id));
  return snapshot;
}

TEST(ConfigMigration, OldVersionsBindTheSelectedOrFirstDeviceToThePassThruUID) {
  // What changes, the document, and the index of the device that takes the pass-thru UID or -1.
  const std::vector<std::tuple<const char*, ConfigSnapshot, int>> cases = {
      {"selected device", versioned(1, "b", {"a", "b"}), 1},
      {"selection names no device", versioned(1, "z", {"a", "b"}), 0},
      {"nothing selected", versioned(1, std::nullopt, {"a", "b"}), 0},
      {"no devices", versioned(1, "a", {}), -1},
      {"negative version, first of two matches", versioned(-4, "a", {"x", "a", "a"}), 1},
      {"current version", versioned(2, "b", {"a", "b"}), -1},
      {"newer versions only get the current number", versioned(3, "b", {"a", "b"}), -1},
  };
  for (const auto& [name, input, target] : cases) {
    SCOPED_TRACE(name);
    ConfigSnapshot expected = input;
    expected.schemaVersion = 2;
    if (target >= 0) expected.devices[target].uid = "dev.kestrine.pass-thru";
    EXPECT_EQ(ConfigMigration::migrate(input), expected);
  }
}

// Reports a fixed Application Support directory (or none) and home directory, and fails the
// move of any entry named "a".
class RelocatedFileManager : public FileManagerWrapper {
 public:
  RelocatedFileManager(std::vector<fs::path> support, fs::path home)
      : FileManagerWrapper(FileManager::defaultManager()),
        support_(std::move(support)),
        home_(std::move(home)) {}
  std::vector<fs::path> applicationSupportDirectories() const override { return support_; }
  fs::path homeDirectory() const override { return home_; }
  void moveItem(const fs::path& from, const fs::path& to) const override {
    if (from.filename() == "a")
      throw fs::filesystem_error("injected", from, std::make_error_code(std::errc::io_error));
    FileManagerWrapper::moveItem(from, to);
  }

 private:
  std::vector<fs::path> support_;
  fs::path home_;
};

// The first Application Support directory holds the document, or else the home layout does. A
// legacy data directory there moves once, without its bin, and never fails the call.
TEST(DefaultURL, FirstApplicationSupportDirectoryOrHomeLayoutAndTheLegacyDirectoryMovesOnce) {
  // What happens, the entries before and after; "x/" is a directory, "x" a file.
  using Entries = std::vector<std::string>;
  const std::vector<std::tuple<const char*, Entries, Entries>> rows{
      {"everything but bin moves",
       {"Kestrine/bin/", "Kestrine/logs/a.log", "Kestrine/config.json", "Kestrine/.hidden"},
       {"Brisola/", "Brisola/.hidden", "Brisola/config.json", "Brisola/logs/", "Brisola/logs/a.log",
        "Kestrine/", "Kestrine/bin/"}},
      {"nothing moves once the current directory exists",
       {"Brisola/", "Kestrine/late.json"},
       {"Brisola/", "Kestrine/", "Kestrine/late.json"}},
      {"nothing is created without either", {}, {}},
      {"an old path that is a file stays", {"Kestrine"}, {"Brisola/", "Kestrine"}},
      {"a failing move is skipped and the others still happen",
       {"Kestrine/a", "Kestrine/b"},
       {"Brisola/", "Brisola/b", "Kestrine/", "Kestrine/a"}},
  };
  for (const auto& [what, before, after] : rows) {
    SCOPED_TRACE(what);
    TempDir dir;
    for (const std::string& entry : before) {
      fs::create_directories((dir / entry).parent_path());
      if (!entry.ends_with("/")) writeFile(dir / entry, entry);
    }
    RelocatedFileManager manager({dir.path(), dir / "other"}, dir / "home");
    EXPECT_EQ(ConfigStore::defaultURL(manager), dir / "Brisola" / "config.json");
    EXPECT_EQ(listing(dir.path()), after);
    for (const std::string& entry : after) {
      if (!entry.starts_with("Brisola/") || entry.ends_with("/")) continue;
      EXPECT_EQ(readFile(dir / entry), "Kestrine/" + entry.substr(8)) << "moved, not made";
    }
  }
  TempDir dir;
  EXPECT_EQ(ConfigStore::defaultURL(RelocatedFileManager({}, dir / "home")),
            dir / "home" / "Library" / "Application Support" / "Brisola" / "config.json");
}

}  // namespace
}  // namespace brisola
