#include "brisola/platform/pipewire_graph.hpp"

#include <pipewire/extensions/metadata.h>
#include <pipewire/pipewire.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>

namespace brisola {

namespace {

std::optional<std::string_view> lookup(const PipeWireProperties& properties, std::string_view key) {
  auto found = properties.find(key);
  if (found == properties.end()) return std::nullopt;
  return std::string_view(found->second);
}

void merge(PipeWireProperties& properties, const spa_dict* dict) {
  if (dict == nullptr) return;
  for (std::uint32_t i = 0; i < dict->n_items; ++i) {
    const spa_dict_item& item = dict->items[i];
    if (item.key != nullptr && item.value != nullptr) properties[item.key] = item.value;
  }
}

// `{"name": "speakers"}`, as the session manager writes the default devices.
std::optional<std::string> defaultName(const char* value) {
  if (value == nullptr) return std::nullopt;
  auto parsed = nlohmann::json::parse(value, nullptr, false);
  if (!parsed.is_object()) return std::nullopt;
  auto name = parsed.find("name");
  if (name == parsed.end() || !name->is_string()) return std::nullopt;
  return name->get<std::string>();
}

struct ProxyDeleter {
  void operator()(pw_proxy* proxy) const { pw_proxy_destroy(proxy); }
};
using ProxyPointer = std::unique_ptr<pw_proxy, ProxyDeleter>;

}  // namespace

std::optional<std::string_view> PipeWireNode::property(std::string_view key) const {
  return lookup(properties, key);
}
std::optional<std::string_view> PipeWirePort::property(std::string_view key) const {
  return lookup(properties, key);
}
std::optional<std::string_view> PipeWireClient::property(std::string_view key) const {
  return lookup(properties, key);
}

std::uint32_t PipeWirePort::index() const {
  return propertyNumber<std::uint32_t>(property("port.id")).value_or(id);
}

std::vector<const PipeWirePort*> PipeWireGraph::portsOf(std::uint32_t node,
                                                        PipeWireDirection direction,
                                                        Ports which) const {
  std::vector<const PipeWirePort*> result;
  for (const auto& [id, port] : ports) {
    if (port.nodeID != node || port.direction != direction) continue;
    if (which == Ports::all || port.isMonitor() == (which == Ports::monitors)) {
      result.push_back(&port);
    }
  }
  std::stable_sort(result.begin(), result.end(), [](const PipeWirePort* a, const PipeWirePort* b) {
    return a->index() < b->index();
  });
  return result;
}

const PipeWireNode* PipeWireGraph::findNode(std::string_view key, std::string_view value) const {
  for (const auto& [id, node] : nodes) {
    if (node.property(key) == value) return &node;
  }
  return nullptr;
}

const PipeWireNode* PipeWireGraph::findDeviceNode(std::string_view deviceUID,
                                                  std::string_view role) const {
  for (const auto& [id, node] : nodes) {
    if (node.property(PipeWireKeys::deviceUID) == deviceUID &&
        node.property(PipeWireKeys::nodeRole) == role) {
      return &node;
    }
  }
  return nullptr;
}

struct PipeWireGraphWatch::State {
  // A bound node, client or metadata object, whose events fill in what the registry's short
  // property list leaves out.
  struct BoundObject {
    ProxyPointer proxy;
    spa_hook objectListener{};
    std::uint32_t id = 0;
    State* state = nullptr;
    ~BoundObject() { spa_hook_remove(&objectListener); }
  };

  pw_core* core = nullptr;
  std::function<void()> onChange;
  PipeWireGraph graph;
  std::uint64_t generation = 0;
  pw_registry* registry = nullptr;
  spa_hook registryListener{};
  spa_hook coreListener{};
  std::map<std::uint32_t, std::unique_ptr<BoundObject>> bound;
  int pendingSync = -1;
  bool settled = false;

  void changed() {
    ++generation;
    if (onChange) onChange();
  }

  // Info of objects bound since the last sync arrives before that sync's reply.
  void requestSync() {
    settled = false;
    pendingSync = pw_core_sync(core, PW_ID_CORE, 0);
  }

