#include "devices/pipewire_hardware.hpp"

#include <pipewire/pipewire.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <string>

#include "brisola/model/config.hpp"
#include "devices/hardware_backends.hpp"

namespace brisola {

namespace {

std::optional<std::string> text(std::optional<std::string_view> value) {
  if (!value) return std::nullopt;
  return std::string(*value);
}

std::optional<std::string> firstOf(const PipeWireNode& node,
                                   std::initializer_list<std::string_view> keys) {
  for (auto key : keys) {
    if (auto value = node.property(key); value && !value->empty()) return std::string(*value);
  }
  return std::nullopt;
}

// A channel is named by its position (FL, FR, AUX0...) or, without one, by its port's name.
std::optional<std::string> channelName(const PipeWirePort& port) {
  if (auto position = port.property("audio.channel"); position && !position->empty()) {
    return std::string(*position);
  }
  return text(port.property("port.name"));
}

void addChannels(const std::vector<const PipeWirePort*>& ports,
                 std::optional<std::vector<std::uint32_t>>& streams,
                 std::vector<std::optional<std::string>>& names) {
  if (!streams) streams.emplace();
  if (ports.empty()) return;
  streams->push_back(static_cast<std::uint32_t>(ports.size()));
  for (const auto* port : ports) names.push_back(channelName(*port));
}

bool playsAudio(const PipeWireNode& node) {
  return node.property("media.class") == "Stream/Output/Audio";
}

}  // namespace

HardwareDescription describeHardware(const PipeWireGraph& graph) {
  HardwareDescription description;
  description.devices.emplace();
  description.processes.emplace();
  auto& devices = *description.devices;

  std::map<std::uint32_t, AudioObjectID> deviceOfNode;
  std::map<std::string, std::size_t, std::less<>> virtualDevices;  // UID -> index in devices
  for (const auto& [id, node] : graph.nodes) {
    // 0 and 1 are the unknown and the system object of the hardware layer.
    if (id <= kAudioObjectSystemObject) continue;
    const auto mediaClass = node.property("media.class").value_or("");
    const bool plays = mediaClass == "Audio/Sink" || mediaClass == "Audio/Duplex";
    const bool records = mediaClass == "Audio/Source" || mediaClass == "Audio/Source/Virtual" ||
                         mediaClass == "Audio/Duplex";
    if (!plays && !records) continue;

    DescribedDevice* device = nullptr;
    const auto virtualUID = node.property(PipeWireKeys::deviceUID);
    if (auto found = virtualUID ? virtualDevices.find(*virtualUID) : virtualDevices.end();
        found != virtualDevices.end()) {
      device = &devices[found->second];
    } else {
      if (virtualUID) virtualDevices.emplace(std::string(*virtualUID), devices.size());
      devices.push_back(DescribedDevice{
          .objectID = id,
          .uid = virtualUID ? std::string(*virtualUID) : text(node.property("node.name")),
          .name = firstOf(node, {"node.description", "node.nick", "node.name"}),
      });
      device = &devices.back();
    }
    deviceOfNode[id] = device->objectID;
    if (records) {
      // A virtual source's outputs are flagged as monitors of its inputs; a duplex device's
      // monitors copy what it plays and are not inputs.
      addChannels(graph.portsOf(id, PipeWireDirection::output,
                                plays ? PipeWireGraph::Ports::channels : PipeWireGraph::Ports::all),
                  device->inputStreams, device->inputChannelNames);
    }
    if (plays) {
      addChannels(graph.portsOf(id, PipeWireDirection::input), device->outputStreams,
                  device->outputChannelNames);
    }
  }
  for (auto& device : devices) {
    if (!device.inputStreams) device.inputStreams.emplace();
    if (!device.outputStreams) device.outputStreams.emplace();
  }

  auto defaultDevice = [&](const std::optional<std::string>& name) -> std::optional<AudioObjectID> {
    if (!name) return std::nullopt;
    const auto* node = graph.findNode("node.name", *name);
    if (node == nullptr) return std::nullopt;
    auto found = deviceOfNode.find(node->id);
    if (found == deviceOfNode.end()) return std::nullopt;
    return found->second;
  };
  description.defaultInputDevice = defaultDevice(graph.defaultSourceName);
  description.defaultOutputDevice = defaultDevice(graph.defaultSinkName);

  std::set<std::uint32_t> playingClients;
  for (const auto& [id, node] : graph.nodes) {
    if (!playsAudio(node)) continue;
    if (auto client = propertyNumber<std::uint32_t>(node.property("client.id"))) {
      playingClients.insert(*client);
    }
  }
  for (const auto& [id, client] : graph.clients) {
    if (client.property("application.id") == BrisolaCore::halBundleID) {
      description.plugIns.emplace(BrisolaCore::halBundleID, id);
    }
    if (!playingClients.contains(id) || id <= kAudioObjectSystemObject) continue;
    // A sandboxed application's own idea of its PID means nothing outside the sandbox; the
    // socket's credentials are the fallback when the client does not say.
    auto pid = propertyNumber<std::int32_t>(client.property("application.process.id"));
    if (!pid) pid = propertyNumber<std::int32_t>(client.property("pipewire.sec.pid"));
    auto bundleID = text(client.property("application.id"));
    if (!bundleID) bundleID = text(client.property("application.process.binary"));
    description.processes->push_back(
        DescribedProcess{.objectID = id, .pid = pid, .bundleID = std::move(bundleID)});
    if (pid) {
      description.applications.emplace(
          *pid, RunningApplication{.localizedName = text(client.property("application.name")),
                                   .activationPolicy = ApplicationActivationPolicy::regular});
    }
  }
  return description;
}

namespace {

// One connection for the whole process, on a thread loop of its own; the graph it watches is
// what every snapshot describes. A connection that breaks (the server restarted) or that no
// longer matches the environment's socket is made again by the next snapshot.
class PipeWireConnection {
 public:
  static std::shared_ptr<PipeWireConnection> shared() {
    static std::once_flag initialised;
    std::call_once(initialised, [] { pw_init(nullptr, nullptr); });
    static const auto connection = std::make_shared<PipeWireConnection>();
    return connection;
  }

