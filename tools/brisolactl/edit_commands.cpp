// The editing commands: one per editor operation, `source add` and `monitor add` with what
// the hardware layer knows of their devices. Each loads the document, applies the change in
// memory, saves through the store (a complete new file or nothing) and prints what changed. A
// refused change saves nothing.

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <functional>
#include <iostream>
#include <memory>

#include "brisola/devices/core_audio_device_registry.hpp"
#include "brisola/editing/config_editor.hpp"
#include "brisola/model/json_coding.hpp"
#include "brisola/platform/uuid.hpp"
#include "brisola/store/document_lock.hpp"
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
  std::string enabledText, mutedText, gainText, levelText;
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
  // What `element` names, set when the command is recognised.
  enum class Names { other, source, monitor, device } elementNames = Names::other;
  // benchmark prepare
  std::string inputUID, inputName, monitorUID, monitorName;
  std::int64_t inputChannels = 0, monitorChannels = 0, firstChannel = 0;
  // Given, even empty: a blank monitor UID is the editor's to refuse, not a benchmark without one.
  const CLI::Option* monitorOption = nullptr;
};

using Edit = std::function<std::string(ConfigSnapshot&)>;

// Parsed into while the program runs; one process runs one command.
Arguments& arguments() {
  static Arguments parsed;
  return parsed;
}

// The device and element as the editor knows them: by id.
void resolveNames(Arguments& a, const ConfigSnapshot& in) {
  if (a.device.empty()) return;
  a.device = Naming::device(a.device, in);
  const auto device = std::find_if(in.devices.begin(), in.devices.end(),
                                   [&](const DeviceConfig& d) { return d.id == a.device; });
  switch (a.elementNames) {
    case Arguments::Names::source:
      if (device != in.devices.end()) a.element = Naming::source(a.element, *device);
      break;
    case Arguments::Names::monitor:
      if (device != in.devices.end()) a.element = Naming::monitor(a.element, *device);
      break;
    case Arguments::Names::device:
      a.element = Naming::device(a.element, in);
      break;
    case Arguments::Names::other:
      break;
  }
}

// Declares what the command's element argument names.
CLI::App* naming(CLI::App* sub, Arguments::Names names) {
  sub->preparse_callback([names](std::size_t) { arguments().elementNames = names; });
  return sub;
}

// The errors of `after` that `before` did not have. Paths hold indices that a deletion
// shifts, so an error only counts as old when `before` has one of the same code and message.
std::vector<ValidationIssue> addedErrors(const ValidationResult& before,
                                         const ValidationResult& after) {
  std::vector<ValidationIssue> pool = before.errors;
  std::vector<ValidationIssue> added;
  const auto take = [&pool](const auto& matches) {
    auto it = std::find_if(pool.begin(), pool.end(), matches);
    if (it == pool.end()) return false;
    pool.erase(it);
    return true;
  };
  std::vector<const ValidationIssue*> unmatched;
  for (const auto& issue : after.errors) {
    if (!take([&](const ValidationIssue& old) { return old == issue; })) {
      unmatched.push_back(&issue);
    }
  }
  for (const ValidationIssue* issue : unmatched) {
    if (!take([&](const ValidationIssue& old) {
          return old.code == issue->code && old.message == issue->message;
        })) {
      added.push_back(*issue);
    }
  }
  return added;
}

// A document that does not exist yet is edited from the empty document; one that exists but
// cannot be read is never touched.
void editDocument(const Context& context, const Edit& edit) {
  const ConfigStore store = context.store();
  // Held from the read to the rename, so concurrent edits apply one after the other.
  const DocumentLock lock(store.url());
  ConfigSnapshot snapshot;
  try {
    snapshot = store.load();
  } catch (const ConfigStoreError& error) {
    if (error.errorCase() != ConfigStoreError::Case::missingConfig) throw;
    snapshot = ConfigSnapshot::empty();
  }
  const ValidationResult before = store.validator().validate(snapshot);
  const std::string output = edit(snapshot);
  const ValidationResult after = store.validator().validate(snapshot);
  const auto added = addedErrors(before, after);
  if (!added.empty() && !context.force) {
    std::string message = "the change would add " + std::to_string(added.size()) +
                          " validation error(s); nothing was saved (--force saves it anyway):";
    for (const auto& issue : added) message += "\n  " + issue.path + ": " + issue.message;
    throw Failure(Exit::negative, message);
  }
  store.save(snapshot);
  print(output);
  if (!after.isValid()) {
    std::cerr << "brisolactl: warning: the document now has " << after.errors.size()
              << " validation error(s); see brisolactl validate\n";
  }
}

