#pragma once

// The PipeWire graph as plain values (nodes, ports, clients, links and the default devices),
// and a watch that keeps one current from the registry's events on a connection that the
// caller owns and runs. The hardware layer's PipeWire back end and the audio programs share
// both, so they agree on what a device, a port or a default is.

#include <charconv>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct pw_core;

namespace brisola {

using PipeWireProperties = std::map<std::string, std::string, std::less<>>;

// A property's text as a whole number of type T, when it is exactly one.
template <class T>
std::optional<T> propertyNumber(std::optional<std::string_view> text) {
  if (!text) return std::nullopt;
  T value{};
  auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), value);
  if (error != std::errc() || end != text->data() + text->size()) return std::nullopt;
  return value;
}

// Properties that Brisola's own PipeWire objects carry.
namespace PipeWireKeys {
// On every node of a virtual device: the device's UID.
inline constexpr std::string_view deviceUID = "brisola.device.uid";
// On every node of a virtual device: which part of it the node is (the values below).
inline constexpr std::string_view nodeRole = "brisola.node.role";
inline constexpr std::string_view entranceRole = "entrance";  // the sink applications play into
inline constexpr std::string_view mixRole = "mix";            // the source applications record
inline constexpr std::string_view mixerRole = "mixer";        // the filter between the two
}  // namespace PipeWireKeys

struct PipeWireNode {
  std::uint32_t id = 0;
  PipeWireProperties properties;
  std::optional<std::string_view> property(std::string_view key) const;
  bool operator==(const PipeWireNode&) const = default;
};

enum class PipeWireDirection { input, output };

struct PipeWirePort {
  std::uint32_t id = 0;
  std::uint32_t nodeID = 0;
  PipeWireDirection direction = PipeWireDirection::input;
  PipeWireProperties properties;
  std::optional<std::string_view> property(std::string_view key) const;
  bool isMonitor() const { return property("port.monitor") == "true"; }
  // The port's place among its node's ports of the same direction (port.id), else its id.
  std::uint32_t index() const;
  bool operator==(const PipeWirePort&) const = default;
};

struct PipeWireClient {
  std::uint32_t id = 0;
  PipeWireProperties properties;
  std::optional<std::string_view> property(std::string_view key) const;
  bool operator==(const PipeWireClient&) const = default;
};

struct PipeWireLink {
  std::uint32_t id = 0;
  std::uint32_t outputNode = 0;
  std::uint32_t outputPort = 0;
  std::uint32_t inputNode = 0;
  std::uint32_t inputPort = 0;
  bool operator==(const PipeWireLink&) const = default;
};

struct PipeWireGraph {
  std::map<std::uint32_t, PipeWireNode> nodes;
  std::map<std::uint32_t, PipeWirePort> ports;
  std::map<std::uint32_t, PipeWireClient> clients;
  std::map<std::uint32_t, PipeWireLink> links;
  // node.name of the default sink and source, from the "default" metadata.
  std::optional<std::string> defaultSinkName;
  std::optional<std::string> defaultSourceName;
  // The "default" metadata object, and the target.object it gives each stream that has one.
  std::optional<std::uint32_t> defaultMetadata;
  std::map<std::uint32_t, std::string> streamTargets;
  bool operator==(const PipeWireGraph&) const = default;

  // Which ports of a node: its own channels, the monitors that copy what a sink plays, or both.
  enum class Ports { channels, monitors, all };
  // The ports of one node in one direction, in port order.
  std::vector<const PipeWirePort*> portsOf(std::uint32_t node, PipeWireDirection direction,
                                           Ports which = Ports::channels) const;
  // The first node (lowest id) whose property `key` equals `value`.
  const PipeWireNode* findNode(std::string_view key, std::string_view value) const;
  // The node of a Brisola virtual device with the given UID and role.
  const PipeWireNode* findDeviceNode(std::string_view deviceUID, std::string_view role) const;
};

// Where a PipeWire client of this process connects, as the library finds it: PIPEWIRE_REMOTE
// (default "pipewire-0") in PIPEWIRE_RUNTIME_DIR, else XDG_RUNTIME_DIR.
std::string pipeWireSocketPath();
// Why a connection to pipeWireSocketPath() failed with `error` (an errno value), for people.
std::string pipeWireConnectionFailure(int error);

// Keeps a PipeWireGraph current on `core`. Not thread-safe: construct, use and destroy it
// on the thread that runs the connection's loop (or with the thread loop locked).
class PipeWireGraphWatch {
 public:
  // `onChange` runs on the loop after every change to the graph, and when it settles.
  PipeWireGraphWatch(pw_core* core, std::function<void()> onChange);
  ~PipeWireGraphWatch();
  PipeWireGraphWatch(const PipeWireGraphWatch&) = delete;
  PipeWireGraphWatch& operator=(const PipeWireGraphWatch&) = delete;

  const PipeWireGraph& graph() const;
  // Moves on every change of the graph.
  std::uint64_t generation() const;
  // The registry's objects and the full properties of every node and client have arrived.
  bool isSettled() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace brisola
