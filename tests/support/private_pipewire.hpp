#pragma once

// A PipeWire of the test's own: a session bus, pipewire and wireplumber in a fresh runtime
// directory, with null sinks standing in for hardware. Every process it starts is ended when the
// object goes, and dies with the test process if that is killed first.

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "support/process_runner.hpp"
#include "support/temp_dir.hpp"

namespace brisola::testing {

struct NullNode {
  std::string name;
  std::string mediaClass = "Audio/Sink";  // or Audio/Source/Virtual for a microphone
  std::string description;                // empty: none
  std::vector<std::string> positions{"FL", "FR"};
};

class PrivatePipeWire {
 public:
  // Starts everything and waits until the session manager has published its defaults.
  PrivatePipeWire();
  ~PrivatePipeWire();
  PrivatePipeWire(const PrivatePipeWire&) = delete;
  PrivatePipeWire& operator=(const PrivatePipeWire&) = delete;

  const std::filesystem::path& runtimeDirectory() const { return runtime_.path(); }
  // The variables that point a PipeWire client at this server.
  std::map<std::string, std::string> environment() const;
  // Points this process's own PipeWire clients at this server.
  void useInThisProcess() const;

  // Runs a PipeWire tool (pw-cli, pw-link, pw-metadata, wpctl...) against this server.
  Completed tool(const std::string& program, const std::vector<std::string>& arguments) const;
  // Starts a long-running client (pw-play, pw-record...) against this server.
  std::unique_ptr<RunningProcess> start(const std::vector<std::string>& argv) const;

  // Creates a null node that stays until removed; returns once its ports exist.
  void createNode(const NullNode& node) const;
  void removeNode(const std::string& name) const;
  // The global id of the node named `name`, or 0.
  std::uint32_t nodeID(const std::string& name) const;
  // Makes the node the configured default sink or source.
  void setDefault(const std::string& name) const;
  // Links two ports ("node:port"), as pw-link does.
  void link(const std::string& output, const std::string& input) const;
  // Links each output port of `from` (once it has any) to the input of `to` on the same channel.
  void linkChannels(const std::string& from, const std::string& to) const;

 private:
  TempDir runtime_;
  std::unique_ptr<RunningProcess> bus_;
  std::unique_ptr<RunningProcess> server_;
  std::unique_ptr<RunningProcess> sessionManager_;
};

// A tone file for players that are processes of their own (pw-play): a sine of `amplitude` on
// every channel, 32-bit float WAV.
void writeToneWav(const std::filesystem::path& path, int channels, double frequency,
                  double amplitude, double seconds, int rate = 48000);

}  // namespace brisola::testing
