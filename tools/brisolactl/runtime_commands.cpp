// Commands that read what the service and the audio path share at run time: controls,
// meter, status.

#include <algorithm>
#include <iostream>

#include "brisola/runtime/control_store.hpp"
#include "brisola/runtime/heartbeat.hpp"
#include "brisola/runtime/meter_store.hpp"
#include "brisolactl/ctl.hpp"

namespace brisola::ctl {

namespace {

struct MeterOptions {
  std::string owner;
  std::string device;
  std::string side = "output";
  bool watch = false;
  // The empty owner is an owner like any other: "given" is told by the option, not the text.
  const CLI::Option* ownerOption = nullptr;
  const CLI::Option* deviceOption = nullptr;
  // The device's UID and name when --device names one of the document's devices.
  std::string uid;
  std::string title;

  // --device is a UID, or names a device of the document by id or name; a document that
  // cannot be read leaves it a UID.
  void resolveDevice(const Context& context) {
    uid = title = device;
    ConfigSnapshot snapshot;
    try {
      snapshot = context.loadDocument();
    } catch (const std::exception&) {
      return;
    }
    const auto& devices = snapshot.devices;
    auto it = std::find_if(devices.begin(), devices.end(),
                           [&](const DeviceConfig& d) { return d.uid == device; });
    if (it == devices.end()) {
      const std::string id = Naming::device(device, snapshot);
      it = std::find_if(devices.begin(), devices.end(),
                        [&](const DeviceConfig& d) { return d.id == id; });
    }
    if (it != devices.end()) {
      uid = it->uid;
      title = it->name;
    }
  }

  std::string ownerID() const {
    if (ownerOption->count() > 0) return owner;
    return side == "source" ? RuntimeMeterStore::sourceOwnerID(uid)
                            : RuntimeMeterStore::outputOwnerID(uid);
  }
};

}  // namespace

void addRuntimeCommands(CLI::App& app, Context& context) {
  app.add_subcommand("controls",
                     "Prints the device controls the service last published for the driver "
                     "plug-in (the runtime control block), in slot order.")
      ->callback([] { print(encodeJSON(RuntimeControlStoreV3::read())); });

  auto meterOptions = std::make_shared<MeterOptions>();
  CLI::App* meter = app.add_subcommand(
      "meter",
      "Prints a level meter's reading (levels and peaks per channel, linear, 1.0 = full "
      "scale). Exit 1 when the meter has no reading. With --watch, shows it live until Ctrl-C; "
      "a meter that stops changing for 0.3 s shows as absent.");
  auto* owner = meter->add_option("--owner", meterOptions->owner, "The meter's owner identifier.");
  auto* device = meter->add_option("--device", meterOptions->device,
                                   "A virtual device's UID, id or name, instead of --owner.");
  meter->add_option("--side", meterOptions->side, "With --device: source or output.")
      ->check(CLI::IsMember({"source", "output"}))
      ->needs(device)
      ->capture_default_str();
  owner->excludes(device);
  meterOptions->ownerOption = owner;
  meterOptions->deviceOption = device;
  meter->add_flag("--watch", meterOptions->watch, "Redraw the meter a few times a second.");
  meter->callback([meterOptions, &context] {
    if (meterOptions->ownerOption->count() == 0 && meterOptions->deviceOption->count() == 0) {
      throw Failure(Exit::usage, "meter needs --owner ID or --device UID");
    }
    if (!meterOptions->device.empty()) meterOptions->resolveDevice(context);
    const std::string ownerID = meterOptions->ownerID();
    if (meterOptions->watch) {
      watchMeter(ownerID, meterOptions->ownerOption->count() > 0 ? ownerID : meterOptions->title);
      return;
    }
    auto reading = RuntimeMeterStore::reading(ownerID);
    if (!reading) throw Failure(Exit::negative, "No meter reading for " + ownerID);
    print(encodeJSON(*reading));
  });

  app.add_subcommand("status",
                     "Tells whether the service is alive: its heartbeat file moved in the last "
                     "10 seconds. Exit 0 when alive, 1 when not.")
      ->callback([&context] {
        const auto status = ServiceHeartbeat::status(ServiceHeartbeat::Clock::now(),
                                                     *FileManager::defaultManager());
        print(encodeJSON(status));
        context.status = status.alive ? Exit::success : Exit::negative;
      });
}

}  // namespace brisola::ctl
