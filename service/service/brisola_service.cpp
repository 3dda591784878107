#include "service/brisola_service.hpp"

#include <algorithm>
#include <cstdio>
#include <iostream>
#include <iterator>

#include "brisola/devices/core_audio_device_registry.hpp"
#include "brisola/runtime/control_store.hpp"
#include "brisola/runtime/heartbeat.hpp"
#include "common/service_log.hpp"
#include "service/number_text.hpp"
#include "service/route_planner.hpp"
#include "supervision/route_supervisor.hpp"

extern char** environ;

namespace brisola {

namespace {

std::string text(bool value) {
  return value ? "true" : "false";
}

}  // namespace

ServicePorts ServicePorts::real(const Environment& environment) {
  auto fileManager = FileManager::defaultManager();
  ServicePorts ports;
  // Kept open and rewritten only on a change: an idle cycle leaves the block alone.
  ports.publish = [writer =
                       std::make_shared<RuntimeControlWriter>()](const ConfigSnapshot& snapshot) {
    writer->publish(RuntimeDeviceControls::forDocument(snapshot));
  };
  ports.inventory = [] { return CoreAudioDeviceRegistry::deviceInventory(); };
  ports.heartbeat = [fileManager] {
    // Without an Application Support directory there is nowhere to beat; the service goes on.
    if (auto url = BrisolaCore::serviceHeartbeatFileURL(*fileManager)) {
      ServiceHeartbeat::beat(*url, std::chrono::system_clock::now(), *fileManager);
    }
  };
  ports.supervisor = std::make_shared<RouteSupervisor>(EnvironmentMap(environment));
  return ports;
}

BrisolaService::BrisolaService(Environment environment, std::vector<std::string> arguments)
    : BrisolaService(environment, std::move(arguments), ServicePorts{}) {}

BrisolaService::BrisolaService(Environment environment, std::vector<std::string> arguments,
                               ServicePorts ports)
    : environment_(std::move(environment)),
      settings_(Settings::read(environment_)),
      store_(ConfigStore::configuredURL(settings_.configPath, *FileManager::defaultManager()),
             FileManager::defaultManager()),
      helperPaths_(HelperPaths::resolve(settings_, arguments, *FileManager::defaultManager())),
      ports_(std::move(ports)) {
  // Ports are made only now, after the helpers resolved: a missing helper must end the
  // service before anything else is touched.
  ServicePorts defaults = ServicePorts::real(environment_);
  if (!ports_.publish) ports_.publish = std::move(defaults.publish);
  if (!ports_.inventory) ports_.inventory = std::move(defaults.inventory);
  if (!ports_.heartbeat) ports_.heartbeat = std::move(defaults.heartbeat);
  if (!ports_.supervisor) ports_.supervisor = std::move(defaults.supervisor);
}

BrisolaService::~BrisolaService() = default;

std::vector<DesiredRoute> BrisolaService::desiredRoutes(const ConfigSnapshot& snapshot) const {
  return RoutePlanner::desiredRoutes(snapshot, ports_.inventory(), helperPaths_);
}

void BrisolaService::run() {
  StopSignals signals;
  if (settings_.dryRun) {
    runDry();
    return;
  }
  runLoop(signals);
}

void BrisolaService::runCycle() {
  ports_.heartbeat();
  const ConfigSnapshot* snapshot = nullptr;
  try {
    snapshot = &document_.load();
    ports_.publish(*snapshot);
  } catch (const std::exception& error) {
    // Running helpers are left alone; the next cycle starts afresh.
    BrisolaServiceLog::write(std::string("Reconcile failed: ") + error.what());
    failing_ = true;
    plan_.reset();
    return;
  }
  if (failing_)
    BrisolaServiceLog::write("Reconcile works again: the document loads and is published");
  failing_ = false;
  if (plan(*snapshot)) {
    ports_.supervisor->reconcile(plan_->routes);
  } else {
    ports_.supervisor->keepRunning();
  }
}

bool BrisolaService::plan(const ConfigSnapshot& snapshot) {
  AudioDeviceInventory inventory = ports_.inventory();
  const bool sameInventory = plan_ && inventory == plan_->inventory;
  const bool replanning = !sameInventory || plan_->generation != document_.generation();
  if (replanning) {
    // A plan of the document just before, under the same devices, lends the routes of every
    // device whose record did not move.
    std::optional<Plan> last;
    if (sameInventory && plan_->generation + 1 == document_.generation()) last = std::move(plan_);
    plan_ = replan(snapshot, std::move(inventory), std::move(last));
  }
  // The user still has the same things to fix: say so every cycle, as a fresh plan would.
  for (const auto& lines : plan_->lines) {
    for (const auto& line : lines) BrisolaServiceLog::write(line);
  }
  return replanning;
}

BrisolaService::Plan BrisolaService::replan(const ConfigSnapshot& snapshot,
                                            AudioDeviceInventory inventory,
                                            std::optional<Plan> last) const {
  const auto [inputs, outputs] = RoutePlanner::availableUIDs(inventory);
  const auto& previous = document_.previous().devices;
  Plan plan{.generation = document_.generation(), .inventory = std::move(inventory)};
  plan.routes.reserve(last ? last->routes.size() : 0);
  for (std::size_t i = 0; i < snapshot.devices.size(); ++i) {
    const DeviceConfig& device = snapshot.devices[i];
    std::vector<std::string> lines;
    // Nested sources look at other devices: those devices are planned afresh every time.
    const bool reusable =
        last && i < previous.size() &&
        std::none_of(device.sources.begin(), device.sources.end(),
                     [](const SourceConfig& s) { return s.type == SourceType::virtualDevice; }) &&
        device == previous[i];
    if (reusable) {
      const std::size_t begin = i == 0 ? 0 : last->ends[i - 1];
      std::move(last->routes.begin() + static_cast<std::ptrdiff_t>(begin),
                last->routes.begin() + static_cast<std::ptrdiff_t>(last->ends[i]),
                std::back_inserter(plan.routes));
      lines = std::move(last->lines[i]);
    } else if (device.enabled) {
      BrisolaServiceLog::Capture capture;
      auto routes = RoutePlanner::desiredRoutes(device, snapshot, inputs, outputs, helperPaths_);
      std::move(routes.begin(), routes.end(), std::back_inserter(plan.routes));
      lines = capture.lines();
    }
    plan.ends.push_back(plan.routes.size());
    plan.lines.push_back(std::move(lines));
  }
  return plan;
}

void BrisolaService::runLoop(StopSignals& signals) {
  BrisolaServiceLog::write("Starting Brisola audio service");
  BrisolaServiceLog::write("Document: " + store_.url().string());
  BrisolaServiceLog::write("Hardware: " + HardwareBackend::currentSource());
  BrisolaServiceLog::write("Helpers: " + helperPaths_.describe());
  while (!signals.stopRequested()) {
    runCycle();
    if (signals.sleep(settings_.pollInterval)) break;
  }
  ports_.supervisor->stopAllRoutes();
  BrisolaServiceLog::write("Stopped Brisola audio service");
}

void BrisolaService::runDry() {
  ConfigSnapshot snapshot = store_.loadOrCreateEmpty();
  auto controls = RuntimeDeviceControls::forDocument(snapshot);
  auto routes = desiredRoutes(snapshot);
  BrisolaServiceLog::write("Dry run: " + std::to_string(controls.size()) + " device(s)");
  for (const auto& entry : controls) {
    BrisolaServiceLog::write(
        "Dry run device: uid=" + entry.uid + " deviceEnabled=" + text(entry.deviceEnabled) +
        " sourceEnabled=" + text(entry.sourceEnabled) + " muted=" + text(entry.muted) +
        " gain=" + shortestText(entry.sourceGain));
  }
  if (routes.empty()) BrisolaServiceLog::write("Dry run route: none");
  for (const auto& route : routes) BrisolaServiceLog::write("Dry run route: " + route.summary);
}

namespace {

constexpr const char* helpText =
    R"(Usage: brisola-audio-service [--help] [--version]

The background audio-routing service of Brisola. Every poll cycle it beats the heartbeat file,
loads the configuration document (creating the empty one on first use), publishes every
device's live controls to the shared-memory block /brisolaruntime3, and starts, restarts and
stops one helper per audio path. SIGTERM or SIGINT stops it and every helper; helpers also die
with it when it is killed.

Options:
  --help     Print this help and exit.
  --version  Print the version and exit.

Environment:
  BRISOLA_CONFIG_PATH           The document (default: <Application Support>/Brisola/config.json,
                                Application Support being $XDG_DATA_HOME or ~/.local/share).
  BRISOLA_HELPER_DIR            The first directory searched for the helpers; then the service's
                                own directory, build/tools and build/service.
  BRISOLA_SERVICE_POLL_SECONDS  The poll interval, default 1.0, kept between 0.01 and 3600.
  BRISOLA_SERVICE_DRY_RUN       1, true, yes or on: load the document once, print the controls
                                and routes, and exit without touching anything.
  BRISOLA_SERVICE_ONCE          The same as BRISOLA_SERVICE_DRY_RUN.
  BRISOLA_HARDWARE_SIMULATION   A simulated hardware file instead of the user's PipeWire.

Exit status:
  0 stopped by a signal or a finished dry run; 1 a fatal error (logged); 64 a wrong command
  line.
)";

}  // namespace

int BrisolaService::main(int argc, char** argv) {
  if (argc > 1) {
    const std::string_view option = argv[1];
    if (option == "--help" || option == "-h") {
      std::cout << helpText;
      return 0;
    }
    if (option == "--version") {
      std::cout << "brisola-audio-service " << BRISOLA_VERSION << '\n';
      return 0;
    }
    std::cerr << "brisola-audio-service: unknown option '" << option
              << "'; see brisola-audio-service --help\n";
    return 64;
  }
  Environment environment;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    std::string_view text(*entry);
    auto equals = text.find('=');
    if (equals == std::string_view::npos) continue;
    environment.emplace(std::string(text.substr(0, equals)), std::string(text.substr(equals + 1)));
  }
  std::vector<std::string> arguments(argv, argv + argc);
  try {
    BrisolaService service(std::move(environment), std::move(arguments));
    service.run();
    return 0;
  } catch (const std::exception& error) {
    BrisolaServiceLog::write(std::string("Fatal error: ") + error.what());
    return 1;
  }
}

}  // namespace brisola