CLI::App* command(CLI::App& parent, const std::string& name, const std::string& description,
                  const Context& context, Edit edit) {
  CLI::App* sub = parent.add_subcommand(name, description);
  sub->callback([&context, edit = std::move(edit)] {
    editDocument(context, [&edit](ConfigSnapshot& in) {
      resolveNames(arguments(), in);
      return edit(in);
    });
  });
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

// The hardware is looked up, and the options checked, only for a device that exists.
SourceConfig addSource(const Arguments& a, ConfigSnapshot& in) {
  ConfigEditor::requireDeviceIndex(a.device, in);
  ConfigEditor::NewSource source{
      .type = *enumFromName<SourceType>(a.type), .name = a.name, .channelCount = a.channels};
  auto& metadata = source.metadata;
  if (source.type == SourceType::application) {
    if (a.bundleID.empty() && a.pid == 0) {
      throw Failure(Exit::usage, "An application source needs --pid or --bundle-id");
    }
    if (!a.bundleID.empty()) metadata.bundleIdentifier = a.bundleID;
    if (a.pid != 0) metadata.pid = a.pid;
    if (a.processObjectID != 0) metadata.processObjectID = a.processObjectID;
    source.application = findApplication(a, a.pid != 0);
  } else if (source.type == SourceType::hardwareInput) {
    if (a.deviceUID.empty())
      throw Failure(Exit::usage, "A hardwareInput source needs --device-uid");
    metadata.deviceUID = a.deviceUID;
    if (!a.inputBackend.empty()) metadata.inputBackend = a.inputBackend;
    source.input = findAudioDevice(true, a.deviceUID);
  }
  return ConfigEditor::addSource(a.device, source, !a.noWire, in, makeUUIDString);
}

MonitorConfig addMonitor(const Arguments& a, ConfigSnapshot& in) {
  ConfigEditor::requireDeviceIndex(a.device, in);
  return ConfigEditor::addMonitor(a.device,
                                  {.deviceUID = a.deviceUID,
                                   .name = a.name,
                                   .channelCount = a.channels,
                                   .output = findAudioDevice(false, a.deviceUID)},
                                  !a.noWire, in, makeUUIDString);
}

// A level as people write it: "0.8" or "80%" set it; "+10%" and "-10%" add or take ten
// hundredths (unity being 100%); "+3dB" and "-3dB" scale it, "0dB" sets it. Not clamped: a
// result out of range is the validator's to refuse.
double adjustedLevel(const std::string& text, double current) {
  std::string_view rest = text;
  const bool relative = !rest.empty() && (rest.front() == '+' || rest.front() == '-');
  const double sign = relative && rest.front() == '-' ? -1.0 : 1.0;
  if (relative) rest.remove_prefix(1);
  enum class Unit { plain, percent, decibel } unit = Unit::plain;
  if (rest.ends_with('%')) {
    unit = Unit::percent;
    rest.remove_suffix(1);
  } else if (rest.size() > 2 && (rest.ends_with("dB") || rest.ends_with("db"))) {
    unit = Unit::decibel;
    rest.remove_suffix(2);
  }
  double value = 0.0;
  const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), value);
  if (rest.empty() || error != std::errc() || end != rest.data() + rest.size() ||
      !std::isfinite(value)) {
    throw Failure(Exit::usage,
                  "'" + text + "' is not a level; write 0.8, 80%, +10%, -10%, +3dB or -3dB");
  }
  value *= sign;
  switch (unit) {
    case Unit::plain:
      return relative ? current + value : value;
    case Unit::percent:
      return relative ? current + value / 100.0 : value / 100.0;
    case Unit::decibel:
      return (relative ? current : 1.0) * std::pow(10.0, value / 20.0);
  }
  return value;
}

