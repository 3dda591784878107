#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "brisola/ipc/exchange_records.hpp"

namespace brisola {
namespace {

using Json = nlohmann::json;

HealthReport sampleReport() {
  return HealthReport{
      .agentVersion = "1.2.3",
      .minimumSupportedOS = "14.4.0",
      .configURL = "/Users/x/Library/Application Support/Brisola/config.json",
      .deviceCount = 3,
      .validation = {.errors = {{"device.emptyName", "Device name must not be empty.",
                                 "devices[0].name"}},
                     .warnings = {}},
      .audioCapturePermission = PermissionStatus::granted,
      .microphonePermission = PermissionStatus::notDetermined,
      .halDriverLoaded = true};
}

TEST(ExchangeRecords, RoundTripThroughTheirJSONForms) {
  HealthReport report = sampleReport();
  EXPECT_EQ(decodeJSON<HealthReport>(encodeJSON(report)), report);
  auto written = Json::parse(encodeJSON(report));
  EXPECT_EQ(written["validation"]["warnings"], Json::array());
  EXPECT_EQ(written["microphonePermission"], "notDetermined");
  EXPECT_EQ(encodeJSON(report).find("\\/"), std::string::npos);

  AudioDeviceInventory inventory{
      .inputs = {{.uid = "mic",
                  .name = "Mic",
                  .channelCount = 2,
                  .isDefault = true,
                  .channelNames = std::vector<std::string>{"Left", ""}}},
      .outputs = {{.uid = "spk", .name = "Speakers", .channelCount = 2, .isDefault = false}}};
  EXPECT_EQ(decodeJSON<AudioDeviceInventory>(encodeJSON(inventory)), inventory);
  EXPECT_FALSE(Json::parse(encodeJSON(inventory))["outputs"][0].contains("channelNames"));

  DeviceTemplate deviceTemplate{.name = "New", .sampleRate = 44100.0, .channelCount = 4};
  EXPECT_EQ(decodeJSON<DeviceTemplate>(encodeJSON(deviceTemplate)), deviceTemplate);
  InstallResult install{.succeeded = false, .message = "Driver/plug-in missing"};
  EXPECT_EQ(decodeJSON<InstallResult>(encodeJSON(install)), install);
}

TEST(ExchangeRecords, OptionalFieldsAreLeftOutAndNullsReadAsAbsent) {
  ApplicationSourceCandidate nameOnly{.displayName = "Sketchpad"};
  EXPECT_EQ(Json::parse(encodeJSON(nameOnly)), Json({{"displayName", "Sketchpad"}}));
  EXPECT_EQ(decodeJSON<ApplicationSourceCandidate>(encodeJSON(nameOnly)), nameOnly);

  auto info = decodeJSON<AudioDeviceInfo>(
      R"({"uid":"u","name":"n","channelCount":2,"isDefault":false,"channelNames":null})");
  EXPECT_EQ(info.channelNames, std::nullopt);

  ApplicationSourceCandidate full{.displayName = "A",
                                  .bundleIdentifier = "com.example.a",
                                  .pid = 2147483647,
                                  .processObjectID = 18446744073709551615ULL};
  EXPECT_EQ(decodeJSON<ApplicationSourceCandidate>(encodeJSON(full)), full);
}

TEST(ExchangeRecords, DecodingRefusesMissingKeysAndUnknownPermissions) {
  Json report = Json::parse(encodeJSON(sampleReport()));
  report["validation"].erase("warnings");
  try {
    decodeJSON<HealthReport>(report.dump());
    FAIL();
  } catch (const DecodingError& error) {
    EXPECT_EQ(error.path(), "validation.warnings");
  }

  EXPECT_EQ(decodeJSON<PermissionStatus>("\"granted\""), PermissionStatus::granted);
  EXPECT_THROW(decodeJSON<PermissionStatus>("\"Granted\""), DecodingError);
  EXPECT_THROW(decodeJSON<ApplicationSourceCandidate>(R"({"displayName":"A","pid":2147483648})"),
               DecodingError);
}

}  // namespace
}  // namespace brisola
