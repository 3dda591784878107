#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <nlohmann/json.hpp>

#include "brisola/model/json_coding.hpp"
#include "support/documents.hpp"

namespace brisola {
namespace {

TEST(MakeDefault, TakesIdentifiersFromTheFactoryInContractOrder) {
  testing::CountingIdFactory factory{.prefix = "n"};
  DeviceConfig device = DeviceConfig::makeDefault("", 44100.0, std::ref(factory));
  EXPECT_EQ(factory.calls, 4);

  DeviceConfig expected{.id = "n1", .enabled = true, .sampleRate = 44100.0, .channelCount = 2};
  expected.sources = {testing::passThruSource("n2")};
  expected.wires = {testing::wire("n3", testing::sourceEnd("n2", 1), testing::outputEnd("n1", 1)),
                    testing::wire("n4", testing::sourceEnd("n2", 2), testing::outputEnd("n1", 2))};
  EXPECT_EQ(device, expected);
  EXPECT_EQ(device.uid, "app.brisola.device.n1");

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
}

}  // namespace
}  // namespace brisola
