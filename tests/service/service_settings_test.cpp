#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/service_log.hpp"
#include "service/number_text.hpp"
#include "service/service_settings.hpp"
#include "support/system_helpers.hpp"
#include "support/thrown.hpp"

namespace brisola {
namespace {

namespace fs = std::filesystem;
using testing::TempDir;
using testing::thrown;

TEST(ServiceSettings, TruthyValuesAreTheFourWordsInAnyCaseAndNothingElse) {
  for (const char* yes : {"1", "true", "TRUE", "Yes", "ON", "on"}) {
    EXPECT_TRUE(Settings::isTruthy(std::string(yes))) << yes;
  }
  for (const char* no : {"0", "false", "no", "off", "y", "", " true", "true ", "2"}) {
    EXPECT_FALSE(Settings::isTruthy(std::string(no))) << '"' << no << '"';
  }
  EXPECT_FALSE(Settings::isTruthy(std::nullopt));
}

TEST(ServiceSettings, EachVariableFillsItsOwnField) {
  EXPECT_EQ(Settings::read({{"BRISOLA_CONFIG_PATH", "c.json"},
                            {"BRISOLA_SERVICE_POLL_SECONDS", "0.5"},
                            {"BRISOLA_SERVICE_ONCE", "yes"},
                            {"BRISOLA_HELPER_DIR", "helpers"},
                            {"BRISOLA_HARDWARE_SIMULATION", "hw.json"},
                            {"BRISOLA_SERVICE_DRY_RUN", "no"}}),
            (Settings{"c.json", Settings::Seconds(0.5), true, "helpers", "hw.json"}));
  EXPECT_EQ(Settings::read({{"BRISOLA_SERVICE_DRY_RUN", "on"}}).dryRun, true);
}

TEST(ServiceSettings, PollIntervalAcceptsOnlyWholeStrtodNumbersAboveZero) {
  struct Case {
    std::optional<std::string> text;
    double seconds;
  };
  std::vector<Case> cases = {
      {std::nullopt, 1.0}, {"0.25", 0.25}, {"1e1", 10.0},   {"+2", 2.0},       {"0x10", 16.0},
      {"2.", 2.0},         {".5", 0.5},    {"0", 1.0},      {"-3", 1.0},       {"abc", 1.0},
      {"nan", 1.0},        {"", 1.0},      {" 2", 1.0},     {"2 ", 1.0},       {"\t2", 1.0},
      {"2s", 1.0},         {"1,5", 1.0},   {"inf", 3600.0}, {"1e300", 3600.0}, {"1e-300", 1e-300},
  };
  for (const auto& c : cases) {
    EXPECT_DOUBLE_EQ(Settings::pollIntervalFrom(c.text).count(), c.seconds)
        << (c.text ? '"' + *c.text + '"' : "absent");
  }
}

class HelperPathsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    previous_ = fs::current_path();
    fs::current_path(dir_.path());
  }
  void TearDown() override { fs::current_path(previous_); }

  fs::path makeHelper(const fs::path& directory, std::string_view name, bool executable = true) {
    fs::create_directories(directory);
    return testing::writeExecutable(directory / name, "#!/bin/sh\n", executable ? 0755 : 0644);
  }
  void makeAll(const fs::path& directory) {
    for (auto name :
         {HelperPaths::monitorName, HelperPaths::hardwareSourceName, HelperPaths::processTapName}) {
      makeHelper(directory, name);
    }
  }

  TempDir dir_;
  fs::path previous_;
  const FileManager& files_ = *FileManager::defaultManager();
};

TEST_F(HelperPathsTest, CandidatesAreOrderedStandardisedAndDeduplicated) {
  fs::path cwd = fs::current_path();
  auto candidates =
      HelperPaths::candidateDirectories(Settings{.helperDirectory = "helpers/../helpers/"},
                                        {"build/./service/brisola-audio-service"}, files_);
  EXPECT_THAT(candidates,
              ::testing::ElementsAre(cwd / "helpers", cwd / "build/service", cwd / "build/tools"));

  candidates = HelperPaths::candidateDirectories(Settings{.helperDirectory = ""},
                                                 {"/opt/brisola/bin/service"}, files_);
  EXPECT_THAT(candidates, ::testing::ElementsAre(fs::path("/opt/brisola/bin"), cwd / "build/tools",
                                                 cwd / "build/service"));
  candidates = HelperPaths::candidateDirectories(Settings{}, {}, files_);
  EXPECT_THAT(candidates, ::testing::ElementsAre(cwd / "build/tools", cwd / "build/service"));
}

TEST_F(HelperPathsTest, LookupPrefersTheEnvironmentSkipsNonExecutablesAndNamesTheFirstMissing) {
  fs::path cwd = fs::current_path();
  auto resolved = [&](const Settings& settings) {
    return HelperPaths::resolve(settings, {(cwd / "self" / "svc").string()}, files_);
  };
  auto missing = [&] { return thrown<ServiceError>([&] { resolved({}); }); };
  EXPECT_EQ(missing(), ServiceError::missingHelper("brisola-monitor"));
  makeHelper(cwd / "build/tools", "brisola-monitor");
  makeHelper(cwd / "build/service", "brisola-process-tap");
  EXPECT_EQ(missing(), ServiceError::missingHelper("brisola-hardware-source"));

  makeAll(cwd / "env");
  makeAll(cwd / "self");
  const Settings settings{.helperDirectory = (cwd / "env").string()};
  EXPECT_EQ(resolved(settings).monitor, cwd / "env" / "brisola-monitor");
  makeHelper(cwd / "env", "brisola-hardware-source", false);  // present but not executable
  EXPECT_EQ(resolved(settings),
            (HelperPaths{cwd / "env" / "brisola-monitor", cwd / "self" / "brisola-hardware-source",
                         cwd / "env" / "brisola-process-tap"}));
}

TEST(NumberText, ShortestRoundTripWithAFractionOrAnExponent) {
  const std::vector<std::pair<double, std::string>> rows{
      {1.0, "1.0"},
      {1.25, "1.25"},
      {1e-05, "1e-05"},
      {0.0001, "0.0001"},
      {1e16, "1e+16"},
      {2.5e-07, "2.5e-07"},
      {-0.0, "-0.0"},
      {100.0, "100.0"},
      {0.1 + 0.2, "0.30000000000000004"},
      {1234567890123456.0, "1234567890123456.0"}};
  for (const auto& [value, text] : rows) EXPECT_EQ(shortestText(value), text);
  EXPECT_EQ(shortestText(0.1f), "0.1");
  EXPECT_EQ(shortestText(static_cast<float>(1.0 / 3.0)), "0.33333334");
}

TEST(ServiceLog, LinesCarryAnISO8601UTCStampWithWholeSeconds) {
  auto time = std::chrono::sys_days(std::chrono::year(2026) / 3 / 4) + std::chrono::hours(9) +
              std::chrono::minutes(15) + std::chrono::seconds(27) + std::chrono::milliseconds(900);
  EXPECT_EQ(BrisolaServiceLog::format("Starting Brisola audio service", time),
            "[2026-03-04T09:15:27Z] Starting Brisola audio service");
}

}  // namespace
}  // namespace brisola
