#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "brisola/runtime/heartbeat.hpp"
#include "support/temp_dir.hpp"

namespace brisola {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::system_clock;
using namespace std::chrono_literals;
using testing::TempDir;

// Whole seconds, so any file system keeps the time exactly.
const Clock::time_point beatTime = Clock::time_point(1'700'000'000s);

class FixedDirectories : public FileManagerWrapper {
 public:
  FixedDirectories(std::vector<fs::path> directories)
      : FileManagerWrapper(FileManager::defaultManager()), directories_(std::move(directories)) {}
  std::vector<fs::path> applicationSupportDirectories() const override { return directories_; }

 private:
  std::vector<fs::path> directories_;
};

TEST(ServiceHeartbeat, BeatCreatesDirectoryAndEmptyFileThenMovesOnlyTheDate) {
  EXPECT_EQ(BrisolaCore::serviceHeartbeatFileURL(FixedDirectories({"/a/support", "/b"})),
            fs::path("/a/support/Brisola/service-heartbeat"));
  EXPECT_EQ(BrisolaCore::serviceHeartbeatFileURL(FixedDirectories({})), std::nullopt);

  TempDir temp;
  fs::path file = temp / "deep" / "Brisola" / "service-heartbeat";
  EXPECT_FALSE(ServiceHeartbeat::isFresh(file, beatTime));
  EXPECT_EQ(ServiceHeartbeat::lastBeat(file), std::nullopt);
  ServiceHeartbeat::beat(file, beatTime);
  EXPECT_EQ(testing::readFile(file), "");
  EXPECT_EQ(ServiceHeartbeat::lastBeat(file), beatTime);
  // Fresh for ten seconds, and when in the future.
  EXPECT_TRUE(ServiceHeartbeat::isFresh(file, beatTime + 10s));
  EXPECT_FALSE(ServiceHeartbeat::isFresh(file, beatTime + 10001ms));
  EXPECT_TRUE(ServiceHeartbeat::isFresh(file, beatTime - 1h));

  testing::writeFile(file, "kept");
  ServiceHeartbeat::beat(file, beatTime + 5s);
  EXPECT_EQ(testing::readFile(file), "kept");
  EXPECT_EQ(ServiceHeartbeat::lastBeat(file), beatTime + 5s);
}

// Every step fails; the beat goes through all of them and never throws.
class BrokenFiles : public FixedDirectories {
 public:
  BrokenFiles() : FixedDirectories({}) {}
  mutable std::vector<std::string> calls;
  bool fileExists(const fs::path&) const override {
    calls.push_back("exists");
    return false;
  }
  void createDirectory(const fs::path& path, bool intermediates) const override {
    fail("directory " + path.filename().string() + (intermediates ? " with intermediates" : ""));
  }
  void createFile(const fs::path&) const override { fail("file"); }
  void setModificationDate(const fs::path&, Clock::time_point) const override { fail("date"); }
  std::optional<Clock::time_point> modificationDate(const fs::path&) const override {
    fail("read date");
  }

 private:
  [[noreturn]] void fail(std::string call) const {
    calls.push_back(std::move(call));
    throw fs::filesystem_error("refused", std::make_error_code(std::errc::permission_denied));
  }
};

TEST(ServiceHeartbeat, FailuresAreIgnoredAndEveryStepIsStillTried) {
  BrokenFiles files;
  fs::path file = "/nowhere/Brisola/service-heartbeat";
  EXPECT_NO_THROW(ServiceHeartbeat::beat(file, beatTime, files));
  EXPECT_FALSE(ServiceHeartbeat::isFresh(file, beatTime, files));
  EXPECT_EQ(ServiceHeartbeat::lastBeat(file, files), std::nullopt);
  EXPECT_THAT(files.calls, ::testing::ElementsAre("exists", "directory Brisola with intermediates",
                                                  "file", "date", "read date", "read date"));
}

}  // namespace
}  // namespace brisola
