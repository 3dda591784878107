#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "brisola/store/config_store.hpp"
#include "support/documents.hpp"
#include "support/temp_dir.hpp"

namespace brisola {
namespace {

namespace fs = std::filesystem;
using testing::readFile;
using testing::stereoDevice;
using testing::TempDir;
using testing::writeFile;

ConfigSnapshot document(std::int64_t version, std::optional<std::string> selected,
                        std::vector<std::string> ids) {
  ConfigSnapshot snapshot{.schemaVersion = version, .ui = {.selectedDeviceID = selected}};
  for (const auto& id : ids) snapshot.devices.push_back(stereoDevice(id, id));
  return snapshot;
}

TEST(ConfigMigration, OldVersionsBindTheSelectedOrFirstDeviceToThePassThruUID) {
  struct Case {
    const char* name;
    ConfigSnapshot input;
    int target;  // index of the device that takes the pass-thru UID, or -1
  };
  const std::vector<Case> cases = {
      {"selected device", document(1, "b", {"a", "b"}), 1},
      {"selection names no device", document(1, "z", {"a", "b"}), 0},
      {"nothing selected", document(1, std::nullopt, {"a", "b"}), 0},
      {"no devices", document(1, "a", {}), -1},
      {"negative version, first of two matches", document(-4, "a", {"x", "a", "a"}), 1},
      {"current version", document(2, "b", {"a", "b"}), -1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ConfigSnapshot expected = c.input;
    expected.schemaVersion = 2;
    if (c.target >= 0) expected.devices[c.target].uid = "dev.kestrine.pass-thru";
    EXPECT_EQ(ConfigMigration::migrate(c.input), expected);
  }
  // Newer versions only get the current number.
  ConfigSnapshot newer = testing::richSnapshot();
  newer.schemaVersion = 3;
  EXPECT_EQ(ConfigMigration::migrate(newer), testing::richSnapshot());
}

// Reports a fixed Application Support directory (or none) and home directory.
class RelocatedFileManager : public FileManagerWrapper {
 public:
  RelocatedFileManager(std::vector<fs::path> support, fs::path home)
      : FileManagerWrapper(FileManager::defaultManager()),
        support_(std::move(support)),
        home_(std::move(home)) {}
  std::vector<fs::path> applicationSupportDirectories() const override { return support_; }
  fs::path homeDirectory() const override { return home_; }

 private:
  std::vector<fs::path> support_;
  fs::path home_;
};

TEST(DefaultURL, UsesTheFirstApplicationSupportDirectoryOrElseTheHomeLayout) {
  TempDir dir;
  RelocatedFileManager withSupport({dir / "support", dir / "other"}, dir / "home");
  EXPECT_EQ(ConfigStore::defaultURL(withSupport), dir / "support" / "Brisola" / "config.json");
  RelocatedFileManager without({}, dir / "home");
  EXPECT_EQ(ConfigStore::defaultURL(without),
            dir / "home" / "Library" / "Application Support" / "Brisola" / "config.json");
}

// Every entry under the directory, relative, directories with a trailing "/", sorted.
std::vector<std::string> listing(const fs::path& root) {
  std::vector<std::string> entries;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    entries.push_back(fs::relative(entry.path(), root).string() +
                      (entry.is_directory() ? "/" : ""));
  }
  std::sort(entries.begin(), entries.end());
  return entries;
}

// Fails the move of any entry named "a".
class FailingMove : public RelocatedFileManager {
 public:
  using RelocatedFileManager::RelocatedFileManager;
  void moveItem(const fs::path& from, const fs::path& to) const override {
    if (from.filename() == "a") {
      throw fs::filesystem_error("injected", from, std::make_error_code(std::errc::io_error));
    }
    RelocatedFileManager::moveItem(from, to);
  }
};

TEST(DefaultURL, TheLegacyDataDirectoryMovesOnceWithoutItsBinAndNeverFailsTheCall) {
  struct Row {
    const char* what;
    std::vector<std::string> before, after;  // "x/" is a directory, "x" a file
  };
  const std::vector<Row> rows{
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
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    TempDir dir;
    for (const std::string& entry : row.before) {
      fs::create_directories((dir / entry).parent_path());
      if (!entry.ends_with("/")) writeFile(dir / entry, entry);
    }
    FailingMove manager({dir.path()}, dir / "home");
    EXPECT_EQ(ConfigStore::defaultURL(manager), dir / "Brisola" / "config.json");
    EXPECT_EQ(listing(dir.path()), row.after);
    for (const std::string& entry : row.after) {
      if (!entry.starts_with("Brisola/") || entry.ends_with("/")) continue;
      EXPECT_EQ(readFile(dir / entry), "Kestrine/" + entry.substr(8)) << "moved, not made";
    }
  }
}

}  // namespace
}  // namespace brisola