  PipeWireConnection() {
    loop_ = pw_thread_loop_new("brisola-hardware", nullptr);
    if (loop_ == nullptr) return;
    context_ = pw_context_new(pw_thread_loop_get_loop(loop_), nullptr, 0);
    if (context_ == nullptr || pw_thread_loop_start(loop_) < 0) {
      if (context_ != nullptr) pw_context_destroy(context_);
      context_ = nullptr;
    }
  }

  ~PipeWireConnection() {
    if (loop_ == nullptr) return;
    pw_thread_loop_stop(loop_);
    disconnect();
    if (context_ != nullptr) pw_context_destroy(context_);
    pw_thread_loop_destroy(loop_);
  }

  PipeWireConnection(const PipeWireConnection&) = delete;
  PipeWireConnection& operator=(const PipeWireConnection&) = delete;

  // The description of the graph as it is now, or why there is none.
  std::shared_ptr<const HardwareDescription> describe(std::string& unavailable) {
    std::lock_guard callers(mutex_);
    if (context_ == nullptr) {
      unavailable = "Cannot start a PipeWire client: " + std::string(std::strerror(errno));
      return nullptr;
    }
    const std::string socket = pipeWireSocketPath();
    pw_thread_loop_lock(loop_);
    if (core_ != nullptr && (broken_ || socket != socket_)) disconnect();
    if (core_ == nullptr && !connect(socket, unavailable)) {
      pw_thread_loop_unlock(loop_);
      return nullptr;
    }
    if (!everSettled_) {
      timespec deadline{};
      pw_thread_loop_get_time(loop_, &deadline, 1'000'000'000);
      while (!watch_->isSettled() && !broken_) {
        if (pw_thread_loop_timed_wait_full(loop_, &deadline) != 0) break;
      }
      everSettled_ = watch_->isSettled();
      if (!everSettled_) {
        unavailable = "PipeWire at " + socket_ + " did not answer within a second";
        pw_thread_loop_unlock(loop_);
        return nullptr;
      }
    }
    if (!description_ || generation_ != watch_->generation()) {
      description_ = std::make_shared<const HardwareDescription>(describeHardware(watch_->graph()));
      generation_ = watch_->generation();
    }
    auto description = description_;
    pw_thread_loop_unlock(loop_);
    return description;
  }

 private:
  bool connect(const std::string& socket, std::string& unavailable) {
    socket_ = socket;
    core_ = pw_context_connect(context_, nullptr, 0);
    if (core_ == nullptr) {
      unavailable = pipeWireConnectionFailure(errno);
      return false;
    }
    broken_ = false;
    everSettled_ = false;
    description_.reset();
    pw_core_add_listener(core_, &coreListener_, &coreEvents, this);
    watch_ = std::make_unique<PipeWireGraphWatch>(core_, [this] { signal(); });
    return true;
  }

  void disconnect() {
    if (core_ == nullptr) return;
    watch_.reset();
    spa_hook_remove(&coreListener_);
    pw_core_disconnect(core_);
    core_ = nullptr;
  }

  void signal() { pw_thread_loop_signal(loop_, false); }

  static void coreError(void* data, std::uint32_t id, int, int result, const char*) {
    auto* self = static_cast<PipeWireConnection*>(data);
    if (id == PW_ID_CORE && result == -EPIPE) {
      self->broken_ = true;
      self->signal();
    }
  }

  static constexpr pw_core_events coreEvents{.version = PW_VERSION_CORE_EVENTS, .error = coreError};

  std::mutex mutex_;
  pw_thread_loop* loop_ = nullptr;
  pw_context* context_ = nullptr;
  pw_core* core_ = nullptr;
  spa_hook coreListener_{};
  std::unique_ptr<PipeWireGraphWatch> watch_;
  std::string socket_;
  bool broken_ = false;
  bool everSettled_ = false;
  std::shared_ptr<const HardwareDescription> description_;
  std::uint64_t generation_ = 0;
};

class PipeWireHardwareBackend final : public HardwareBackend {
 public:
  std::unique_ptr<HardwareLayer> snapshot() const override {
    std::string unavailable;
    auto description = connection_->describe(unavailable);
    if (!description) return makeUnavailableHardwareLayer(std::move(unavailable));
    return makeDescribedHardwareLayer(std::move(description));
  }

 private:
  std::shared_ptr<PipeWireConnection> connection_ = PipeWireConnection::shared();
};

}  // namespace

std::unique_ptr<HardwareBackend> HardwareBackend::pipeWire() {
  return std::make_unique<PipeWireHardwareBackend>();
}

}  // namespace brisola
