// The editing commands: one per editor operation, plus `source add` and `monitor add`. Each
// loads the document, applies the change in memory, saves through the store (a complete new
// file or nothing) and prints what changed. A refused change saves nothing.

#include <algorithm>
#include <charconv>
#include <functional>
#include <iostream>
#include <memory>

#include "brisola/devices/core_audio_device_registry.hpp"
#include "brisola/editing/config_editor.hpp"
#include "brisola/model/json_coding.hpp"
#include "brisola/platform/uuid.hpp"
#include "brisola/validation/validation.hpp"
#include "brisolactl/ctl.hpp"

namespace brisola::ctl {

namespace {

// Everything the editing commands read from the command line; only one command runs.
struct Arguments {
  std::string device;
  std::string element;  // a source, monitor, wire or nested device
  std::string text;     // a name or an icon
  std::int64_t count = 0;
  std::int64_t channel = 0;
  double number = 0.0;
  double sampleRate = BrisolaCore::engineSampleRate;
  bool enabled = true;
  bool muted = false;
  double gain = 1.0;
  bool flag = false;
  std::string from;
  std::string to;
  // source add / monitor add
  std::string type;
  std::string name;
  std::int64_t channels = 0;
  std::string bundleID;
  std::int32_t pid = 0;
  std::uint64_t processObjectID = 0;
  std::string deviceUID;
  std::string inputBackend;
  bool noWire = false;
  // benchmark prepare
  std::string inputUID, inputName, monitorUID, monitorName;
  std::int64_t inputChannels = 0, monitorChannels = 0, firstChannel = 0;
  // Given, even empty: a blank monitor UID is the editor's to refuse, not a benchmark without one.
  const CLI::Option* monitorOption = nullptr;
};

using Edit = std::function<std::string(ConfigSnapshot&)>;

// A document that does not exist yet is edited from the empty document; one that exists but
// cannot be read is never touched.
void editDocument(const Context& context, const Edit& edit) {
  const ConfigStore store = context.store();
  ConfigSnapshot snapshot;
  try {
    snapshot = store.load();
  } catch (const ConfigStoreError& error) {
    if (error.errorCase() != ConfigStoreError::Case::missingConfig) throw;
    snapshot = ConfigSnapshot::empty();
  }
  const std::string output = edit(snapshot);
  store.save(snapshot);
  print(output);
  // The editor stores what it is given; say so when that leaves the document invalid.
  const auto errors = store.validator().validate(snapshot).errors.size();
  if (errors > 0) {
    std::cerr << "brisolactl: warning: the document now has " << errors
              << " validation error(s); see brisolactl validate\n";
  }
}

CLI::App* command(CLI::App& parent, const std::string& name, const std::string& description,
                  const Context& context, Edit edit) {
  CLI::App* sub = parent.add_subcommand(name, description);
  sub->callback([&context, edit = std::move(edit)] { editDocument(context, edit); });
  return sub;
}

// "kind:owner:channel", as the editor writes endpoints; the owner may contain colons.
WireEndpoint parseEndpoint(const std::string& text) {
  const auto first = text.find(':');
  const auto last = text.rfind(':');
  const auto problem = [&](const std::string& what) {
    return Failure(Exit::usage, "Wire endpoint '" + text + "' " + what +
                                    "; write kind:owner:channel, kind being source, "
                                    "deviceOutput or monitor");
  };
  if (first == std::string::npos || first == last) throw problem("is not kind:owner:channel");
  const auto kind = enumFromName<EndpointKind>(text.substr(0, first));
  if (!kind) throw problem("has an unknown kind");
  const std::string channelText = text.substr(last + 1);
  std::int64_t channel = 0;
  const auto [end, error] =
      std::from_chars(channelText.data(), channelText.data() + channelText.size(), channel);
  if (channelText.empty() || error != std::errc() ||
      end != channelText.data() + channelText.size()) {
    throw problem("has no whole channel number");
  }
  return WireEndpoint{*kind, text.substr(first + 1, last - first - 1), channel};
}

template <class Element>
const Element* findElement(const std::vector<Element>& elements, std::string_view id) {
  auto it = std::find_if(elements.begin(), elements.end(),
                         [&](const Element& element) { return element.id == id; });
  return it == elements.end() ? nullptr : &*it;
}

// The hardware the new source or monitor refers to, when the hardware layer knows it.
std::optional<AudioDeviceInfo> findAudioDevice(bool input, const std::string& uid) {
  const auto inventory = CoreAudioDeviceRegistry::deviceInventory();
  const auto& list = input ? inventory.inputs : inventory.outputs;
  auto it =
      std::find_if(list.begin(), list.end(), [&](const auto& info) { return info.uid == uid; });
  return it == list.end() ? std::nullopt : std::optional(*it);
}

std::optional<ApplicationSourceCandidate> findApplication(const Arguments& a, bool byPID) {
  for (auto& candidate : CoreAudioDeviceRegistry::applicationSourceCandidates()) {
    if (byPID ? candidate.pid == a.pid : candidate.bundleIdentifier == a.bundleID) {
      return candidate;
    }
  }
  return std::nullopt;
}

// Wires channel c of `from` to channel c of `to` for every channel both have.
void wireStraightThrough(std::string_view deviceID, const WireEndpoint& from,
                         std::int64_t fromCount, const WireEndpoint& to, std::int64_t toCount,
                         ConfigSnapshot& in) {
  for (std::int64_t c = 1; c <= std::min(fromCount, toCount); ++c) {
    ConfigEditor::connectWire(deviceID, {from.kind, from.ownerID, c}, {to.kind, to.ownerID, c}, in);
  }
}

SourceConfig addSource(const Arguments& a, ConfigSnapshot& in) {
  const std::size_t index = ConfigEditor::requireDeviceIndex(a.device, in);
  SourceConfig source{.id = makeUUIDString(),
                      .type = *enumFromName<SourceType>(a.type),
                      .name = a.name,
                      .enabled = true,
                      .muted = false,
                      .gain = 1.0,
                      .channelCount = a.channels > 0 ? a.channels : 2};
  auto& metadata = source.metadata;
  if (source.type == SourceType::application) {
    if (a.bundleID.empty() && a.pid == 0) {
      throw Failure(Exit::usage, "An application source needs --pid or --bundle-id");
    }
    if (!a.bundleID.empty()) metadata.bundleIdentifier = a.bundleID;
    if (a.pid != 0) metadata.pid = a.pid;
    if (a.processObjectID != 0) metadata.processObjectID = a.processObjectID;
    if (auto running = findApplication(a, a.pid != 0)) {
      if (!metadata.bundleIdentifier) metadata.bundleIdentifier = running->bundleIdentifier;
      if (!metadata.pid) metadata.pid = running->pid;
      if (!metadata.processObjectID) metadata.processObjectID = running->processObjectID;
      if (source.name.empty()) source.name = running->displayName;
    }
    if (source.name.empty()) {
      source.name = metadata.bundleIdentifier.value_or("Application " + std::to_string(a.pid));
    }
  } else if (source.type == SourceType::system) {
    if (source.name.empty()) source.name = "System Audio";
  } else {
    if (a.deviceUID.empty())
      throw Failure(Exit::usage, "A hardwareInput source needs --device-uid");
    metadata.deviceUID = a.deviceUID;
    if (!a.inputBackend.empty()) metadata.inputBackend = a.inputBackend;
    auto input = findAudioDevice(true, a.deviceUID);
    if (source.name.empty()) source.name = input ? input->name : a.deviceUID;
    if (a.channels <= 0 && input && input->channelCount > 0) {
      source.channelCount = input->channelCount;
    }
  }
  in.devices[index].sources.push_back(source);
  if (!a.noWire) {
    const DeviceConfig& device = in.devices[index];
    wireStraightThrough(a.device, {EndpointKind::source, source.id, 0}, source.channelCount,
                        {EndpointKind::deviceOutput, device.id, 0}, device.channelCount, in);
  }
  return source;
}

MonitorConfig addMonitor(const Arguments& a, ConfigSnapshot& in) {
  const std::size_t index = ConfigEditor::requireDeviceIndex(a.device, in);
  const auto output = findAudioDevice(false, a.deviceUID);
  std::int64_t channels = a.channels;
  if (channels <= 0) channels = output && output->channelCount > 0 ? output->channelCount : 2;
  std::string name = a.name;
  if (name.empty()) name = output ? output->name : a.deviceUID;
  MonitorConfig monitor{.id = makeUUIDString(),
                        .name = std::move(name),
                        .enabled = true,
                        .muted = false,
                        .gain = 1.0,
                        .deviceUID = a.deviceUID,
                        .channelCount = channels};
  in.devices[index].monitors.push_back(monitor);
  if (!a.noWire) {
    const DeviceConfig& device = in.devices[index];
    wireStraightThrough(a.device, {EndpointKind::deviceOutput, device.id, 0}, device.channelCount,
                        {EndpointKind::monitor, monitor.id, 0}, monitor.channelCount, in);
  }
  return monitor;
}

void addDeviceCommands(CLI::App& app, const Context& context, Arguments& a) {
  CLI::App* group = app.add_subcommand("device", "Adds, removes and changes virtual devices.");
  group->require_subcommand(1);

  auto* add = command(
      *group, "add",
      "Appends a new stereo device with a pass-thru source wired straight "
      "through, with fresh identifiers. Prints the device.",
      context, [&a](ConfigSnapshot& in) {
        in.devices.push_back(DeviceConfig::makeDefault(a.text, a.sampleRate, makeUUIDString));
        return encodeJSON(in.devices.back());
      });
  add->add_option("NAME", a.text, "The device's name.")->required();
  add->add_option("--sample-rate", a.sampleRate, "In hertz.")->capture_default_str();

  const auto byID = [&](const std::string& name, const std::string& description, Edit edit) {
    auto* sub = command(*group, name, description, context, std::move(edit));
    sub->add_option("ID", a.device, "The device's id.")->required();
    return sub;
  };
  byID("select", "Makes the device the selected one.",
       [&a](ConfigSnapshot& in) { return encodeJSON(ConfigEditor::selectDevice(a.device, in)); });
  byID("delete", "Removes the device. Prints the whole document.",
       [&a](ConfigSnapshot& in) { return encodeJSON(ConfigEditor::deleteDevice(a.device, in)); });
  byID("enable", "Turns the device on.", [&a](ConfigSnapshot& in) {
    return encodeJSON(ConfigEditor::setDeviceEnabled(a.device, true, in));
  });
  byID("disable", "Turns the device off.", [&a](ConfigSnapshot& in) {
    return encodeJSON(ConfigEditor::setDeviceEnabled(a.device, false, in));
  });
  byID("rename", "Renames the device.",
       [&a](ConfigSnapshot& in) {
         return encodeJSON(ConfigEditor::renameDevice(a.device, a.text, in));
       })
      ->add_option("NAME", a.text, "The new name.")
      ->required();
  byID("channels",
       "Sets the device's channel count; its pass-thru source follows, wired straight through.",
       [&a](ConfigSnapshot& in) {
         return encodeJSON(ConfigEditor::setDeviceChannelCount(a.device, a.count, in));
       })
      ->add_option("N", a.count, "The channel count.")
      ->required();
  byID("volume", "Sets the device's volume (1.0 = unity).",
       [&a](ConfigSnapshot& in) {
         return encodeJSON(ConfigEditor::setDeviceVolume(a.device, a.number, in));
       })
      ->add_option("VOLUME", a.number, "0.0 to 2.0.")
      ->required();
  byID("icon", "Sets the device's icon name.",
       [&a](ConfigSnapshot& in) {
         return encodeJSON(ConfigEditor::setDeviceIcon(a.device, a.text, in));
       })
      ->add_option("ICON", a.text, "The icon's name.")
      ->required();
  auto* gain = byID(
      "channel-gain", "Sets the gain of one of the device's channels.", [&a](ConfigSnapshot& in) {
        return encodeJSON(ConfigEditor::setDeviceChannelGain(a.device, a.channel, a.number, in));
      });
  gain->add_option("CHANNEL", a.channel, "One-based.")->required();
  gain->add_option("GAIN", a.number, "0.0 to 2.0.")->required();
}

// --enabled, --muted and --gain; omitted ones keep the element's current values.
struct ControlOptions {
  CLI::Option* enabled;
  CLI::Option* muted;
  CLI::Option* gain;

