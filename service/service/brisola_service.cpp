#include "service/brisola_service.hpp"

#include <cstdio>
#include <iostream>

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
  ports.publish = [](const ConfigSnapshot& snapshot) { RuntimePublisher::publish(snapshot); };
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
  ConfigSnapshot snapshot;
  try {
    snapshot = store_.loadOrCreateEmpty();
    ports_.publish(snapshot);
  } catch (const std::exception& error) {
    // Running helpers are left alone; the next cycle starts afresh.
    BrisolaServiceLog::write(std::string("Reconcile failed: ") + error.what());
    return;
  }
  ports_.supervisor->reconcile(desiredRoutes(snapshot));
}

void BrisolaService::runLoop(StopSignals& signals) {
  BrisolaServiceLog::write("Starting Brisola audio service");
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

int BrisolaService::main(int argc, char** argv) {
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
