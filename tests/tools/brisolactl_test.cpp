// brisolactl as its users run it: a separate process on a temporary document and simulated
// hardware. Expected outputs come from the library itself, so the tests catch a command that
// calls the wrong operation, parses an argument wrongly, or saves when it must not.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>

#include <algorithm>
#include <cmath>
#include <functional>

#include "brisola/devices/core_audio_device_registry.hpp"
#include "brisola/editing/config_editor.hpp"
#include "brisola/ipc/exchange_records.hpp"
#include "brisola/store/config_store.hpp"
#include "brisola/store/document_lock.hpp"
#include "support/documents.hpp"
#include "tools/ctl_fixture.hpp"

namespace brisola::testing {
namespace {

using Edit = std::function<std::string(ConfigSnapshot&)>;
namespace Editor = ConfigEditor;

// The rich document, its monitor on the simulated speakers.
ConfigSnapshot editableDocument() {
  ConfigSnapshot snapshot = richSnapshot();
  snapshot.devices[0].monitors[0].deviceUID = "Speakers";
  return snapshot;
}

TEST_F(CtlTest, QueriesPrintWhatTheLibraryReturnsAndNeverWrite) {
  ConfigSnapshot older = richSnapshot();
  older.schemaVersion = 1;
  writeDocument(older);
  const std::string bytes = readFile(document());
  const ConfigSnapshot upgraded = ConfigMigration::migrate(older);
  const auto layer = HardwareBackend::simulated(hardware())->snapshot();
  // The simulated hardware is not empty, so equal lists mean real answers.
  ASSERT_FALSE(CoreAudioDeviceRegistry::applicationSourceCandidates(*layer).empty());
  const ValidationResult validation = ConfigValidator{}.validate(upgraded);
  ASSERT_TRUE(validation.isValid());
  const std::vector<std::pair<std::string, std::string>> rows{
      {"--version", "brisolactl 0.1.0"},
      {"show", encodeJSON(upgraded)},
      {"validate", encodeJSON(validation)},
      {"devices", encodeJSON(CoreAudioDeviceRegistry::deviceInventory(*layer))},
      {"product-devices", encodeJSON(CoreAudioDeviceRegistry::brisolaDeviceSummaries(*layer))},
      {"apps", encodeJSON(CoreAudioDeviceRegistry::applicationSourceCandidates(*layer))},
      {"health", encodeJSON(HealthReport{.agentVersion = "0.1.0",
                                         .minimumSupportedOS = "14.4.0",
                                         .configURL = document().string(),
                                         .deviceCount = 2,
                                         .validation = validation,
                                         .audioCapturePermission = PermissionStatus::unknown,
                                         .microphonePermission = PermissionStatus::unknown,
                                         .halDriverLoaded = true})},
  };
  for (const auto& [command, expected] : rows) {
    SCOPED_TRACE(command);
    const auto result = run({command});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, expected + "\n");
    EXPECT_EQ(result.err, "");
  }
  EXPECT_EQ(readFile(document()), bytes) << "the upgrade was written back";
}

// A valid document's answer is among the queries above. An invalid one is an answer too (no);
// what cannot be read (the document, the simulated hardware, the audio server) is an error
// naming it, never an empty answer.
TEST_F(CtlTest, InvalidIsAnAnswerButWhatCannotBeReadIsAnError) {
  ConfigSnapshot invalid = editableDocument();
  invalid.devices[0].volume = 5.0;
  writeDocument(invalid);
  auto result = run({"validate"});
  EXPECT_EQ(result.status, 1);
  EXPECT_FALSE(decodeJSON<ValidationResult>(result.out).isValid());

  const auto fails = [&](const std::string& command, const std::string& named) {
    SCOPED_TRACE(command + " naming " + named);
    result = run({command});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err.find(named), std::string::npos) << result.err;
  };
  writeFile(document(), "[]");
  fails("validate", "Invalid JSON");
  std::filesystem::remove(document());
  const std::string missing = ConfigStoreError::missingConfig(document()).what();
  fails("validate", missing);
  EXPECT_EQ(result.err, "brisolactl: " + missing + "\n");
  EXPECT_FALSE(std::filesystem::exists(document())) << "a query created the document";
  for (const std::string content : {"", "{\"devices\": [{\"objectID\": \"x\"}]}"}) {
    content.empty() ? (void)std::filesystem::remove(hardware()) : writeFile(hardware(), content);
    for (const std::string command : {"devices", "product-devices", "apps"}) {
      fails(command, hardware().string());
    }
  }
  environment_["BRISOLA_HARDWARE_SIMULATION"] = "";
  environment_["PIPEWIRE_RUNTIME_DIR"] = hardware().string();
  fails("devices", hardware().string() + "/pipewire-0");
}