  static ControlOptions add(CLI::App* sub, Arguments& a) {
    return {sub->add_option("--enabled", a.enabled, "true or false."),
            sub->add_option("--muted", a.muted, "true or false."),
            sub->add_option("--gain", a.gain, "0.0 to 2.0.")};
  }

  template <class Element>
  void fill(const Element* current, Arguments& a) const {
    if (current == nullptr) return;  // the editor reports the missing element
    if (enabled->count() == 0) a.enabled = current->enabled;
    if (muted->count() == 0) a.muted = current->muted;
    if (gain->count() == 0) a.gain = current->gain;
  }
};

void addSourceCommands(CLI::App& app, const Context& context, Arguments& a) {
  CLI::App* group = app.add_subcommand("source", "Adds and changes a device's sources.");
  group->require_subcommand(1);
  const auto inDevice = [&](CLI::App* sub, const std::string& element) {
    sub->add_option("DEVICE", a.device, "The device's id.")->required();
    if (!element.empty()) sub->add_option(element, a.element, "The source's id.")->required();
    return sub;
  };

  auto options = std::make_shared<ControlOptions>();
  auto* set = inDevice(
      command(*group, "set",
              "Sets a source's enabled, muted and gain controls; omitted ones keep their values.",
              context,
              [&a, options](ConfigSnapshot& in) {
                const auto device = ConfigEditor::requireDevice(a.device, in);
                options->fill(findElement(device.sources, a.element), a);
                return encodeJSON(ConfigEditor::setSourceControls(a.device, a.element, a.enabled,
                                                                  a.muted, a.gain, in));
              }),
      "SOURCE");
  *options = ControlOptions::add(set, a);

  inDevice(command(*group, "mute-when-capturing",
                   "Sets whether the captured application is silenced while captured.", context,
                   [&a](ConfigSnapshot& in) {
                     return encodeJSON(
                         ConfigEditor::setSourceMuteWhenCapturing(a.device, a.element, a.flag, in));
                   }),
           "SOURCE")
      ->add_option("BOOL", a.flag, "true or false.")
      ->required();

  auto* gain =
      inDevice(command(*group, "channel-gain", "Sets the gain of one source channel.", context,
                       [&a](ConfigSnapshot& in) {
                         return encodeJSON(ConfigEditor::setSourceChannelGain(
                             a.device, a.element, a.channel, a.number, in));
                       }),
               "SOURCE");
  gain->add_option("CHANNEL", a.channel, "One-based.")->required();
  gain->add_option("GAIN", a.number, "0.0 to 2.0.")->required();

  inDevice(command(*group, "nest",
                   "Adds another virtual device's output as a source, wired straight through. "
                   "Refused when it would make a device feed itself.",
                   context,
                   [&a](ConfigSnapshot& in) {
                     return encodeJSON(ConfigEditor::addVirtualDeviceSource(a.device, a.element, in,
                                                                            makeUUIDString));
                   }),
           "")
      ->add_option("NESTED-DEVICE", a.element, "The id of the device to take in.")
      ->required();

  auto* add = inDevice(
      command(*group, "add",
              "Adds an enabled, unmuted source at unity gain, wired straight through to the "
              "device's output (unless --no-wire). TYPE is application (needs --pid or "
              "--bundle-id; the rest is filled in from the running application when found), "
              "system (the whole system's sound, named \"System Audio\"), or hardwareInput "
              "(needs --device-uid; name and channel count come from the input device when "
              "found). Other sources: nest. Prints the source.",
              context, [&a](ConfigSnapshot& in) { return encodeJSON(addSource(a, in)); }),
      "");
  add->add_option("TYPE", a.type, "application, system or hardwareInput.")
      ->required()
      ->check(CLI::IsMember({"application", "system", "hardwareInput"}));
  add->add_option("--name", a.name, "Display name.");
  add->add_option("--channels", a.channels, "Channel count (default: the input's, else 2).");
  add->add_option("--bundle-id", a.bundleID, "application: the bundle identifier.");
  add->add_option("--pid", a.pid, "application: the process identifier.");
  add->add_option("--process-object-id", a.processObjectID,
                  "application: the audio process object identifier.");
  add->add_option("--device-uid", a.deviceUID, "hardwareInput: the input device's UID.");
  add->add_option("--input-backend", a.inputBackend, "hardwareInput: the capture back end.");
  add->add_flag("--no-wire", a.noWire, "Add no wires.");
}

void addMonitorCommands(CLI::App& app, const Context& context, Arguments& a) {
  CLI::App* group = app.add_subcommand("monitor", "Adds and changes a device's monitors.");
  group->require_subcommand(1);

  auto options = std::make_shared<ControlOptions>();
  auto* set = command(
      *group, "set", "Sets a monitor's enabled, muted and gain controls; omitted ones keep theirs.",
      context, [&a, options](ConfigSnapshot& in) {
        const auto device = ConfigEditor::requireDevice(a.device, in);
        options->fill(findElement(device.monitors, a.element), a);
        return encodeJSON(
            ConfigEditor::setMonitorControls(a.device, a.element, a.enabled, a.muted, a.gain, in));
      });
  set->add_option("DEVICE", a.device, "The device's id.")->required();
  set->add_option("MONITOR", a.element, "The monitor's id.")->required();
  *options = ControlOptions::add(set, a);

  auto* gain = command(*group, "channel-gain", "Sets the gain of one monitor channel.", context,
                       [&a](ConfigSnapshot& in) {
                         return encodeJSON(ConfigEditor::setMonitorChannelGain(
                             a.device, a.element, a.channel, a.number, in));
                       });
  gain->add_option("DEVICE", a.device, "The device's id.")->required();
  gain->add_option("MONITOR", a.element, "The monitor's id.")->required();
  gain->add_option("CHANNEL", a.channel, "One-based.")->required();
  gain->add_option("GAIN", a.number, "0.0 to 2.0.")->required();

  auto* add = command(
      *group, "add",
      "Adds an enabled, unmuted monitor at unity gain playing the device on an output device, "
      "channel for channel (unless --no-wire). Name and channel count come from the output "
      "device when found. Prints the monitor.",
      context, [&a](ConfigSnapshot& in) { return encodeJSON(addMonitor(a, in)); });
  add->add_option("DEVICE", a.device, "The device's id.")->required();
  add->add_option("OUTPUT-UID", a.deviceUID, "The output device's UID.")->required();
  add->add_option("--name", a.name, "Display name (default: the output device's).");
  add->add_option("--channels", a.channels, "Channel count (default: the output's, else 2).");
  add->add_flag("--no-wire", a.noWire, "Add no wires.");
}

void addWireCommands(CLI::App& app, const Context& context, Arguments& a) {
  CLI::App* group = app.add_subcommand("wire", "Connects and removes a device's wires.");
  group->require_subcommand(1);
  auto* connect = command(
      *group, "connect",
      "Connects a source to the device's output or the output to a monitor. Endpoints are "
      "written kind:owner:channel, for example source:s1:1, deviceOutput:dev:1, monitor:m1:2. "
      "An existing wire between the same endpoints is printed and nothing changes.",
      context, [&a](ConfigSnapshot& in) {
        return encodeJSON(
            ConfigEditor::connectWire(a.device, parseEndpoint(a.from), parseEndpoint(a.to), in));
      });
  connect->add_option("DEVICE", a.device, "The device's id.")->required();
  connect->add_option("FROM", a.from, "kind:owner:channel")->required();
  connect->add_option("TO", a.to, "kind:owner:channel")->required();

  auto* remove = command(*group, "delete", "Removes a wire. Prints the device.", context,
                         [&a](ConfigSnapshot& in) {
                           return encodeJSON(ConfigEditor::deleteWire(a.device, a.element, in));
                         });
  remove->add_option("DEVICE", a.device, "The device's id.")->required();
  remove->add_option("WIRE", a.element, "The wire's id.")->required();
}

void addBenchmarkCommands(CLI::App& app, const Context& context, Arguments& a) {
  CLI::App* group =
      app.add_subcommand("benchmark", "Prepares the hardware-input benchmark device.");
  group->require_subcommand(1);
  auto* prepare = command(
      *group, "prepare",
      "Replaces any earlier benchmark device with one fed by two adjacent channels of a "
      "hardware input (and, with the --monitor options, played on an output), appends it and "
      "selects it. Prints the device.",
      context, [&a](ConfigSnapshot& in) {
        if (a.monitorOption->count() == 0) {
          if (!a.inputBackend.empty()) {
            throw Failure(Exit::usage, "--input-backend needs the --monitor options");
          }
          return encodeJSON(ConfigEditor::prepareHardwareInputBenchmarkDevice(
              a.inputUID, a.inputName, a.inputChannels, a.firstChannel, in));
        }
        return encodeJSON(ConfigEditor::prepareHardwareInputMonitorBenchmarkDevice(
            a.inputUID, a.inputName, a.inputChannels, a.monitorUID, a.monitorName,
            a.monitorChannels, a.firstChannel,
            a.inputBackend.empty() ? std::nullopt : std::optional(a.inputBackend), in));
      });
  prepare->add_option("--input-uid", a.inputUID, "The input device's UID.")->required();
  prepare->add_option("--input-name", a.inputName, "The input device's name.")->required();
  prepare->add_option("--input-channels", a.inputChannels, "The input's channel count.")
      ->required();
  prepare->add_option("--first-channel", a.firstChannel, "The first of the two input channels.")
      ->required();
  auto* uid = prepare->add_option("--monitor-uid", a.monitorUID, "The output device's UID.");
  a.monitorOption = uid;
  auto* name = prepare->add_option("--monitor-name", a.monitorName, "The output's name.");
  auto* channels =
      prepare->add_option("--monitor-channels", a.monitorChannels, "The output's channel count.");
  uid->needs(name)->needs(channels);
  name->needs(uid);
  channels->needs(uid);
  prepare->add_option("--input-backend", a.inputBackend, "The capture back end (with a monitor).");
}

}  // namespace

void addEditCommands(CLI::App& app, Context& context) {
  // Parsed into while the program runs; one process runs one command.
  static Arguments arguments;
  addDeviceCommands(app, context, arguments);
  addSourceCommands(app, context, arguments);
  addMonitorCommands(app, context, arguments);
  addWireCommands(app, context, arguments);
  addBenchmarkCommands(app, context, arguments);
}

}  // namespace brisola::ctl
