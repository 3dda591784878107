// brisola-virtual-devices: one PipeWire device per slot of the control block that the service
// publishes, mixed as the slot's controls say, until SIGTERM or SIGINT.

#include <cerrno>
#include <map>

#include "brisola/model/config.hpp"
#include "brisola/runtime/control_store.hpp"
#include "common/audio_session.hpp"
#include "virtual_devices/virtual_device.hpp"

namespace brisola::audio {
namespace {

using namespace std::chrono_literals;

std::string describe(const RuntimeDeviceControls& controls) {
  return "'" + controls.name + "' (" + controls.uid + ", " + std::to_string(controls.channelCount) +
         " channels)";
}

// The devices of the last good read of the control block, by UID.
class DeviceSet {
 public:
  explicit DeviceSet(AudioSession& session) : session_(session), mixer_(session) {}

  void apply(const std::vector<RuntimeDeviceControls>& records) {
    std::map<std::string, const RuntimeDeviceControls*> wanted;
    for (const auto& record : records) wanted.emplace(record.uid, &record);  // first slot wins
    std::vector<std::unique_ptr<VirtualDevice>> retiring;
    for (auto entry = devices_.begin(); entry != devices_.end();) {
      auto found = wanted.find(entry->first);
      if (found != wanted.end() && entry->second.device->serves(*found->second)) {
        ++entry;
        continue;
      }
      log((found == wanted.end() ? "Removed device " : "Replacing device ") +
          describe(entry->second.controls));
      retiring.push_back(std::move(entry->second.device));
      entry = devices_.erase(entry);
    }
    for (const auto& [uid, record] : wanted) {
      if (auto existing = devices_.find(uid); existing != devices_.end()) {
        existing->second.device->update(*record);
        existing->second.controls = *record;
        continue;
      }
      try {
        devices_.emplace(
            uid, Entry{std::make_unique<VirtualDevice>(session_, mixer_, *record), *record});
        log("Added device " + describe(*record));
      } catch (const std::exception& error) {
        log("Cannot add device " + describe(*record) + ": " + error.what());
      }
    }
    // The mixer lets go of the retiring devices before anything of theirs goes.
    std::vector<MixLane> lanes;
    for (auto& [uid, entry] : devices_) lanes.push_back(entry.device->lane());
    mixer_.setLanes(std::move(lanes));
    for (auto& device : retiring) {
      device->retire();
      retired_.push_back({std::move(device), std::chrono::steady_clock::now()});
    }
    connect();
  }

  // Lets go of retired devices whose links the server has removed, or that waited too long.
  void sweep() {
    const auto now = std::chrono::steady_clock::now();
    std::erase_if(retired_, [&](const Retired& retired) {
      return retired.device->retired() || now - retired.since > 2s;
    });
  }

  void connect() {
    for (auto& [uid, entry] : devices_) entry.device->connect();
  }
  void publishMeters() {
    for (auto& [uid, entry] : devices_) entry.device->publishMeters();
  }
  void clear() {
    apply({});
    retired_.clear();
  }

 private:
  struct Entry {
    std::unique_ptr<VirtualDevice> device;
    RuntimeDeviceControls controls;
  };
  struct Retired {
    std::unique_ptr<VirtualDevice> device;
    std::chrono::steady_clock::time_point since;
  };
  AudioSession& session_;
  Mixer mixer_;
  std::map<std::string, Entry> devices_;
  std::vector<Retired> retired_;
};

// Reads the control block when it may have changed, and says once when its state changes.
class ControlReader {
 public:
  std::optional<std::vector<RuntimeDeviceControls>> poll() {
    const bool secondLook = secondLook_;
    secondLook_ = false;
    if (!watcher_.changed() && !secondLook) return std::nullopt;
    const std::string name(RuntimeControlStoreV3::sharedMemoryName);
    try {
      auto records = RuntimeControlStoreV3::read();
      report("Reading device controls from " + name);
      return records;
    } catch (const RuntimeControlStoreError& error) {
      if (error.errorCase() == RuntimeControlStoreError::Case::openFailed &&
          error.errorNumber() == ENOENT) {
        report("No control block " + name + " yet; waiting for the service");
      } else if (error.errorCase() == RuntimeControlStoreError::Case::invalidState && !secondLook) {
        // A block in the middle of an update reads as invalid too. Only a second look a tick
        // later tells one that cannot be used; until then the devices stay as they are.
        secondLook_ = true;
        return std::nullopt;
      } else {
        report("Cannot use the control block " + name + ": " + error.what());
      }
    }
    return std::vector<RuntimeDeviceControls>{};
  }

 private:
  void report(const std::string& state) {
    if (state != state_) log(state);
    state_ = state;
  }
  RuntimeControlWatcher watcher_;
  std::string state_;
  bool secondLook_ = false;  // the last read found the block invalid
};

int run() {
  // The hardware layer knows the product's plug-in by this client's application.id.
  AudioSession session("brisola-virtual-devices",
                       {{"application.id", std::string(BrisolaCore::halBundleID)}});
  log("Starting Brisola virtual devices");
  ControlReader reader;
  DeviceSet devices(session);
  session.onGraphChange([&] { devices.connect(); });
  // One wake-up every 20 ms reads the controls when they moved: a change is heard within the
  // 20 ms and at most two graph cycles, under 50 ms at the default quantum. The meters are
  // refreshed every other wake-up, 25 times a second, where readers call a meter absent after
  // 0.3 s without change; each refresh costs three writes per meter.
  bool meterTick = false;
  AudioSession::Timer tick(session, 20ms, [&] {
    if (auto records = reader.poll()) devices.apply(*records);
    meterTick = !meterTick;
    if (meterTick) devices.publishMeters();
    devices.sweep();
  });
  const int status = session.run();
  devices.clear();
  log("Stopped Brisola virtual devices");
  return status;
}

}  // namespace
}  // namespace brisola::audio

int main() {
  try {
    return brisola::audio::run();
  } catch (const std::exception& error) {
    brisola::audio::log(std::string("Fatal error: ") + error.what());
    return 1;
  }
}