  template <class Events>
  void bind(std::uint32_t id, const char* type, std::uint32_t version, const Events* events) {
    auto object = std::make_unique<BoundObject>();
    object->proxy.reset(static_cast<pw_proxy*>(pw_registry_bind(registry, id, type, version, 0)));
    if (!object->proxy) return;
    object->id = id;
    object->state = this;
    pw_proxy_add_object_listener(object->proxy.get(), &object->objectListener, events,
                                 object.get());
    bound[id] = std::move(object);
    requestSync();
  }

  static void nodeInfo(void* data, const pw_node_info* info) {
    auto* object = static_cast<BoundObject*>(data);
    auto found = object->state->graph.nodes.find(object->id);
    if (found == object->state->graph.nodes.end() || info == nullptr) return;
    if ((info->change_mask & PW_NODE_CHANGE_MASK_PROPS) == 0) return;
    merge(found->second.properties, info->props);
    object->state->changed();
  }

  static void clientInfo(void* data, const pw_client_info* info) {
    auto* object = static_cast<BoundObject*>(data);
    auto found = object->state->graph.clients.find(object->id);
    if (found == object->state->graph.clients.end() || info == nullptr) return;
    if ((info->change_mask & PW_CLIENT_CHANGE_MASK_PROPS) == 0) return;
    merge(found->second.properties, info->props);
    object->state->changed();
  }

  static int metadataProperty(void* data, std::uint32_t subject, const char* key, const char*,
                              const char* value) {
    auto* state = static_cast<BoundObject*>(data)->state;
    auto& graph = state->graph;
    // A null key clears every property of the subject; a null value clears one.
    const std::string_view name = key == nullptr ? std::string_view() : key;
    auto clears = [&](std::string_view property) { return key == nullptr || name == property; };
    if (subject == PW_ID_CORE) {
      if (clears("default.audio.sink")) graph.defaultSinkName = defaultName(value);
      if (clears("default.audio.source")) graph.defaultSourceName = defaultName(value);
    } else if (clears("target.object")) {
      if (key != nullptr && value != nullptr) {
        graph.streamTargets[subject] = value;
      } else {
        graph.streamTargets.erase(subject);
      }
    }
    state->changed();
    return 0;
  }

  static void global(void* data, std::uint32_t id, std::uint32_t, const char* type, std::uint32_t,
                     const spa_dict* props) {
    auto* state = static_cast<State*>(data);
    const std::string_view kind = type;
    PipeWireProperties properties;
    merge(properties, props);
    if (kind == PW_TYPE_INTERFACE_Node) {
      state->graph.nodes[id] = PipeWireNode{.id = id, .properties = std::move(properties)};
      state->bind(id, PW_TYPE_INTERFACE_Node, PW_VERSION_NODE, &nodeEvents);
    } else if (kind == PW_TYPE_INTERFACE_Port) {
      auto node = propertyNumber<std::uint32_t>(lookup(properties, PW_KEY_NODE_ID));
      if (!node) return;
      const auto direction = lookup(properties, PW_KEY_PORT_DIRECTION) == "out"
                                 ? PipeWireDirection::output
                                 : PipeWireDirection::input;
      state->graph.ports[id] = PipeWirePort{
          .id = id, .nodeID = *node, .direction = direction, .properties = std::move(properties)};
    } else if (kind == PW_TYPE_INTERFACE_Client) {
      state->graph.clients[id] = PipeWireClient{.id = id, .properties = std::move(properties)};
      state->bind(id, PW_TYPE_INTERFACE_Client, PW_VERSION_CLIENT, &clientEvents);
    } else if (kind == PW_TYPE_INTERFACE_Link) {
      auto number = [&](const char* key) {
        return propertyNumber<std::uint32_t>(lookup(properties, key)).value_or(0);
      };
      state->graph.links[id] = PipeWireLink{.id = id,
                                            .outputNode = number(PW_KEY_LINK_OUTPUT_NODE),
                                            .outputPort = number(PW_KEY_LINK_OUTPUT_PORT),
                                            .inputNode = number(PW_KEY_LINK_INPUT_NODE),
                                            .inputPort = number(PW_KEY_LINK_INPUT_PORT)};
    } else if (kind == PW_TYPE_INTERFACE_Metadata) {
      if (lookup(properties, PW_KEY_METADATA_NAME) != "default" || state->graph.defaultMetadata) {
        return;
      }
      state->graph.defaultMetadata = id;
      state->bind(id, PW_TYPE_INTERFACE_Metadata, PW_VERSION_METADATA, &metadataEvents);
      return;
    } else {
      return;
    }
    state->changed();
  }

