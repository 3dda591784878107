#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "brisola/model/json_coding.hpp"
#include "support/documents.hpp"

namespace brisola {
namespace {

TEST(MakeDefault, TakesIdentifiersFromTheFactoryInContractOrder) {
  testing::CountingIdFactory factory{.prefix = ""};
  std::vector<std::string> handed{"a", "b", "c", "d", "unused"};
  int next = 0;
  DeviceConfig device = DeviceConfig::makeDefault("", 44100.0, [&] {
    ++factory.calls;
    return handed.at(next++);
  });
  EXPECT_EQ(factory.calls, 4);

  DeviceConfig expected{
      .id = "a",
      .name = "",
      .enabled = true,
      .sampleRate = 44100.0,
      .channelCount = 2,
      .volume = 1.0,
      .uid = "app.brisola.device.a",
      .icon = "waveform.circle",
      .sources = {SourceConfig{.id = "b",
                               .type = SourceType::passThru,
                               .name = "Pass-Thru",
                               .enabled = true,
                               .muted = false,
                               .gain = 1.0,
                               .channelCount = 2}},
      .wires = {testing::wire("c", testing::sourceEnd("b", 1), testing::outputEnd("a", 1)),
                testing::wire("d", testing::sourceEnd("b", 2), testing::outputEnd("a", 2))},
  };
  EXPECT_EQ(device, expected);

  auto written = nlohmann::json::parse(encodeJSON(device));
  EXPECT_FALSE(written.contains("channelGains"));
  EXPECT_EQ(written["monitors"], nlohmann::json::array());
  EXPECT_EQ(written["sources"][0]["metadata"], nlohmann::json::object());
}

TEST(DeviceConfigConstruction, DerivesTheUIDOnlyWhenNoneIsGiven) {
  DeviceConfig derived{.id = "x1", .name = "X"};
  EXPECT_EQ(derived.uid, "app.brisola.device.x1");
  DeviceConfig explicitUID{.id = "x1", .name = "X", .uid = "dev.kestrine.pass-thru"};
  EXPECT_EQ(explicitUID.uid, "dev.kestrine.pass-thru");
  derived.id = "renamed";
  EXPECT_EQ(derived.uid, "app.brisola.device.x1") << "a stored uid must not follow the id";
}

TEST(Enumerations, ListCasesInDeclarationOrderAndRejectOtherSpellings) {
  std::vector<std::string_view> names;
  for (const auto& [value, name] : allCases<SourceType>()) {
    names.push_back(name);
    EXPECT_EQ(enumFromName<SourceType>(name), value);
  }
  EXPECT_THAT(names, ::testing::ElementsAre("passThru", "application", "system", "hardwareInput",
                                            "virtualDevice"));
  EXPECT_EQ(enumFromName<SourceType>("PassThru"), std::nullopt);
  EXPECT_EQ(enumFromName<EndpointKind>("deviceoutput"), std::nullopt);
  EXPECT_EQ(enumName(Appearance::dark), "dark");
}

TEST(ProductConstants, HaveTheirPublishedValues) {
  EXPECT_EQ(BrisolaCore::minimumSupportedOS.description(), "14.4.0");
  EXPECT_EQ(BrisolaCore::derivedDeviceUID(""), "app.brisola.device.");
  EXPECT_EQ(ConfigSnapshot::empty(), (ConfigSnapshot{.schemaVersion = 2, .devices = {}, .ui = {}}));
}

}  // namespace
}  // namespace brisola
