#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "brisola/platform/file_manager.hpp"
#include "brisola/platform/unicode.hpp"
#include "support/system_helpers.hpp"
#include "support/thrown.hpp"

namespace brisola {
namespace {

namespace fs = std::filesystem;
using testing::readFile;
using testing::TempDir;
using testing::thrown;
using testing::writeFile;

TEST(PosixFileManager, WritingFlushesWholeFilesAndDescriptorsAreCloseOnExec) {
  TempDir dir;
  auto manager = FileManager::defaultManager();
  int before = testing::openDescriptorCount();

  auto file = manager->createWritableFile(dir / "a.txt");
  bool sawCloseOnExec = false;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code ignored;
    if (fs::read_symlink(entry.path(), ignored) == dir / "a.txt") {
      int fd = std::stoi(entry.path().filename().string());
      sawCloseOnExec = (::fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
    }
  }
  EXPECT_TRUE(sawCloseOnExec);
  file->append("hello ");
  file->append(std::string(200000, 'x'));
  file->sync();
  file->close();
  EXPECT_EQ(readFile(dir / "a.txt"), "hello " + std::string(200000, 'x'));

  manager->write(dir / "a.txt", "short");  // truncates
  EXPECT_EQ(manager->contents(dir / "a.txt"), "short");
  manager->contentsOfDirectory(dir.path());
  EXPECT_EQ(testing::openDescriptorCount(), before) << "a descriptor leaked";
}

TEST(PosixFileManager, MovesReplacementsDirectoriesListingsAndAttributes) {
  TempDir dir;
  auto manager = FileManager::defaultManager();
  // A move refuses an existing destination; a replacement overwrites it.
  writeFile(dir / "a", "A");
  writeFile(dir / "b", "B");
  const auto error = thrown<fs::filesystem_error>([&] { manager->moveItem(dir / "a", dir / "b"); });
  ASSERT_TRUE(error) << "move overwrote an existing file";
  EXPECT_EQ(error->code(), std::errc::file_exists);
  EXPECT_EQ(error->path1(), dir / "a");
  EXPECT_EQ(readFile(dir / "b"), "B");
  manager->replaceItem(dir / "b", dir / "a");
  EXPECT_EQ(readFile(dir / "b"), "A");
  EXPECT_FALSE(manager->fileExists(dir / "a"));
  manager->moveItem(dir / "b", dir / "c");
  EXPECT_EQ(readFile(dir / "c"), "A");

  // Creating what exists is fine, unless it is a file; intermediates only when asked.
  manager->createDirectory(dir / "x" / "y" / "z", true);
  manager->createDirectory(dir / "x" / "y" / "z", true);
  EXPECT_THROW(manager->createDirectory(dir / "p" / "q", false), fs::filesystem_error);
  writeFile(dir / "file", "");
  EXPECT_THROW(manager->createDirectory(dir / "file", true), fs::filesystem_error);

  // Times to the microsecond; a directory is no executable file.
  auto date = FileManager::Clock::time_point(std::chrono::seconds(1700000000)) +
              std::chrono::microseconds(250000);
  manager->setModificationDate(dir / "file", date);
  EXPECT_EQ(manager->modificationDate(dir / "file"), date);
  EXPECT_FALSE(manager->isExecutableFile(dir / "x"));
  fs::create_symlink(dir / "x", dir / "link");
  EXPECT_TRUE(manager->fileExists(dir / "link"));
  fs::create_symlink(dir / "nowhere", dir / "dangling");
  EXPECT_FALSE(manager->fileExists(dir / "dangling"));
}

TEST(PosixFileManager, ApplicationSupportFollowsXDGThenHome) {
  using testing::ScopedEnvironment;
  auto manager = FileManager::defaultManager();
  ScopedEnvironment home("HOME", "/home/someone");
  for (auto [xdg, expected] : {std::pair("/data/home", "/data/home"),
                               std::pair("relative/path", "/home/someone/.local/share")}) {
    ScopedEnvironment data("XDG_DATA_HOME", xdg);
    EXPECT_THAT(manager->applicationSupportDirectories(), ::testing::ElementsAre(expected));
  }
  ScopedEnvironment noData("XDG_DATA_HOME", std::nullopt);
  ScopedEnvironment noHome("HOME", "");
  EXPECT_TRUE(manager->homeDirectory().is_absolute()) << "taken from the password database";
}

TEST(Unicode, TrimmingRemovesEveryKindOfSpaceAndLineBreakOnlyAtTheEnds) {
  EXPECT_EQ(unicode::trimmingWhitespaceAndNewlines(" \t\r\n Left \u00A0\u2028\u0085\u3000"),
            "Left");
  EXPECT_EQ(unicode::trimmingWhitespaceAndNewlines("a \u2003 b"), "a \u2003 b");
  EXPECT_EQ(unicode::trimmingWhitespaceAndNewlines(""), "");
  EXPECT_TRUE(unicode::isBlank(" \u2029\u000B\u000C"));
  EXPECT_FALSE(unicode::isBlank("\u200B"));  // zero-width space is a format character, not a space
  EXPECT_FALSE(unicode::isBlank(" x "));
}

TEST(Unicode, TruncationNeverSplitsAUserPerceivedCharacter) {
  std::string threeByte;
  for (int i = 0; i < 43; ++i) threeByte += "\u20AC";  // 129 bytes
  std::string cut = unicode::truncatedToByteLength(threeByte, 127);
  EXPECT_EQ(cut.size(), 126u);
  EXPECT_EQ(unicode::truncatedToByteLength(std::string(200, 'a'), 127), std::string(127, 'a'));
  EXPECT_EQ(unicode::truncatedToByteLength("short", 127), "short");

  // A family emoji is one cluster of 25 bytes; an accented letter is two code points.
  std::string family = "\U0001F468\u200D\U0001F469\u200D\U0001F467\u200D\U0001F466";
  EXPECT_EQ(unicode::truncatedToByteLength("ab" + family, 26), "ab");
  EXPECT_EQ(unicode::truncatedToByteLength("ab" + family, 27), "ab" + family);
  EXPECT_EQ(unicode::truncatedToByteLength("xe\u0301", 2), "x");
  EXPECT_EQ(unicode::truncatedToByteLength("\u20AC", 2), "");
  // Bytes that are not UTF-8 never make the result longer than asked.
  std::string broken = "ab\xE2\x82\xE2\x82\xAC\xFF\xFE";
  for (std::size_t limit = 0; limit < broken.size(); ++limit) {
    EXPECT_LE(unicode::truncatedToByteLength(broken, limit).size(), limit);
  }
}

TEST(Unicode, DecodingReplacesEachMaximalInvalidSubsequence) {
  EXPECT_EQ(unicode::decodingUTF8Replacing("ok \u00E9"), "ok \u00E9");
  EXPECT_EQ(unicode::decodingUTF8Replacing("a\xF0\x9F\x98"
                                           "b"),
            "a\uFFFDb");                                                  // truncated sequence
  EXPECT_EQ(unicode::decodingUTF8Replacing("\xC0\xAF"), "\uFFFD\uFFFD");  // overlong form
  EXPECT_EQ(unicode::decodingUTF8Replacing("\xED\xA0\x80"), "\uFFFD\uFFFD\uFFFD");  // surrogate
  EXPECT_EQ(unicode::decodingUTF8Replacing(std::string("a\0b", 3)), std::string("a\0b", 3));
  EXPECT_TRUE(unicode::isValidUTF8("\u00E9\U0001F600"));
  EXPECT_FALSE(unicode::isValidUTF8("\xFF"));
}

}  // namespace
}  // namespace brisola
