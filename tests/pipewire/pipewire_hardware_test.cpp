// The hardware layer over PipeWire: the graph described as devices and processes, and a real
// server of the test's own seen through a long-lived back end.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "brisola/devices/core_audio_device_registry.hpp"
#include "brisola/model/config.hpp"
#include "devices/pipewire_hardware.hpp"
#include "support/private_pipewire.hpp"
#include "support/system_helpers.hpp"

namespace brisola {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::Field;
using testing::PrivatePipeWire;

void addNode(PipeWireGraph& graph, std::uint32_t id, std::string mediaClass,
             PipeWireProperties properties = {}) {
  properties["media.class"] = std::move(mediaClass);
  graph.nodes[id] = PipeWireNode{.id = id, .properties = std::move(properties)};
}

void addPorts(PipeWireGraph& graph, std::uint32_t node, PipeWireDirection direction,
              std::vector<std::string> channels, bool monitor = false) {
  for (std::size_t i = 0; i < channels.size(); ++i) {
    const auto id = static_cast<std::uint32_t>(1000 + graph.ports.size());
    PipeWireProperties properties{{"port.id", std::to_string(i)}, {"port.name", "p" + channels[i]}};
    if (!channels[i].empty()) properties["audio.channel"] = channels[i];
    if (monitor) properties["port.monitor"] = "true";
    graph.ports[id] =
        PipeWirePort{.id = id, .nodeID = node, .direction = direction, .properties = properties};
  }
}

TEST(PipeWireDescription, NodesClientsAndDefaultsBecomeDevicesAndCandidates) {
  using enum PipeWireDirection;
  PipeWireGraph graph;
  addNode(graph, 30, "Audio/Sink", {{"node.name", "hdmi"}, {"node.description", "HDMI Out"}});
  addNode(graph, 31, "Audio/Source", {{"node.name", "usb-mic"}, {"node.nick", "USB Mic"}});
  addNode(graph, 32, "Audio/Duplex", {{"node.name", "iface"}});
  // Without any name the device cannot be listed; it must not break the others.
  addNode(graph, 33, "Audio/Sink");
  // The two halves of one virtual device, listed once under its UID.
  addNode(graph, 40, "Audio/Sink",
          {{"node.name", "brisola-mix"},
           {"node.description", "Podcast Mix"},
           {"brisola.device.uid", "app.brisola.device.x"},
           {"brisola.node.role", "entrance"}});
  addNode(graph, 41, "Audio/Source/Virtual",
          {{"node.name", "brisola-mix.out"},
           {"node.description", "Podcast Mix"},
           {"brisola.device.uid", "app.brisola.device.x"},
           {"brisola.node.role", "mix"}});
  // Streams are not devices; one that plays makes its client a process.
  addNode(graph, 50, "Stream/Output/Audio", {{"client.id", "60"}});
  addNode(graph, 51, "Stream/Input/Audio", {{"client.id", "61"}});
  addPorts(graph, 30, input, {"FL", "FR", "RL", "RR"});
  addPorts(graph, 30, output, {"FL", "FR", "RL", "RR"}, true);  // monitors are no inputs
  addPorts(graph, 31, output, {"MONO"});
  addPorts(graph, 32, input, {"", ""});  // no positions: the port names stand in
  addPorts(graph, 32, output, {"AUX0", "AUX1"});
  addPorts(graph, 32, output, {"X", "Y"}, true);
  addPorts(graph, 33, input, {"FL"});
  addPorts(graph, 40, input, {"FL", "FR"});
  addPorts(graph, 41, output, {"FL", "FR"}, true);  // a virtual source's outputs are monitors
  graph.clients[60] = {60,
                       {{"application.process.id", "4242"},
                        {"application.name", "Sketchpad"},
                        {"application.process.binary", "sketchpad"}}};
  graph.clients[61] = {61,
                       {{"application.process.id", "4243"},
                        {"application.name", "Recorder"},
                        {"application.process.binary", "recorder"}}};
  graph.clients[62] = {62, {{"application.id", std::string(BrisolaCore::halBundleID)}}};
  graph.defaultSinkName = "brisola-mix";  // the entrance stands for the whole device
  graph.defaultSourceName = "nowhere";

  auto layer = makeDescribedHardwareLayer(
      std::make_shared<const HardwareDescription>(describeHardware(graph)));
  const auto inventory = CoreAudioDeviceRegistry::deviceInventory(*layer);
  const std::vector<std::string> stereo{"FL", "FR"};
  EXPECT_EQ(inventory.outputs,
            (std::vector<AudioDeviceInfo>{
                {"app.brisola.device.x", "Podcast Mix", 2, true, stereo},
                {"hdmi", "HDMI Out", 4, false, std::vector<std::string>{"FL", "FR", "RL", "RR"}},
                {"iface", "iface", 2, false, std::vector<std::string>{"p", "p"}},
            }));
  EXPECT_EQ(inventory.inputs,
            (std::vector<AudioDeviceInfo>{
                {"iface", "iface", 2, false, std::vector<std::string>{"AUX0", "AUX1"}},
                {"app.brisola.device.x", "Podcast Mix", 2, false, stereo},
                {"usb-mic", "USB Mic", 1, false, std::vector<std::string>{"MONO"}},
            }));
  EXPECT_EQ(CoreAudioDeviceRegistry::brisolaDeviceSummaries(*layer),
            (std::vector<HALDeviceSummary>{{"app.brisola.device.x", "Podcast Mix", 2, 2}}));
  EXPECT_TRUE(CoreAudioDeviceRegistry::halPlugInIsLoaded(*layer));
  EXPECT_EQ(CoreAudioDeviceRegistry::applicationSourceCandidates(*layer),
            (std::vector<ApplicationSourceCandidate>{{"Sketchpad", "sketchpad", 4242, 60}}));

  graph.clients.erase(62);
  layer = makeDescribedHardwareLayer(
      std::make_shared<const HardwareDescription>(describeHardware(graph)));
  EXPECT_FALSE(CoreAudioDeviceRegistry::halPlugInIsLoaded(*layer));
}

// One server for the whole program: starting one takes about a second.
class PipeWireServer : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    server_ = std::make_unique<PrivatePipeWire>();
    server_->useInThisProcess();
  }
  static void TearDownTestSuite() { server_.reset(); }

  static AudioDeviceInventory inventory(const HardwareBackend& backend) {
    return CoreAudioDeviceRegistry::deviceInventory(*backend.snapshot());
  }
  // The default output, listed first, or "" while there is none.
  static std::string defaultOutput(const HardwareBackend& backend) {
    const auto outputs = inventory(backend).outputs;
    return outputs.empty() || !outputs[0].isDefault ? "" : outputs[0].uid;
  }

  static inline std::unique_ptr<PrivatePipeWire> server_;
};