// One row per kind of argument: text kept as given, integer and real, Boolean words, omitted
// options keeping the element's values, endpoints, named options.
TEST_F(CtlTest, EditsParseEachKindOfArgumentAndSaveWhatTheEditorMakes) {
  const std::vector<std::pair<std::vector<std::string>, Edit>> rows{
      {{"device", "rename", "nest", " Renamed "},
       [](auto& in) { return encodeJSON(Editor::renameDevice("nest", " Renamed ", in)); }},
      {{"device", "channel-gain", "nest", "2", "1.5"},
       [](auto& in) { return encodeJSON(Editor::setDeviceChannelGain("nest", 2, 1.5, in)); }},
      // Omitted controls keep their values: "app" is muted at gain 1.25.
      {{"source", "set", "studio", "app", "--enabled", "false"},
       [](auto& in) {
         return encodeJSON(Editor::setSourceControls("studio", "app", false, true, 1.25, in));
       }},
      // Names, case-insensitive names and id prefixes; relative levels and toggles.
      {{"device", "volume", "NESTED", "-3dB"},
       [](auto& in) {
         return encodeJSON(Editor::setDeviceVolume("nest", std::pow(10.0, -3.0 / 20.0), in));
       }},
      {{"device", "volume", "stu", "+10%"},
       [](auto& in) { return encodeJSON(Editor::setDeviceVolume("studio", 0.75 + 0.1, in)); }},
      {{"source", "set", "studio", "Sketchpad — ünïcødé", "--muted", "toggle", "--gain", "50%"},
       [](auto& in) {
         return encodeJSON(Editor::setSourceControls("studio", "app", true, false, 0.5, in));
       }},
      // An existing wire is printed and nothing is added.
      {{"wire", "connect", "studio", "deviceOutput:studio:1", "monitor:spk:1"},
       [](auto& in) {
         return encodeJSON(Editor::connectWire("studio", {EndpointKind::deviceOutput, "studio", 1},
                                               {EndpointKind::monitor, "spk", 1}, in));
       }},
      {{"benchmark", "prepare", "--input-uid", "StudioMic", "--input-name", "Studio Mic",
        "--input-channels", "4", "--first-channel", "3", "--monitor-uid", "Speakers",
        "--monitor-name", "Desk Speakers", "--monitor-channels", "2", "--input-backend", "hal"},
       [](auto& in) {
         return encodeJSON(Editor::prepareHardwareInputMonitorBenchmarkDevice(
             "StudioMic", "Studio Mic", 4, "Speakers", "Desk Speakers", 2, 3, "hal", in));
       }},
  };
  for (const auto& [arguments, edit] : rows) {
    SCOPED_TRACE(arguments[0] + " " + arguments[1]);
    writeDocument(editableDocument());
    ConfigSnapshot expected = editableDocument();
    const std::string output = edit(expected);
    const auto result = run(arguments);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, output + "\n");
    EXPECT_EQ(readDocument(), expected);
  }
}

