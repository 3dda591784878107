#include <gtest/gtest.h>

#include "brisola/model/json_coding.hpp"
#include "brisola/store/config_store.hpp"
#include "support/documents.hpp"
#include "support/temp_dir.hpp"
#include "validation/validation_test_support.hpp"

namespace brisola {
namespace {

using testing::codes;
using testing::TempDir;
using testing::writeFile;

TEST(ValidatedLoad, RefusesErrorsAndAcceptsWarnings) {
  TempDir directory;
  const auto url = directory / "config.json";
  ConfigStore store(url, FileManager::defaultManager());

  ConfigSnapshot broken = ConfigSnapshot::empty();
  broken.devices.push_back(testing::stereoDevice("d", ""));
  broken.devices.back().volume = 3.0;
  broken.devices.back().sampleRate = 44100;
  writeFile(url, encodeJSON(broken));
  try {
    store.loadValidated();
    ADD_FAILURE() << "loaded";
  } catch (const ConfigStoreError& error) {
    EXPECT_EQ(error.errorCase(), ConfigStoreError::Case::invalidConfig);
    EXPECT_STREQ(error.what(), "Config contains 2 validation error(s).");
    EXPECT_EQ(codes(error.result().errors),
              (std::vector<std::string>{"device.emptyName", "device.invalidVolume"}));
    EXPECT_EQ(codes(error.result().warnings),
              std::vector<std::string>{"device.unsupportedSampleRate"});
  }

  ConfigSnapshot warnedOnly = ConfigSnapshot::empty();
  warnedOnly.devices.push_back(testing::stereoDevice("d", "Desk"));
  warnedOnly.devices.back().sampleRate = 44100;
  warnedOnly.ui.selectedDeviceID = "gone";
  writeFile(url, encodeJSON(warnedOnly));
  EXPECT_EQ(store.loadValidated(), warnedOnly);
}

}  // namespace
}  // namespace brisola
