// A writer killed at any moment must leave a loadable, whole document behind.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <thread>

#include "brisola/store/config_store.hpp"
#include "support/documents.hpp"
#include "support/temp_dir.hpp"

namespace brisola {
namespace {

TEST(ConfigStoreCrash, KilledWriterNeverLeavesATornOrMissingDocument) {
  testing::TempDir dir;
  ConfigStore store(dir / "config.json", FileManager::defaultManager());
  const ConfigSnapshot first = testing::richSnapshot();
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
}

}  // namespace
}  // namespace brisola
