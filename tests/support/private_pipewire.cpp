#include "support/private_pipewire.hpp"

#include <sys/stat.h>

#include <chrono>
#include <cmath>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>

#include "support/system_helpers.hpp"

namespace brisola::testing {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

PrivatePipeWire::PrivatePipeWire() {
  ::chmod(runtime_.path().c_str(), 0700);
  for (const char* directory : {"home", "config", "state", "data"}) {
    fs::create_directories(runtime_ / directory);
  }
  // Each program is started once the one before it is ready; its log says why it is not.
  const auto launch = [&](const std::vector<std::string>& argv,
                          const std::function<bool()>& ready) {
    auto process = start(argv);
    if (!eventually(ready, 20s, 20ms)) {
      throw std::runtime_error(argv[0] + " did not start: " + process->standardError() +
                               process->standardOutput());
    }
    return process;
  };
  bus_ = launch({"dbus-daemon", "--session", "--nofork", "--nopidfile",
                 "--address=unix:path=" + (runtime_ / "bus").string()},
                [&] { return fs::exists(runtime_ / "bus"); });
  server_ = launch({"pipewire"}, [&] { return fs::exists(runtime_ / "pipewire-0"); });
  sessionManager_ = launch({"wireplumber"}, [&] {
    return tool("pw-cli", {"ls", "Metadata"}).out.find("metadata.name = \"default\"") !=
           std::string::npos;
  });
}

PrivatePipeWire::~PrivatePipeWire() {
  // The session manager first, so that it does not react to the server going away.
  if (sessionManager_) sessionManager_->stop();
  if (server_) server_->stop();
  if (bus_) bus_->stop();
}

std::map<std::string, std::string> PrivatePipeWire::environment() const {
  std::map<std::string, std::string> env;
  if (const char* path = ::getenv("PATH")) env["PATH"] = path;
  env["XDG_RUNTIME_DIR"] = runtime_.path().string();
  env["PIPEWIRE_RUNTIME_DIR"] = runtime_.path().string();
  env["DBUS_SESSION_BUS_ADDRESS"] = "unix:path=" + (runtime_ / "bus").string();
  // The session manager keeps volumes and defaults: never the user's own, never shared.
  env["HOME"] = (runtime_ / "home").string();
  env["XDG_CONFIG_HOME"] = (runtime_ / "config").string();
  env["XDG_STATE_HOME"] = (runtime_ / "state").string();
  env["XDG_DATA_HOME"] = (runtime_ / "data").string();
  return env;
}

void PrivatePipeWire::useInThisProcess() const {
  ::setenv("PIPEWIRE_RUNTIME_DIR", runtime_.path().c_str(), 1);
  ::setenv("XDG_RUNTIME_DIR", runtime_.path().c_str(), 1);
  ::unsetenv("PIPEWIRE_REMOTE");
}

Completed PrivatePipeWire::tool(const std::string& program,
                                const std::vector<std::string>& arguments) const {
  return runToCompletion(program, arguments, environment(), runtime_.path(), 10s);
}

std::unique_ptr<RunningProcess> PrivatePipeWire::start(const std::vector<std::string>& argv) const {
  return std::make_unique<RunningProcess>(argv.at(0), std::vector(argv.begin() + 1, argv.end()),
                                          environment(), runtime_.path(), runtime_.path());
}

void PrivatePipeWire::createNode(const NullNode& node) const {
  std::string positions;
  for (const auto& position : node.positions)
    positions += (positions.empty() ? "" : " ") + position;
  std::string properties = "{ factory.name=support.null-audio-sink node.name=\"" + node.name +
                           "\" media.class=" + node.mediaClass + " audio.position=[" + positions +
                           "] object.linger=true";
  if (!node.description.empty()) properties += " node.description=\"" + node.description + "\"";
  properties += " }";
  auto result = tool("pw-cli", {"create-node", "adapter", properties});
  if (result.status != 0) throw std::runtime_error("pw-cli create-node failed: " + result.err);
  // The session manager gives a null node its ports; until then it is no device.
  const bool ready = eventually(
      [&] { return tool("pw-link", {"-i"}).out.find(node.name + ":") != std::string::npos; }, 10s,
      20ms);
  if (!ready) throw std::runtime_error("node " + node.name + " got no ports");
}

void PrivatePipeWire::removeNode(const std::string& name) const {
  tool("pw-cli", {"destroy", name});
  if (!eventually([&] { return nodeID(name) == 0; }, 10s, 20ms)) {
    throw std::runtime_error("node " + name + " did not go away");
  }
}

std::uint32_t PrivatePipeWire::nodeID(const std::string& name) const {
  const std::string listing = tool("pw-cli", {"ls", "Node"}).out;
  const auto at = listing.find("node.name = \"" + name + "\"");
  if (at == std::string::npos) return 0;
  const auto header = listing.rfind("\tid ", at);
  if (header == std::string::npos) return 0;
  return static_cast<std::uint32_t>(std::stoul(listing.substr(header + 4)));
}

void PrivatePipeWire::setDefault(const std::string& name) const {
  const auto id = nodeID(name);
  if (id == 0 || tool("wpctl", {"set-default", std::to_string(id)}).status != 0) {
    throw std::runtime_error("could not make " + name + " the default");
  }
}

void PrivatePipeWire::link(const std::string& output, const std::string& input) const {
  // A node is announced before its ports, so a port may be missing for a moment after its node
  // appears; only a port still missing after a few seconds is an error.
  Completed result;
  const auto linked = [&] { return (result = tool("pw-link", {output, input})).status == 0; };
  if (!eventually(linked, 5s, 20ms)) {
    throw std::runtime_error("cannot link " + output + " to " + input + ": " + result.err);
  }
}

void PrivatePipeWire::linkChannels(const std::string& from, const std::string& to) const {
  auto portsOf = [&](const char* flag, const std::string& node) {
    std::vector<std::string> ports;
    std::stringstream lines(tool("pw-link", {flag}).out);
    for (std::string line; std::getline(lines, line);) {
      if (line.starts_with(node + ":")) ports.push_back(line);
    }
    return ports;
  };
  // A player is announced before its ports: only one still without ports is an error.
  std::vector<std::string> outputs;
  if (!eventually([&] { return !(outputs = portsOf("-o", from)).empty(); }, 5s, 20ms)) {
    throw std::runtime_error(from + " has no output ports");
  }
  const auto inputs = portsOf("-i", to);
  for (const auto& output : outputs) {
    const auto channel = output.substr(output.rfind('_'));
    for (const auto& input : inputs) {
      if (input.ends_with(channel)) link(output, input);
    }
  }
}

namespace {

template <class T>
void put(std::ofstream& out, T value) {
  out.write(reinterpret_cast<const char*>(&value), sizeof value);
}

}  // namespace

void writeToneWav(const fs::path& path, int channels, double frequency, double amplitude,
                  double seconds, int rate) {
  const auto frames = static_cast<std::uint32_t>(seconds * rate);
  const std::uint32_t dataSize = frames * static_cast<std::uint32_t>(channels) * 4;
  std::ofstream out(path, std::ios::binary);
  out.write("RIFF", 4);
  put<std::uint32_t>(out, 36 + dataSize);
  out.write("WAVEfmt ", 8);
  put<std::uint32_t>(out, 16);
  put<std::uint16_t>(out, 3);  // IEEE float
  put<std::uint16_t>(out, static_cast<std::uint16_t>(channels));
  put<std::uint32_t>(out, static_cast<std::uint32_t>(rate));
  put<std::uint32_t>(out, static_cast<std::uint32_t>(rate * channels * 4));
  put<std::uint16_t>(out, static_cast<std::uint16_t>(channels * 4));
  put<std::uint16_t>(out, 32);
  out.write("data", 4);
  put<std::uint32_t>(out, dataSize);
  for (std::uint32_t frame = 0; frame < frames; ++frame) {
    const auto sample =
        static_cast<float>(amplitude * std::sin(2 * M_PI * frequency * frame / rate));
    for (int channel = 0; channel < channels; ++channel) put<float>(out, sample);
  }
}

}  // namespace brisola::testing