// Each addition is what the editor makes of what the simulated hardware knows, with the
// identifiers the command saved: a device's own, then each element's and its wires', in order.
TEST_F(CtlTest, AddedElementsTakeFreshUUIDsAndWhatTheHardwareKnows) {
  writeDocument(editableDocument());
  const auto layer = HardwareBackend::simulated(hardware())->snapshot();
  const auto inventory = CoreAudioDeviceRegistry::deviceInventory(*layer);
  const auto running = CoreAudioDeviceRegistry::applicationSourceCandidates(*layer);
  using Add = std::function<std::string(ConfigSnapshot&, const IdFactory&)>;
  const auto addSource = [](std::string device, Editor::NewSource source, bool wired) -> Add {
    return [=](auto& in, auto& factory) {
      return encodeJSON(Editor::addSource(device, source, wired, in, factory));
    };
  };
  const std::vector<std::pair<std::vector<std::string>, Add>> rows{
      {{"device", "add", "Podcast", "--sample-rate", "44100"},
       [](auto& in, auto& factory) {
         in.devices.push_back(DeviceConfig::makeDefault("Podcast", 44100, factory));
         return encodeJSON(in.devices.back());
       }},
      {{"source", "add", "studio", "hardwareInput", "--device-uid", "StudioMic", "--input-backend",
        "hal"},
       addSource("studio",
                 {.type = SourceType::hardwareInput,
                  .metadata = {.deviceUID = "StudioMic", .inputBackend = "hal"},
                  .input = inventory.inputs.at(0)},
                 true)},
      {{"source", "add", "nest", "application", "--pid", "4242", "--no-wire"},
       addSource("nest",
                 {.type = SourceType::application,
                  .metadata = {.pid = 4242},
                  .application = running.at(0)},
                 false)},
      {{"monitor", "add", "nest", "Speakers"},
       [&](auto& in, auto& factory) {
         return encodeJSON(Editor::addMonitor(
             "nest", {.deviceUID = "Speakers", .output = inventory.outputs.at(0)}, true, in,
             factory));
       }},
      {{"source", "nest", "podcast", "studio"},
       [](auto& in, auto& factory) {
         return encodeJSON(
             Editor::addVirtualDeviceSource(in.devices.back().id, "studio", in, factory));
       }},
  };
  for (const auto& [arguments, add] : rows) {
    SCOPED_TRACE(arguments[0] + " " + arguments[1] + " " + arguments[2]);
    ConfigSnapshot expected = readDocument();
    const auto result = run(arguments);
    ASSERT_EQ(result.status, 0) << result.err;
    const ConfigSnapshot after = readDocument();
    std::vector<std::string> ids;
    const auto appended = [&](const auto& old, const auto& now) {
      for (auto i = old.size(); i < now.size(); ++i) ids.push_back(now[i].id);
    };
    for (std::size_t d = 0; d < after.devices.size(); ++d) {
      const bool added = d >= expected.devices.size();
      const DeviceConfig old = added ? DeviceConfig{} : expected.devices[d];
      if (added) ids.push_back(after.devices[d].id);
      appended(old.sources, after.devices[d].sources);
      appended(old.monitors, after.devices[d].monitors);
      appended(old.wires, after.devices[d].wires);
    }
    for (const auto& id : ids) EXPECT_TRUE(id.size() == 36 && id[8] == '-') << id;
    std::size_t next = 0;
    EXPECT_EQ(result.out, add(expected, [&] { return ids.at(next++); }) + "\n");
    EXPECT_EQ(after, expected);
  }
}

