#pragma once

// Runs the built brisolactl on a private document, simulated hardware and data directory.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "brisola/model/json_coding.hpp"
#include "support/process_runner.hpp"
#include "support/temp_dir.hpp"

namespace brisola::testing {

inline constexpr const char* simulatedHardware = R"({
  "devices": [
    {"objectID": 41, "uid": "StudioMic", "name": "Studio Mic", "inputStreams": [4],
     "outputStreams": [], "inputChannelNames": ["A", "B", "C", "D"]},
    {"objectID": 42, "uid": "Speakers", "name": "Desk Speakers", "inputStreams": [],
     "outputStreams": [2]},
    {"objectID": 45, "uid": "app.brisola.device.mix", "name": "Mix", "inputStreams": [2],
     "outputStreams": [2]}
  ],
  "defaultInputDevice": 41,
  "defaultOutputDevice": 42,
  "plugIns": {"app.brisola.hal": 7},
  "processes": [{"objectID": 90, "pid": 4242, "bundleID": "com.example.sketchpad"}],
  "applications": [{"pid": 4242, "localizedName": "Sketchpad", "activationPolicy": "regular"}]
})";

class CtlTest : public ::testing::Test {
 protected:
  CtlTest() {
    writeFile(hardware(), simulatedHardware);
    environment_ = currentEnvironment();
    environment_["BRISOLA_CONFIG_PATH"] = document().string();
    environment_["BRISOLA_HARDWARE_SIMULATION"] = hardware().string();
    environment_["HOME"] = directory_.path().string();
    environment_["XDG_DATA_HOME"] = (directory_ / "data").string();
  }

  std::filesystem::path document() const { return directory_ / "config.json"; }
  std::filesystem::path hardware() const { return directory_ / "hardware.json"; }

  void writeDocument(const ConfigSnapshot& snapshot) const {
    writeFile(document(), encodeJSON(snapshot));
  }
  ConfigSnapshot readDocument() const { return decodeJSON<ConfigSnapshot>(readFile(document())); }

  Completed run(const std::vector<std::string>& arguments) const {
    return runToCompletion(program(), arguments, environment_, directory_.path());
  }
  static std::filesystem::path program() { return buildDirectory() / "tools" / "brisolactl"; }

  TempDir directory_;
  std::map<std::string, std::string> environment_;
};

}  // namespace brisola::testing
