#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "brisola/runtime/route_map.hpp"
#include "support/documents.hpp"

namespace brisola {
namespace {

using ::testing::ElementsAre;
using testing::monitorEnd;
using testing::outputEnd;
using testing::sourceEnd;
using testing::wire;
using R = RuntimeChannelRoute;

DeviceConfig deviceWith(std::vector<Wire> wires) {
  DeviceConfig device{.id = "dev", .name = "Device", .channelCount = 2};
  device.wires = std::move(wires);
  return device;
}

// One wire in a device "dev" with two channels of output; source routes of "src" may use
// output channels 1...2, monitor routes of "mon" device channels 1...3 and monitor channels 1...2.
TEST(RouteMap, RoutesKeepOnlyWiresBetweenTheirOwnEndsWithinTheSupportedChannels) {
  struct Row {
    const char* what;
    WireEndpoint from, to;
    bool kept;
  };
  const std::vector<Row> rows{
      {"output channel at the supported count", sourceEnd("src", 2), outputEnd("dev", 2), true},
      {"source channel above anything the source has", sourceEnd("src", 9), outputEnd("dev", 1),
       true},
      {"output channel above the supported count", sourceEnd("src", 1), outputEnd("dev", 3), false},
      {"output channel 0", sourceEnd("src", 1), outputEnd("dev", 0), false},
      {"source channel 0", sourceEnd("src", 0), outputEnd("dev", 1), false},
      {"another source", sourceEnd("other", 1), outputEnd("dev", 1), false},
      {"another device's output", sourceEnd("src", 1), outputEnd("dev2", 1), false},
      {"owner differs only in case", sourceEnd("SRC", 1), outputEnd("dev", 1), false},
      {"source into a monitor", sourceEnd("src", 1), monitorEnd("mon", 1), false},
      {"device channel at the input count", outputEnd("dev", 3), monitorEnd("mon", 2), true},
      {"device channel above the input count", outputEnd("dev", 4), monitorEnd("mon", 1), false},
      {"monitor channel above the output count", outputEnd("dev", 1), monitorEnd("mon", 3), false},
      {"monitor channel 0", outputEnd("dev", 1), monitorEnd("mon", 0), false},
      {"another monitor", outputEnd("dev", 1), monitorEnd("mon2", 1), false},
      {"from another device's output", outputEnd("dev2", 1), monitorEnd("mon", 1), false},
      {"output into the output", outputEnd("dev", 1), outputEnd("dev", 1), false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    const DeviceConfig device = deviceWith({wire("w", row.from, row.to)});
    const auto routes = row.from.kind == EndpointKind::source
                            ? RuntimeRouteMap::sourceRoutes("src", device, 2)
                            : RuntimeRouteMap::monitorRoutes("mon", device, 3, 2);
    const std::vector<R> expected{{row.from.channel, row.to.channel}};
    EXPECT_EQ(routes, row.kept ? expected : std::vector<R>{});
    // A wire belongs to one kind of route only.
    EXPECT_TRUE((row.from.kind == EndpointKind::source
                     ? RuntimeRouteMap::monitorRoutes("mon", device, 3, 2)
                     : RuntimeRouteMap::sourceRoutes("src", device, 2))
                    .empty());
  }
}

TEST(RouteMap, RoutesKeepWireOrderAndDuplicatesAndStopAt256) {
  std::vector<Wire> wires;
  for (int i = 0; i < 300; ++i) {
    // Output channels cycle 2, 1, 2, 1 ... so that any sorting would show.
    wires.push_back(
        wire("w" + std::to_string(i), sourceEnd("src", i + 1), outputEnd("dev", 2 - i % 2)));
    wires.push_back(
        wire("m" + std::to_string(i), outputEnd("dev", 2 - i % 2), monitorEnd("mon", 1)));
  }
  DeviceConfig device = deviceWith(wires);

  auto sources = RuntimeRouteMap::sourceRoutes("src", device, 2);
  ASSERT_EQ(sources.size(), 256u);
  for (std::size_t i = 0; i < sources.size(); ++i) {
    ASSERT_EQ(sources[i],
              (R{static_cast<std::int64_t>(i) + 1, 2 - static_cast<std::int64_t>(i % 2)}));
  }
  auto monitors = RuntimeRouteMap::monitorRoutes("mon", device, 2, 2);
  ASSERT_EQ(monitors.size(), 256u);
  EXPECT_THAT(std::vector<R>(monitors.begin(), monitors.begin() + 3),
              ElementsAre(R{2, 1}, R{1, 1}, R{2, 1}));

  EXPECT_EQ(RuntimeRouteMap::sourceRoutes("src", deviceWith({}), 2).size(), 0u);
}

}  // namespace
}  // namespace brisola