TEST_F(PipeWireServer, InventoryFollowsNodesAndTheDefaultOutput) {
  server_->createNode({.name = "speakers", .description = "Desk Speakers"});
  server_->createNode({.name = "hdmi", .positions = {"FL", "FR", "RL", "RR"}});
  server_->createNode({.name = "mic",
                       .mediaClass = "Audio/Source/Virtual",
                       .description = "Studio Mic",
                       .positions = {"MONO"}});
  const auto backend = HardwareBackend::current();
  server_->setDefault("speakers");
  ASSERT_TRUE(testing::eventually([&] { return defaultOutput(*backend) == "speakers"; }, 10s));
  const auto devices = inventory(*backend);
  EXPECT_EQ(devices.outputs,
            (std::vector<AudioDeviceInfo>{
                {"speakers", "Desk Speakers", 2, true, std::vector<std::string>{"FL", "FR"}},
                {"hdmi", "hdmi", 4, false, std::vector<std::string>{"FL", "FR", "RL", "RR"}}}));
  EXPECT_EQ(devices.inputs, (std::vector<AudioDeviceInfo>{
                                {"mic", "Studio Mic", 1, true, std::vector<std::string>{"MONO"}}}));

  server_->setDefault("hdmi");
  EXPECT_TRUE(testing::eventually([&] { return defaultOutput(*backend) == "hdmi"; }, 10s));

  // Seen by the same back end, with no new connection.
  server_->createNode({.name = "late"});
  EXPECT_TRUE(testing::eventually(
      [&] { return CoreAudioDeviceRegistry::containsDevice(*backend->snapshot(), "late"); }, 5s));
  server_->removeNode("late");
  EXPECT_TRUE(testing::eventually(
      [&] { return !CoreAudioDeviceRegistry::containsDevice(*backend->snapshot(), "late"); }, 5s));
}

TEST_F(PipeWireServer, OnlyProcessesThatPlayAreApplicationCandidates) {
  server_->createNode({.name = "desk"});
  testing::TempDir dir;
  testing::writeToneWav(dir / "tone.wav", 2, 440, 0.1, 30);
  auto player = server_->start({"pw-play", "--target", "desk", (dir / "tone.wav").string()});
  auto recorder = server_->start({"pw-record", (dir / "recorded.wav").string()});
  const auto backend = HardwareBackend::current();
  auto candidates = [&] {
    return CoreAudioDeviceRegistry::applicationSourceCandidates(*backend->snapshot());
  };
  ASSERT_TRUE(testing::eventually([&] { return !candidates().empty(); }, 5s));
  std::this_thread::sleep_for(200ms);  // time for the recorder to show up, if it wrongly would
  EXPECT_THAT(candidates(),
              ElementsAre(AllOf(Field(&ApplicationSourceCandidate::pid, player->pid()),
                                Field(&ApplicationSourceCandidate::displayName, "pw-cat"),
                                Field(&ApplicationSourceCandidate::bundleIdentifier, "pw-cat"))));
  player->stop();
  EXPECT_TRUE(testing::eventually([&] { return candidates().empty(); }, 5s));
}

TEST_F(PipeWireServer, AServerThatGoesAwayIsNamedAndTheNextOneIsFound) {
  const auto backend = HardwareBackend::current();
  ASSERT_EQ(backend->status(), std::nullopt);
  const auto firstDirectory = server_->runtimeDirectory();
  server_.reset();
  std::optional<std::string> reason;
  ASSERT_TRUE(testing::eventually([&] { return (reason = backend->status()).has_value(); }, 5s));
  EXPECT_THAT(*reason, ::testing::HasSubstr((firstDirectory / "pipewire-0").string()));

  server_ = std::make_unique<PrivatePipeWire>();
  server_->useInThisProcess();
  server_->createNode({.name = "second"});
  EXPECT_TRUE(testing::eventually(
      [&] { return CoreAudioDeviceRegistry::containsDevice(*backend->snapshot(), "second"); }, 5s));
}

}  // namespace
}  // namespace brisola
