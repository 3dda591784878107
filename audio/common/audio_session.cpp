#include "common/audio_session.hpp"

#include <pipewire/extensions/metadata.h>
#include <pipewire/filter.h>
#include <pipewire/pipewire.h>
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <mutex>
#include <stdexcept>

#include "brisola/platform/log_line.hpp"

namespace brisola::audio {

namespace {

struct PropertiesDeleter {
  void operator()(pw_properties* properties) const { pw_properties_free(properties); }
};
using Properties = std::unique_ptr<pw_properties, PropertiesDeleter>;

Properties makeProperties(const PipeWireProperties& values) {
  Properties properties(pw_properties_new(nullptr, nullptr));
  for (const auto& [key, value] : values)
    pw_properties_set(properties.get(), key.c_str(), value.c_str());
  return properties;
}

timespec asTimespec(std::chrono::nanoseconds duration) {
  return timespec{.tv_sec = static_cast<time_t>(duration.count() / 1'000'000'000),
                  .tv_nsec = static_cast<long>(duration.count() % 1'000'000'000)};
}

}  // namespace

void log(std::string_view message) {
  std::string line = logLine(message, std::chrono::system_clock::now());
  line.push_back('\n');
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fflush(stdout);
}

std::vector<std::string> channelPositions(std::size_t channels) {
  if (channels == 2) return {"FL", "FR"};
  std::vector<std::string> positions;
  for (std::size_t i = 0; i < channels; ++i) positions.push_back("AUX" + std::to_string(i));
  return positions;
}

// Server objects.

struct ServerObject::Listener {
  ServerObject* owner = nullptr;
  spa_hook hook{};

  static void bound(void* data, std::uint32_t id) { static_cast<Listener*>(data)->owner->id_ = id; }
  static void removed(void* data) { static_cast<Listener*>(data)->owner->gone_ = true; }
  static void error(void* data, int, int, const char*) {
    static_cast<Listener*>(data)->owner->gone_ = true;
  }
  static constexpr pw_proxy_events events{
      .version = PW_VERSION_PROXY_EVENTS, .bound = bound, .removed = removed, .error = error};
};

ServerObject::ServerObject(AudioSession& session, const char* factory, const char* type,
                           std::uint32_t version, const PipeWireProperties& properties)
    : listener_(std::make_unique<Listener>()) {
  auto dict = makeProperties(properties);
  proxy_ = static_cast<pw_proxy*>(
      pw_core_create_object(session.core(), factory, type, version, &dict->dict, 0));
  if (proxy_ == nullptr) {
    gone_ = true;
    return;
  }
  listener_->owner = this;
  pw_proxy_add_listener(proxy_, &listener_->hook, &Listener::events, listener_.get());
}

ServerObject::~ServerObject() {
  if (proxy_ == nullptr) return;
  spa_hook_remove(&listener_->hook);
  pw_proxy_destroy(proxy_);
}

void LinkSet::set(const std::set<Pair>& wanted) {
  std::erase_if(links_, [&](const auto& entry) {
    return entry.second->gone() || !wanted.contains(entry.first);
  });
  for (const auto& pair : wanted) {
    if (links_.contains(pair)) continue;
    links_[pair] = std::make_unique<ServerObject>(
        session_, "link-factory", PW_TYPE_INTERFACE_Link, PW_VERSION_LINK,
        PipeWireProperties{{PW_KEY_LINK_OUTPUT_PORT, std::to_string(pair.first)},
                           {PW_KEY_LINK_INPUT_PORT, std::to_string(pair.second)},
                           {PW_KEY_LINK_PASSIVE, passive_ ? "true" : "false"},
                           {PW_KEY_OBJECT_LINGER, "false"}});
  }
}

bool LinkSet::allGone() const {
  return std::all_of(links_.begin(), links_.end(),
                     [](const auto& entry) { return entry.second->gone(); });
}

// Filters.

struct AudioFilter::Hook {
  spa_hook hook{};
};

AudioFilter::AudioFilter(AudioSession& session, const PipeWireProperties& properties,
                         Process process)
    : session_(session), hook_(std::make_unique<Hook>()), process_(std::move(process)) {
  auto name = properties.contains(PW_KEY_NODE_NAME) ? properties.at(PW_KEY_NODE_NAME) : "brisola";
  filter_ = pw_filter_new(session.core(), name.c_str(), makeProperties(properties).release());
  if (filter_ == nullptr) throw std::runtime_error("Cannot make the PipeWire filter " + name);
  static constexpr pw_filter_events events{.version = PW_VERSION_FILTER_EVENTS,
                                           .process = processCycle};
  pw_filter_add_listener(filter_, &hook_->hook, &events, this);
  if (pw_filter_connect(filter_, PW_FILTER_FLAG_RT_PROCESS, nullptr, 0) < 0) {
    throw std::runtime_error("Cannot connect the PipeWire filter " + name);
  }
}

AudioFilter::~AudioFilter() {
  if (filter_ == nullptr) return;
  spa_hook_remove(&hook_->hook);
  pw_filter_destroy(filter_);
}

AudioFilter::Port AudioFilter::addPort(PipeWireDirection direction, const PortSpec& wanted) {
  auto properties = makeProperties({{PW_KEY_FORMAT_DSP, "32 bit float mono audio"},
                                    {PW_KEY_PORT_NAME, wanted.name},
                                    {PW_KEY_AUDIO_CHANNEL, wanted.position}});
  void* port = pw_filter_add_port(
      filter_, direction == PipeWireDirection::input ? PW_DIRECTION_INPUT : PW_DIRECTION_OUTPUT,
      PW_FILTER_PORT_FLAG_MAP_BUFFERS, 0, properties.release(), nullptr, 0);
  if (port == nullptr) throw std::runtime_error("Cannot add the port " + wanted.name);
  return port;
}

void AudioFilter::removePort(Port port) {
  pw_filter_remove_port(port);
}

const float* AudioFilter::input(Port port, std::uint32_t frames) {
  return static_cast<const float*>(pw_filter_get_dsp_buffer(port, frames));
}

float* AudioFilter::output(Port port, std::uint32_t frames) {
  return static_cast<float*>(pw_filter_get_dsp_buffer(port, frames));
}

void AudioFilter::betweenCycles(const std::function<void()>& change) {
  pw_loop_invoke(
      session_.dataLoop(),
      [](spa_loop*, bool, std::uint32_t, const void*, std::size_t, void* data) {
        (*static_cast<const std::function<void()>*>(data))();
        return 0;
      },
      0, nullptr, 0, true, const_cast<std::function<void()>*>(&change));
}

void AudioFilter::processCycle(void* data, spa_io_position* position) {
  auto* self = static_cast<AudioFilter*>(data);
  self->process_(static_cast<std::uint32_t>(position->clock.duration));
}

std::optional<std::uint32_t> AudioFilter::nodeID() const {
  const std::uint32_t id = pw_filter_get_node_id(filter_);
  if (id == SPA_ID_INVALID) return std::nullopt;
  return id;
}

std::optional<std::uint32_t> AudioFilter::port(const PipeWireGraph& graph,
                                               const std::string& name) const {
  const auto node = nodeID();
  if (!node) return std::nullopt;
  for (const auto& [id, port] : graph.ports) {
    if (port.nodeID == *node && port.property(PW_KEY_PORT_NAME) == name) return id;
  }
  return std::nullopt;
}

// The session.

struct AudioSession::Hooks {
  AudioSession* session = nullptr;
  spa_hook core{};

  static void error(void* data, std::uint32_t id, int, int result, const char* message) {
    auto* session = static_cast<Hooks*>(data)->session;
    if (id == PW_ID_CORE && result == -EPIPE) {
      log("PipeWire went away");
      session->stop(1);
    } else if (id == PW_ID_CORE) {
      log(std::string("PipeWire error: ") + (message != nullptr ? message : "unknown"));
    }
  }
  static constexpr pw_core_events events{.version = PW_VERSION_CORE_EVENTS, .error = error};
};

AudioSession::AudioSession(const std::string& name, const PipeWireProperties& clientProperties)
    : hooks_(std::make_unique<Hooks>()) {
  static std::once_flag initialised;
  std::call_once(initialised, [] { pw_init(nullptr, nullptr); });
  mainLoop_ = pw_main_loop_new(nullptr);
  if (mainLoop_ == nullptr) throw std::runtime_error("Cannot make a PipeWire main loop");
  // The signals are blocked here, before any thread of PipeWire's starts and inherits a mask
  // that would let them end the process.
  for (int number : {SIGTERM, SIGINT}) {
    signalSources_.push_back(pw_loop_add_signal(loop(), number, signalled, this));
  }
  context_ = pw_context_new(loop(), nullptr, 0);
  if (context_ == nullptr) throw std::runtime_error("Cannot make a PipeWire context");
  auto properties = clientProperties;
  properties.emplace(PW_KEY_APP_NAME, name);
  core_ = pw_context_connect(context_, makeProperties(properties).release(), 0);
  if (core_ == nullptr) throw std::runtime_error(pipeWireConnectionFailure(errno));
  hooks_->session = this;
  pw_core_add_listener(core_, &hooks_->core, &Hooks::events, hooks_.get());
  changeEvent_ = pw_loop_add_event(loop(), graphChanged, this);
  watch_ = std::make_unique<PipeWireGraphWatch>(
      core_, [this] { pw_loop_signal_event(loop(), changeEvent_); });
}

AudioSession::~AudioSession() {
  if (metadata_ != nullptr) pw_proxy_destroy(metadata_);
  if (registry_ != nullptr) pw_proxy_destroy(registry_);
  watch_.reset();
  if (core_ != nullptr) {
    spa_hook_remove(&hooks_->core);
    pw_core_disconnect(core_);
  }
  if (mainLoop_ != nullptr) {
    for (auto* source : signalSources_) pw_loop_destroy_source(loop(), source);
    if (changeEvent_ != nullptr) pw_loop_destroy_source(loop(), changeEvent_);
  }
  if (context_ != nullptr) pw_context_destroy(context_);
  if (mainLoop_ != nullptr) pw_main_loop_destroy(mainLoop_);
}

pw_loop* AudioSession::loop() const {
  return pw_main_loop_get_loop(mainLoop_);
}

pw_loop* AudioSession::dataLoop() const {
  return pw_data_loop_get_loop(pw_context_get_data_loop(context_));
}

bool AudioSession::setMetadata(std::uint32_t subject, const std::string& key,
                               const std::optional<std::string>& value) {
  if (metadata_ == nullptr) {
    const auto id = graph().defaultMetadata;
    if (!id) return false;
    if (registry_ == nullptr) {
      registry_ = reinterpret_cast<pw_proxy*>(pw_core_get_registry(core_, PW_VERSION_REGISTRY, 0));
    }
    metadata_ = static_cast<pw_proxy*>(pw_registry_bind(reinterpret_cast<pw_registry*>(registry_),
                                                        *id, PW_TYPE_INTERFACE_Metadata,
                                                        PW_VERSION_METADATA, 0));
    if (metadata_ == nullptr) return false;
  }
  pw_metadata_set_property(reinterpret_cast<pw_metadata*>(metadata_), subject, key.c_str(), nullptr,
                           value ? value->c_str() : nullptr);
  return true;
}

void AudioSession::onGraphChange(std::function<void()> callback) {
  onGraphChange_ = std::move(callback);
}

void AudioSession::graphChanged(void* data, std::uint64_t) {
  auto* session = static_cast<AudioSession*>(data);
  if (session->onGraphChange_) session->onGraphChange_();
}

void AudioSession::signalled(void* data, int) {
  static_cast<AudioSession*>(data)->stop(0);
}

bool AudioSession::runUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  pw_loop_enter(loop());
  bool result = done();
  while (!result) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) break;
    pw_loop_iterate(loop(), static_cast<int>(std::min<std::int64_t>(left.count(), 50)));
    result = done();
  }
  pw_loop_leave(loop());
  return result;
}

bool AudioSession::waitForGraph(std::chrono::milliseconds limit) {
  return runUntil([this] { return watch_->isSettled(); }, limit);
}

int AudioSession::run() {
  running_ = true;
  pw_main_loop_run(mainLoop_);
  running_ = false;
  return status_;
}

void AudioSession::stop(int status) {
  status_ = status;
  pw_main_loop_quit(mainLoop_);
}

AudioSession::Timer::Timer(AudioSession& session, std::chrono::nanoseconds period,
                           std::function<void()> callback)
    : session_(session), callback_(std::move(callback)) {
  source_ = pw_loop_add_timer(session.loop(), fire, this);
  timespec value = asTimespec(period);
  timespec interval = asTimespec(period);
  pw_loop_update_timer(session.loop(), source_, &value, &interval, false);
}

AudioSession::Timer::~Timer() {
  pw_loop_destroy_source(session_.loop(), source_);
}

void AudioSession::Timer::fire(void* data, std::uint64_t) {
  static_cast<Timer*>(data)->callback_();
}

}  // namespace brisola::audio
