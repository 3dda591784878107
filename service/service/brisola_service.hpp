#pragma once

// The service process: settings from the environment, the poll loop (heartbeat, load, publish,
// plan, reconcile, sleep), the dry run, and a clean stop on SIGTERM or SIGINT.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "brisola/ipc/exchange_records.hpp"
#include "brisola/store/config_store.hpp"
#include "common/desired_route.hpp"
#include "service/document_cache.hpp"
#include "service/service_settings.hpp"
#include "service/stop_signals.hpp"

namespace brisola {

class RouteSupervisor;

// What a cycle talks to outside the document. The defaults are the real shared memory,
// heartbeat file, device registry and child processes; tests replace them.
struct ServicePorts {
  std::function<void(const ConfigSnapshot&)> publish;
  std::function<AudioDeviceInventory()> inventory;
  std::function<void()> heartbeat;
  std::shared_ptr<RouteSupervisor> supervisor;

  static ServicePorts real(const Environment& environment);
};

class BrisolaService {
 public:
  // Reads the settings from `environment`, builds the store and resolves the helpers (ServiceError
  // when one is missing). `arguments` are the program's command-line arguments, the program path
  // first.
  BrisolaService(Environment environment, std::vector<std::string> arguments);
  BrisolaService(Environment environment, std::vector<std::string> arguments, ServicePorts ports);
  ~BrisolaService();
  BrisolaService(const BrisolaService&) = delete;
  BrisolaService& operator=(const BrisolaService&) = delete;

  // The loop until a stop signal, or one dry-run pass. Only the dry run raises.
  void run();

  std::vector<DesiredRoute> desiredRoutes(const ConfigSnapshot& snapshot) const;

  // One poll cycle: heartbeat, load, publish, plan, reconcile. Failures to load or publish are
  // logged and end the cycle early; nothing raises.
  void runCycle();

  const ConfigStore& store() const { return store_; }
  const HelperPaths& helperPaths() const { return helperPaths_; }
  const Settings& settings() const { return settings_; }

  // The entry point: runs the service and returns the process's exit status.
  static int main(int argc, char** argv);

 private:
  void runLoop(StopSignals& signals);
  void runDry();
  // Brings plan_ to the routes of the loaded document: planned again only when the document
  // or the device inventory moved since the last plan, and then only for the devices whose
  // record moved. Whether it planned again.
  bool plan(const ConfigSnapshot& snapshot);

  struct Plan {
    std::uint64_t generation = 0;  // of the document planned
    AudioDeviceInventory inventory;
    std::vector<DesiredRoute> routes;  // every device's, in document order
    // Per document device: one past its last route, and what planning it logged.
    std::vector<std::size_t> ends;
    std::vector<std::vector<std::string>> lines;
  };
  Plan replan(const ConfigSnapshot& snapshot, AudioDeviceInventory inventory,
              std::optional<Plan> last) const;

  Environment environment_;  // handed on to every helper
  Settings settings_;
  ConfigStore store_;
  DocumentCache document_{store_};
  HelperPaths helperPaths_;
  ServicePorts ports_;
  bool failing_ = false;      // the last cycle logged "Reconcile failed"
  std::optional<Plan> plan_;  // none after a cycle that ended before planning
};

}  // namespace brisola