  static void globalRemove(void* data, std::uint32_t id) {
    auto* state = static_cast<State*>(data);
    state->bound.erase(id);
    auto& graph = state->graph;
    const bool removed = graph.nodes.erase(id) + graph.ports.erase(id) + graph.clients.erase(id) +
                             graph.links.erase(id) >
                         0;
    graph.streamTargets.erase(id);
    if (graph.defaultMetadata == id) {
      graph.defaultMetadata.reset();
      graph.defaultSinkName.reset();
      graph.defaultSourceName.reset();
      graph.streamTargets.clear();
    } else if (!removed) {
      return;
    }
    state->changed();
  }

  static void done(void* data, std::uint32_t id, int seq) {
    auto* state = static_cast<State*>(data);
    if (id != PW_ID_CORE || seq != state->pendingSync || state->settled) return;
    state->settled = true;
    if (state->onChange) state->onChange();
  }

  static constexpr pw_registry_events registryEvents{
      .version = PW_VERSION_REGISTRY_EVENTS, .global = global, .global_remove = globalRemove};
  static constexpr pw_core_events coreEvents{.version = PW_VERSION_CORE_EVENTS, .done = done};
  static constexpr pw_node_events nodeEvents{.version = PW_VERSION_NODE_EVENTS, .info = nodeInfo};
  static constexpr pw_client_events clientEvents{.version = PW_VERSION_CLIENT_EVENTS,
                                                 .info = clientInfo};
  static constexpr pw_metadata_events metadataEvents{.version = PW_VERSION_METADATA_EVENTS,
                                                     .property = metadataProperty};
};

PipeWireGraphWatch::PipeWireGraphWatch(pw_core* core, std::function<void()> onChange)
    : state_(std::make_unique<State>()) {
  state_->core = core;
  state_->onChange = std::move(onChange);
  pw_core_add_listener(core, &state_->coreListener, &State::coreEvents, state_.get());
  state_->registry = pw_core_get_registry(core, PW_VERSION_REGISTRY, 0);
  pw_registry_add_listener(state_->registry, &state_->registryListener, &State::registryEvents,
                           state_.get());
  state_->requestSync();
}

PipeWireGraphWatch::~PipeWireGraphWatch() {
  state_->bound.clear();
  spa_hook_remove(&state_->registryListener);
  spa_hook_remove(&state_->coreListener);
  pw_proxy_destroy(reinterpret_cast<pw_proxy*>(state_->registry));
}

const PipeWireGraph& PipeWireGraphWatch::graph() const {
  return state_->graph;
}
std::uint64_t PipeWireGraphWatch::generation() const {
  return state_->generation;
}
bool PipeWireGraphWatch::isSettled() const {
  return state_->settled;
}

std::string pipeWireSocketPath() {
  const char* remote = std::getenv("PIPEWIRE_REMOTE");
  std::string name = remote != nullptr && *remote != '\0' ? remote : "pipewire-0";
  if (name.starts_with('/')) return name;
  for (const char* variable : {"PIPEWIRE_RUNTIME_DIR", "XDG_RUNTIME_DIR", "USERPROFILE"}) {
    const char* directory = std::getenv(variable);
    if (directory != nullptr && *directory != '\0') return std::string(directory) + "/" + name;
  }
  return name;
}

std::string pipeWireConnectionFailure(int error) {
  const std::string socket = pipeWireSocketPath();
  struct stat status {};
  if (::stat(socket.c_str(), &status) != 0) {
    return "No PipeWire is running: there is no socket at " + socket;
  }
  return "Cannot connect to PipeWire at " + socket + ": " + std::strerror(error);
}

}  // namespace brisola
