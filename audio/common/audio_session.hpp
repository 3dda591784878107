#pragma once

// What every Brisola audio program needs of PipeWire: one connection on a main loop, the graph
// kept current, timers, objects made in the server that live as long as their owner, links,
// DSP filters, and an end on SIGTERM or SIGINT.

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "brisola/platform/pipewire_graph.hpp"

struct pw_main_loop;
struct pw_loop;
struct pw_context;
struct pw_core;
struct pw_proxy;
struct pw_filter;
struct spa_source;
struct spa_io_position;

namespace brisola::audio {

// The log of the audio programs: "[" + UTC time + "Z] " + message on standard output.
void log(std::string_view message);

class AudioSession;

// An object made in the server (a node or a link); the server removes it when this goes.
class ServerObject {
 public:
  ServerObject(AudioSession& session, const char* factory, const char* type, std::uint32_t version,
               const PipeWireProperties& properties);
  ~ServerObject();
  ServerObject(const ServerObject&) = delete;
  ServerObject& operator=(const ServerObject&) = delete;

  // The global id, once the server has made the object.
  std::optional<std::uint32_t> id() const { return id_; }
  // The server refused the object or removed it (a linked port went away).
  bool gone() const { return gone_; }

 private:
  struct Listener;
  pw_proxy* proxy_ = nullptr;
  std::unique_ptr<Listener> listener_;
  std::optional<std::uint32_t> id_;
  bool gone_ = false;
};

// Links from output ports to input ports, made and removed to match what is wanted.
class LinkSet {
 public:
  using Pair = std::pair<std::uint32_t, std::uint32_t>;  // output port, input port
  // Passive links never make the graph run by themselves: only while something else (a
  // player, a recorder, a helper) keeps the nodes they join running.
  explicit LinkSet(AudioSession& session, bool passive = false)
      : session_(session), passive_(passive) {}
  void set(const std::set<Pair>& wanted);
  void clear() { links_.clear(); }
  // Every link has been removed by the server (with a port or node at either end).
  bool allGone() const;

 private:
  AudioSession& session_;
  bool passive_;
  std::map<Pair, std::unique_ptr<ServerObject>> links_;
};

struct PortSpec {
  std::string name;      // port.name
  std::string position;  // audio.channel (FL, FR, AUX0...)
};

// The channel positions of an n-channel stream: FL FR for stereo, AUX0... otherwise.
std::vector<std::string> channelPositions(std::size_t channels);

// A node of DSP ports (32-bit float, one channel each) whose process function runs on the
// audio thread once per graph cycle. Ports can come and go while it runs.
class AudioFilter {
 public:
  using Process = std::function<void(std::uint32_t frames)>;
  AudioFilter(AudioSession& session, const PipeWireProperties& properties, Process process);
  ~AudioFilter();
  AudioFilter(const AudioFilter&) = delete;
  AudioFilter& operator=(const AudioFilter&) = delete;

  using Port = void*;
  Port addPort(PipeWireDirection direction, const PortSpec& wanted);
  // The process function must no longer touch the port (see betweenCycles).
  void removePort(Port port);

  // This cycle's buffer of a port, from the process function; nullptr when it has none.
  static const float* input(Port port, std::uint32_t frames);
  static float* output(Port port, std::uint32_t frames);

  // Runs `change` on the audio thread between two cycles, and returns once it has run: how
  // what the process function reads is replaced without a lock on the audio thread.
  void betweenCycles(const std::function<void()>& change);

  // The node's global id once the server knows it.
  std::optional<std::uint32_t> nodeID() const;
  // The global id of this node's port named `name` in the graph, once it is there.
  std::optional<std::uint32_t> port(const PipeWireGraph& graph, const std::string& name) const;

 private:
  struct Hook;
  static void processCycle(void* data, ::spa_io_position* position);
  AudioSession& session_;
  pw_filter* filter_ = nullptr;
  std::unique_ptr<Hook> hook_;
  Process process_;
};

class AudioSession {
 public:
  // Connects as `name`; throws std::runtime_error naming the socket when no server answers.
  AudioSession(const std::string& name, const PipeWireProperties& clientProperties = {});
  ~AudioSession();
  AudioSession(const AudioSession&) = delete;
  AudioSession& operator=(const AudioSession&) = delete;

  pw_core* core() const { return core_; }
  pw_loop* loop() const;
  // The loop of the audio thread.
  pw_loop* dataLoop() const;
  const PipeWireGraph& graph() const { return watch_->graph(); }

  // Sets, or without a value clears, a property of the session manager's "default" metadata.
  // False when there is no such metadata.
  bool setMetadata(std::uint32_t subject, const std::string& key,
                   const std::optional<std::string>& value);

  // Runs `callback` on the loop once after each burst of changes to the graph.
  void onGraphChange(std::function<void()> callback);
  // Runs the loop until `done` holds (true) or `limit` has passed (false).
  bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds limit);
  // Runs the loop until the server's initial state is in; false after `limit`.
  bool waitForGraph(std::chrono::milliseconds limit);
  // Runs until SIGTERM or SIGINT (then 0), or until the server goes away (then 1).
  int run();
  void stop(int status);

  // Calls `callback` on the loop every `period` until the returned handle goes.
  class Timer {
   public:
    Timer(AudioSession& session, std::chrono::nanoseconds period, std::function<void()> callback);
    ~Timer();
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

   private:
    static void fire(void* data, std::uint64_t expirations);
    AudioSession& session_;
    spa_source* source_ = nullptr;
    std::function<void()> callback_;
  };

 private:
  struct Hooks;
  static void graphChanged(void* data, std::uint64_t);
  static void signalled(void* data, int signal);

  pw_main_loop* mainLoop_ = nullptr;
  pw_context* context_ = nullptr;
  pw_core* core_ = nullptr;
  std::unique_ptr<Hooks> hooks_;
  std::unique_ptr<PipeWireGraphWatch> watch_;
  spa_source* changeEvent_ = nullptr;
  pw_proxy* registry_ = nullptr;
  pw_proxy* metadata_ = nullptr;
  std::vector<spa_source*> signalSources_;
  std::function<void()> onGraphChange_;
  int status_ = 0;
  bool running_ = false;
};

}  // namespace brisola::audio
