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

TEST(DefaultURL, MovesTheLegacyDataDirectoryOnceKeepingItsBin) {
  TempDir dir;
  fs::path base = dir / "support";
  fs::create_directories(base / "Kestrine" / "bin");
  fs::create_directories(base / "Kestrine" / "logs");
  writeFile(base / "Kestrine" / "config.json", "{\"legacy\": true}");
  writeFile(base / "Kestrine" / ".hidden", "h");
  writeFile(base / "Kestrine" / "logs" / "a.log", "log");
  RelocatedFileManager manager({base}, dir / "home");

  fs::path url = ConfigStore::defaultURL(manager);
  EXPECT_EQ(url, base / "Brisola" / "config.json");
  EXPECT_EQ(readFile(url), "{\"legacy\": true}");
  EXPECT_EQ(readFile(base / "Brisola" / ".hidden"), "h");
  EXPECT_EQ(readFile(base / "Brisola" / "logs" / "a.log"), "log");
  std::vector<std::string> left;
  for (const auto& entry : fs::directory_iterator(base / "Kestrine")) {
    left.push_back(entry.path().filename().string());
  }
  EXPECT_THAT(left, ::testing::ElementsAre("bin"));

  // Once the current directory exists nothing moves again, whatever the old one holds.
  writeFile(base / "Kestrine" / "late.json", "late");
  ConfigStore::defaultURL(manager);
  EXPECT_TRUE(fs::exists(base / "Kestrine" / "late.json"));
  EXPECT_FALSE(fs::exists(base / "Brisola" / "late.json"));
}

TEST(DefaultURL, LegacyMigrationLeavesTheDiskAloneOrSwallowsFailures) {
  {
    TempDir dir;  // only the current directory: nothing changes
    fs::create_directories(dir / "Brisola");
    RelocatedFileManager manager({dir.path()}, dir / "home");
    ConfigStore::defaultURL(manager);
    EXPECT_FALSE(fs::exists(dir / "Kestrine"));
    EXPECT_TRUE(fs::is_empty(dir / "Brisola"));
  }
  {
    TempDir dir;  // neither: nothing is created
    RelocatedFileManager manager({dir.path()}, dir / "home");
    ConfigStore::defaultURL(manager);
    EXPECT_TRUE(fs::is_empty(dir.path()));
  }
  {
    TempDir dir;  // the old path is a plain file: the current directory appears, nothing moves
    writeFile(dir / "Kestrine", "not a directory");
    RelocatedFileManager manager({dir.path()}, dir / "home");
    ConfigStore::defaultURL(manager);
    EXPECT_TRUE(fs::is_directory(dir / "Brisola"));
    EXPECT_TRUE(fs::is_empty(dir / "Brisola"));
    EXPECT_EQ(readFile(dir / "Kestrine"), "not a directory");
  }
  {
    TempDir dir;  // a move that fails is skipped and the others still happen
    fs::create_directories(dir / "Kestrine");
    writeFile(dir / "Kestrine" / "a", "a");
    writeFile(dir / "Kestrine" / "b", "b");
    class FailingMove : public RelocatedFileManager {
     public:
      using RelocatedFileManager::RelocatedFileManager;
      void moveItem(const fs::path& from, const fs::path& to) const override {
        if (from.filename() == "a") {
          throw fs::filesystem_error("injected", from, std::make_error_code(std::errc::io_error));
        }
        RelocatedFileManager::moveItem(from, to);
      }
    } manager({dir.path()}, dir / "home");
    EXPECT_EQ(ConfigStore::defaultURL(manager), dir / "Brisola" / "config.json");
    EXPECT_TRUE(fs::exists(dir / "Kestrine" / "a"));
    EXPECT_EQ(readFile(dir / "Brisola" / "b"), "b");
  }
}

}  // namespace
}  // namespace brisola