TEST_F(CtlTest, RefusedEditsAndWrongCommandLinesLeaveTheFileByteForByte) {
  writeDocument(editableDocument());
  const std::string bytes = readFile(document());
  const auto said = [](const ConfigEditError& error) {
    return "brisolactl: " + std::string(error.what()) + "\n";
  };
  const std::string invalid =
      "brisolactl: the change would add 1 validation error(s); nothing "
      "was saved (--force saves it anyway):\n  devices[0].";
  // The start of standard error: refused edits exit 1, wrong command lines 64.
  const std::vector<std::tuple<std::vector<std::string>, int, std::string>> rows{
      {{"device", "volume", "studio", "5"}, 1, invalid + "volume: "},
      {{"source", "set", "studio", "app", "--gain", "3"}, 1, invalid + "sources[1].gain: "},
      {{"source", "set", "studio", "ghost", "--muted", "true"},
       1,
       said(ConfigEditError::sourceNotFound("ghost"))},
      // A blank monitor UID is given, so it is the editor's to refuse.
      {{"benchmark", "prepare", "--input-uid", "StudioMic", "--input-name", "Studio Mic",
        "--input-channels", "4", "--first-channel", "3", "--monitor-uid", "", "--monitor-name",
        "Desk Speakers", "--monitor-channels", "2"},
       1,
       said(ConfigEditError::invalidBenchmarkInput("monitor UID must not be empty"))},
      {{"wire", "connect", "studio", "source:mic", "deviceOutput:studio:1"},
       64,
       "brisolactl: Wire endpoint 'source:mic'"},
      {{"device", "volume", "studio", "loud"}, 64, "brisolactl: 'loud' is not a level"},
      {{"source", "set", "studio", "app", "--muted", "maybe"}, 64, "brisolactl: --muted takes"},
      {{"source", "delete", "studio", "s"}, 64, "brisolactl: 's' could be any of 2 sources"},
      {{"--config", "x.json", "device", "ad", "X"},
       64,
       "brisolactl: unknown command 'ad'; did you mean 'add'?\n"},
      {{"source", "add", "studio", "application"}, 64, "brisolactl: An application source needs"},
      {{}, 64, "A subcommand is required"},
  };
  for (const auto& [arguments, status, error] : rows) {
    SCOPED_TRACE(::testing::PrintToString(arguments));
    const auto result = run(arguments);
    EXPECT_EQ(result.status, status);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err.substr(0, error.size()), error);
    EXPECT_EQ(readFile(document()), bytes);
  }
  // --force saves what the editor made; errors already there never block a later edit.
  auto result = run({"device", "volume", "studio", "5", "--force"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(readDocument().devices[0].volume, 5.0);
  result = run({"device", "rename", "studio", "Loud"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(readDocument().devices[0].name, "Loud");
}

TEST_F(CtlTest, ConcurrentEditsAreAllKeptAndALockHeldTooLongIsAnError) {
  writeDocument(ConfigSnapshot::empty());
  std::vector<std::unique_ptr<RunningProcess>> edits;
  std::vector<std::string> names;
  for (int i = 0; i < 10; ++i) {
    names.push_back("Device " + std::to_string(i));
    edits.push_back(std::make_unique<RunningProcess>(
        program(), std::vector<std::string>{"device", "add", names.back()}, environment_,
        directory_.path(), directory_.path()));
  }
  for (auto& edit : edits)
    EXPECT_EQ(edit->waitFor(std::chrono::seconds(30)), 0) << edit->standardError();
  std::vector<std::string> kept;
  for (const auto& device : readDocument().devices) kept.push_back(device.name);
  std::sort(kept.begin(), kept.end());
  EXPECT_EQ(kept, names);

  const std::string bytes = readFile(document());
  const auto lockURL = DocumentLock::lockURL(document());
  UniqueFd holder(::open(lockURL.c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(::flock(holder.get(), LOCK_EX), 0);
  const auto result = run({"device", "add", "Late"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(
      result.err,
      "brisolactl: " +
          std::string(DocumentLockError::timedOut(lockURL, DocumentLock::defaultWait).what()) +
          "\n");
  EXPECT_EQ(readFile(document()), bytes);
}

TEST_F(CtlTest, ListsAreAlignedTablesOnATerminalAndJSONArraysOtherwise) {
  const ConfigSnapshot snapshot = editableDocument();
  writeDocument(snapshot);
  EXPECT_EQ(run({"source", "list", "studio"}).out, encodeJSON(snapshot.devices[0].sources) + "\n");

  // On a terminal (script(1) gives one): columns line up, counted in characters.
  const auto onTerminal = [&](const std::string& command) {
    auto result = runToCompletion("/usr/bin/script",
                                  {"-qec", program().string() + " " + command, "/dev/null"},
                                  environment_, directory_.path());
    std::erase(result.out, '\r');
    return result.out;
  };
  EXPECT_EQ(onTerminal("wire list nest"),
            "ID       FROM              TO\n"
            "nest-w1  source:nest-pt:1  deviceOutput:nest:1\n"
            "nest-w2  source:nest-pt:2  deviceOutput:nest:2\n");
  EXPECT_EQ(onTerminal("wire list nest --json"), encodeJSON(snapshot.devices[1].wires) + "\n");
  const std::string table = onTerminal("source list studio --config " + document().string());
  EXPECT_NE(table.find("app        Sketchpad — ünïcødé  application    yes      yes    1.25   2\n"),
            std::string::npos)
      << table;
}

TEST_F(CtlTest, DocumentsThatCannotBeLoadedAreNeverOverwrittenButMissingOnesAreStarted) {
  writeFile(document(), "{ not json");
  auto result = run({"device", "add", "X"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err.rfind("brisolactl: ", 0), 0u) << result.err;
  EXPECT_EQ(readFile(document()), "{ not json");

  // --config wins over the environment; a missing document starts empty.
  const auto other = directory_ / "sub" / "new.json";
  result = run({"device", "add", "First", "--config", other.string()});
  ASSERT_EQ(result.status, 0) << result.err;
  const auto created = decodeJSON<ConfigSnapshot>(readFile(other));
  ASSERT_EQ(created.devices.size(), 1u);
  EXPECT_EQ(created.devices[0].name, "First");
  EXPECT_EQ(readFile(document()), "{ not json");

  // A file-size limit below the document's size: the save fails and leaves nothing behind.
  std::filesystem::remove(document());
  result = runToCompletion("/usr/bin/prlimit",
                           {"--fsize=400", program().string(), "device", "add", "Big"},
                           environment_, directory_.path());
  EXPECT_EQ(result.status, 2);
  EXPECT_NE(result.err.find("File too large"), std::string::npos) << result.err;
  EXPECT_FALSE(std::filesystem::exists(document()));
  for (const auto& entry : std::filesystem::directory_iterator(directory_.path())) {
    EXPECT_NE(entry.path().extension(), ".tmp") << entry.path();
  }
}

TEST_F(CtlTest, GraphDrawsDevicesWiresAndNesting) {
  // A valid document that nests has nothing missing.
  writeDocument(editableDocument());
  EXPECT_EQ(run({"graph"}).out.find("missing"), std::string::npos);

  ConfigSnapshot snapshot = editableDocument();
  snapshot.devices[0].name = "Studio \"A\"";
  snapshot.devices[1].wires.push_back(
      wire("dangling", sourceEnd("ghost", 1), outputEnd(snapshot.devices[1].id, 1)));
  snapshot.devices[0].wires.push_back(wire("cross", sourceEnd("mic", 1), outputEnd("studio", 2)));
  writeDocument(snapshot);
  const auto result = run({"graph"});
  ASSERT_EQ(result.status, 0) << result.err;
  const auto& dot = result.out;
  EXPECT_EQ(dot.rfind("digraph brisola {", 0), 0u);
  for (const char* part : {
           "label=\"Studio \\\"A\\\"\";",
           // studio-pt to the output on both channels, merged into one edge.
           "\"d0.source0\" -> \"d0.output\" [label=\"1→1, 2→2\"];",
           "\"d0.output\" -> \"d0.monitor0\" [label=\"1→1\"];",
           // "mic" is source 3; its channel 1 plays on output channel 2.
           "\"d0.source3\" -> \"d0.output\" [label=\"1→2\"];",
           // "feed" (source 1 of "nest") takes studio's output.
           "\"d0.output\" -> \"d1.source1\" [style=dashed",
           "\"missing.source.ghost\" [color=red",
           "\"missing.source.ghost\" -> \"d1.output\"",
       }) {
    EXPECT_NE(dot.find(part), std::string::npos) << part << "\n" << dot;
  }
  EXPECT_EQ(dot.substr(dot.size() - 2), "}\n");
}

}  // namespace
}  // namespace brisola::testing