// true, false (and their usual spellings), or toggle: the opposite of `current`.
bool adjustedSwitch(const std::string& option, const std::string& text, bool current) {
  std::string word = text;
  std::transform(word.begin(), word.end(), word.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (word == "toggle") return !current;
  if (word == "true" || word == "yes" || word == "on" || word == "1") return true;
  if (word == "false" || word == "no" || word == "off" || word == "0") return false;
  throw Failure(Exit::usage, option + " takes true, false or toggle, not '" + text + "'");
}

void addDeviceCommands(CLI::App& app, const Context& context, Arguments& a) {
  CLI::App* group =
      app.add_subcommand("device", "Adds, lists, changes and removes virtual devices.");
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
    sub->add_option("ID", a.device, "The device: id, name or id prefix.")->required();
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
  byID("volume", "Sets the device's volume (1.0 = unity), or changes it.",
       [&a](ConfigSnapshot& in) {
         const double volume =
             adjustedLevel(a.levelText, ConfigEditor::requireDevice(a.device, in).volume);
         return encodeJSON(ConfigEditor::setDeviceVolume(a.device, volume, in));
       })
      ->add_option("VOLUME", a.levelText,
                   "0.0 to 2.0, or 80%; +10% and -10% add and take ten hundredths, +3dB and "
                   "-3dB scale it.")
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
  static void add(CLI::App* sub, Arguments& a) {
    sub->add_option("--enabled", a.enabledText, "true, false or toggle.");
    sub->add_option("--muted", a.mutedText, "true, false or toggle.");
    sub->add_option("--gain", a.gainText, "0.0 to 2.0; also 50%, +10%, -10%, +3dB, -3dB.");
  }

  template <class Element>
  static void fill(const Element* current, Arguments& a) {
    if (current == nullptr) return;  // the editor reports the missing element
    a.enabled = a.enabledText.empty()
                    ? current->enabled
                    : adjustedSwitch("--enabled", a.enabledText, current->enabled);
    a.muted = a.mutedText.empty() ? current->muted
                                  : adjustedSwitch("--muted", a.mutedText, current->muted);
    a.gain = a.gainText.empty() ? current->gain : adjustedLevel(a.gainText, current->gain);
  }
};

void addSourceCommands(CLI::App& app, const Context& context, Arguments& a) {
  CLI::App* group =
      app.add_subcommand("source", "Adds, lists, changes and removes a device's sources.");
  group->require_subcommand(1);
  const auto inDevice = [&](CLI::App* sub, const std::string& element) {
    sub->add_option("DEVICE", a.device, "The device: id, name or id prefix.")->required();
    if (!element.empty()) {
      sub->add_option(element, a.element, "The source: id, name or id prefix.")->required();
      naming(sub, Arguments::Names::source);
    }
    return sub;
  };

  auto* set = inDevice(
      command(*group, "set",
              "Sets a source's enabled, muted and gain controls; omitted ones keep their values.",
              context,
              [&a](ConfigSnapshot& in) {
                const auto device = ConfigEditor::requireDevice(a.device, in);
                ControlOptions::fill(findElement(device.sources, a.element), a);
                return encodeJSON(ConfigEditor::setSourceControls(a.device, a.element, a.enabled,
                                                                  a.muted, a.gain, in));
              }),
      "SOURCE");
  ControlOptions::add(set, a);

  inDevice(command(*group, "delete", "Removes a source and its wires. Prints the device.", context,
                   [&a](ConfigSnapshot& in) {
                     return encodeJSON(ConfigEditor::deleteSource(a.device, a.element, in));
                   }),
           "SOURCE");

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

  inDevice(
      naming(command(*group, "nest",
                     "Adds another virtual device's output as a source, wired straight through. "
                     "Refused when it would make a device feed itself.",
                     context,
                     [&a](ConfigSnapshot& in) {
                       return encodeJSON(ConfigEditor::addVirtualDeviceSource(a.device, a.element,
                                                                              in, makeUUIDString));
                     }),
             Arguments::Names::device),
      "")
      ->add_option("NESTED-DEVICE", a.element, "The device to take in: id, name or id prefix.")
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
  CLI::App* group =
      app.add_subcommand("monitor", "Adds, lists, changes and removes a device's monitors.");
  group->require_subcommand(1);

  auto* set = command(
      *group, "set", "Sets a monitor's enabled, muted and gain controls; omitted ones keep theirs.",
      context, [&a](ConfigSnapshot& in) {
        const auto device = ConfigEditor::requireDevice(a.device, in);
        ControlOptions::fill(findElement(device.monitors, a.element), a);
        return encodeJSON(
            ConfigEditor::setMonitorControls(a.device, a.element, a.enabled, a.muted, a.gain, in));
      });
  set->add_option("DEVICE", a.device, "The device: id, name or id prefix.")->required();
  set->add_option("MONITOR", a.element, "The monitor: id, name or id prefix.")->required();
  naming(set, Arguments::Names::monitor);
  ControlOptions::add(set, a);

  auto* remove = command(*group, "delete", "Removes a monitor and its wires. Prints the device.",
                         context, [&a](ConfigSnapshot& in) {
                           return encodeJSON(ConfigEditor::deleteMonitor(a.device, a.element, in));
                         });
  remove->add_option("DEVICE", a.device, "The device: id, name or id prefix.")->required();
  remove->add_option("MONITOR", a.element, "The monitor: id, name or id prefix.")->required();
  naming(remove, Arguments::Names::monitor);

  auto* gain = command(*group, "channel-gain", "Sets the gain of one monitor channel.", context,
                       [&a](ConfigSnapshot& in) {
                         return encodeJSON(ConfigEditor::setMonitorChannelGain(
                             a.device, a.element, a.channel, a.number, in));
                       });
  gain->add_option("DEVICE", a.device, "The device: id, name or id prefix.")->required();
  gain->add_option("MONITOR", a.element, "The monitor: id, name or id prefix.")->required();
  naming(gain, Arguments::Names::monitor);
  gain->add_option("CHANNEL", a.channel, "One-based.")->required();
  gain->add_option("GAIN", a.number, "0.0 to 2.0.")->required();

  auto* add = command(
      *group, "add",
      "Adds an enabled, unmuted monitor at unity gain playing the device on an output device, "
      "channel for channel (unless --no-wire). Name and channel count come from the output "
      "device when found. Prints the monitor.",
      context, [&a](ConfigSnapshot& in) { return encodeJSON(addMonitor(a, in)); });
  add->add_option("DEVICE", a.device, "The device: id, name or id prefix.")->required();
  add->add_option("OUTPUT-UID", a.deviceUID, "The output device's UID.")->required();
  add->add_option("--name", a.name, "Display name (default: the output device's).");
  add->add_option("--channels", a.channels, "Channel count (default: the output's, else 2).");
  add->add_flag("--no-wire", a.noWire, "Add no wires.");
}

void addWireCommands(CLI::App& app, const Context& context, Arguments& a) {
  CLI::App* group = app.add_subcommand("wire", "Connects, lists and removes a device's wires.");
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
  connect->add_option("DEVICE", a.device, "The device: id, name or id prefix.")->required();
  connect->add_option("FROM", a.from, "kind:owner:channel")->required();
  connect->add_option("TO", a.to, "kind:owner:channel")->required();

  auto* remove = command(*group, "delete", "Removes a wire. Prints the device.", context,
                         [&a](ConfigSnapshot& in) {
                           return encodeJSON(ConfigEditor::deleteWire(a.device, a.element, in));
                         });
  remove->add_option("DEVICE", a.device, "The device: id, name or id prefix.")->required();
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
  Arguments& a = arguments();
  addDeviceCommands(app, context, a);
  addSourceCommands(app, context, a);
  addMonitorCommands(app, context, a);
  addWireCommands(app, context, a);
  addBenchmarkCommands(app, context, a);
}

}  // namespace brisola::ctl
