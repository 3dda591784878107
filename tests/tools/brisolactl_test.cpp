// brisolactl as its users run it: a separate process on a temporary document and simulated
// hardware. Expected outputs come from the library itself, so the tests catch a command that
// calls the wrong operation, loses an argument, or saves when it must not.

#include <gtest/gtest.h>
#include <signal.h>

#include <functional>

#include "brisola/devices/core_audio_device_registry.hpp"
#include "brisola/editing/config_editor.hpp"
#include "brisola/ipc/exchange_records.hpp"
#include "brisola/store/config_store.hpp"
#include "brisola/validation/validation.hpp"
#include "support/documents.hpp"
#include "tools/ctl_fixture.hpp"

namespace brisola::testing {
namespace {

using Edit = std::function<std::string(ConfigSnapshot&)>;

std::string line(const std::string& json) {
  return json + "\n";
}

// The rich document, with a monitor on the simulated speakers so monitor edits have a target.
ConfigSnapshot editableDocument() {
  ConfigSnapshot snapshot = richSnapshot();
  snapshot.devices[0].monitors[0].deviceUID = "Speakers";
  return snapshot;
}

TEST_F(CtlTest, QueriesPrintWhatTheLibraryReturns) {
  ConfigSnapshot older = richSnapshot();
  older.schemaVersion = 1;
  writeDocument(older);
  const std::string bytes = readFile(document());
  const ConfigSnapshot upgraded = ConfigMigration::migrate(older);
  const auto layer = HardwareBackend::simulated(hardware())->snapshot();

  struct Row {
    std::vector<std::string> arguments;
    std::string expected;
  };
  const ValidationResult validation = ConfigValidator{}.validate(upgraded);
  const std::vector<Row> rows{
      {{"show"}, encodeJSON(upgraded)},
      {{"validate"}, encodeJSON(validation)},
      {{"devices"}, encodeJSON(CoreAudioDeviceRegistry::deviceInventory(*layer))},
      {{"product-devices"}, encodeJSON(CoreAudioDeviceRegistry::brisolaDeviceSummaries(*layer))},
      {{"apps"}, encodeJSON(CoreAudioDeviceRegistry::applicationSourceCandidates(*layer))},
      {{"health"},
       encodeJSON(HealthReport{.agentVersion = "0.1.0",
                               .minimumSupportedOS = "14.4.0",
                               .configURL = document().string(),
                               .deviceCount = 2,
                               .validation = validation,
                               .audioCapturePermission = PermissionStatus::unknown,
                               .microphonePermission = PermissionStatus::unknown,
                               .halDriverLoaded = true})},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.arguments[0]);
    const auto result = run(row.arguments);
    EXPECT_EQ(result.status, row.arguments[0] == "validate" && !validation.isValid() ? 1 : 0);
    EXPECT_EQ(result.out, line(row.expected));
    EXPECT_EQ(result.err, "");
  }
  // The simulated hardware is not empty, so equal lists mean real answers.
  EXPECT_FALSE(CoreAudioDeviceRegistry::applicationSourceCandidates(*layer).empty());
  // Reading never writes the upgrade back.
  EXPECT_EQ(readFile(document()), bytes);
}

TEST_F(CtlTest, ExitStatusTellsValidFromInvalidFromUnreadable) {
  ConfigSnapshot invalid = editableDocument();
  invalid.devices[0].volume = 5.0;
  struct Row {
    std::string name;
    std::function<void()> prepare;
    int status;
    std::string error;
  };
  const auto decodingError = [](const std::string& bytes) {
    try {
      decodeJSON<ConfigSnapshot>(bytes);
    } catch (const DecodingError& error) {
      return "brisolactl: " + std::string(error.what()) + "\n";
    }
    return std::string("decoded");
  };
  const std::vector<Row> rows{
      {"valid", [&] { writeDocument(ConfigSnapshot::empty()); }, 0, ""},
      {"invalid", [&] { writeDocument(invalid); }, 1, ""},
      {"undecodable", [&] { writeFile(document(), R"({"devices": 3})"); }, 2,
       decodingError(R"({"devices": 3})")},
      {"missing", [&] { std::filesystem::remove(document()); }, 2,
       "brisolactl: " + std::string(ConfigStoreError::missingConfig(document()).what()) + "\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    row.prepare();
    const auto result = run({"validate"});
    EXPECT_EQ(result.status, row.status);
    if (row.status == 2) {
      EXPECT_EQ(result.out, "");
      EXPECT_EQ(result.err, row.error);
    } else {
      const auto printed = decodeJSON<ValidationResult>(result.out);
      EXPECT_EQ(printed.isValid(), row.status == 0);
    }
  }
  // A document that cannot be read is not created by a query either.
  EXPECT_FALSE(std::filesystem::exists(document()));
}

TEST_F(CtlTest, EditsChangeTheFileExactlyAsTheEditorDoes) {
  using namespace ConfigEditor;
  struct Row {
    std::vector<std::string> arguments;
    Edit edit;
  };
  const std::vector<Row> rows{
      {{"device", "select", "studio"},
       [](ConfigSnapshot& in) { return encodeJSON(selectDevice("studio", in)); }},
      {{"device", "rename", "nest", " Renamed "},
       [](ConfigSnapshot& in) { return encodeJSON(renameDevice("nest", " Renamed ", in)); }},
      {{"device", "disable", "studio"},
       [](ConfigSnapshot& in) { return encodeJSON(setDeviceEnabled("studio", false, in)); }},
      {{"device", "enable", "nest"},
       [](ConfigSnapshot& in) { return encodeJSON(setDeviceEnabled("nest", true, in)); }},
      {{"device", "volume", "studio", "0.25"},
       [](ConfigSnapshot& in) { return encodeJSON(setDeviceVolume("studio", 0.25, in)); }},
      {{"device", "icon", "studio", "mic"},
       [](ConfigSnapshot& in) { return encodeJSON(setDeviceIcon("studio", "mic", in)); }},
      {{"device", "channel-gain", "nest", "2", "1.5"},
       [](ConfigSnapshot& in) { return encodeJSON(setDeviceChannelGain("nest", 2, 1.5, in)); }},
      {{"device", "delete", "nest"},
       [](ConfigSnapshot& in) { return encodeJSON(deleteDevice("nest", in)); }},
      // Omitted controls keep their values: "app" stays muted at gain 1.25.
      {{"source", "set", "studio", "app", "--enabled", "false"},
       [](ConfigSnapshot& in) {
         return encodeJSON(setSourceControls("studio", "app", false, true, 1.25, in));
       }},
      {{"source", "set", "studio", "sys", "--muted", "yes", "--gain", "0.5"},
       [](ConfigSnapshot& in) {
         return encodeJSON(setSourceControls("studio", "sys", false, true, 0.5, in));
       }},
      {{"source", "mute-when-capturing", "studio", "app", "false"},
       [](ConfigSnapshot& in) {
         return encodeJSON(setSourceMuteWhenCapturing("studio", "app", false, in));
       }},
      {{"source", "channel-gain", "studio", "mic", "1", "0.5"},
       [](ConfigSnapshot& in) {
         return encodeJSON(setSourceChannelGain("studio", "mic", 1, 0.5, in));
       }},
      {{"monitor", "set", "studio", "spk", "--gain", "0.75"},
       [](ConfigSnapshot& in) {
         return encodeJSON(setMonitorControls("studio", "spk", true, false, 0.75, in));
       }},
      {{"monitor", "channel-gain", "studio", "spk", "2", "1"},
       [](ConfigSnapshot& in) {
         return encodeJSON(setMonitorChannelGain("studio", "spk", 2, 1.0, in));
       }},
      // An existing wire is returned and nothing is added.
      {{"wire", "connect", "studio", "deviceOutput:studio:1", "monitor:spk:1"},
       [](ConfigSnapshot& in) {
         return encodeJSON(connectWire("studio", {EndpointKind::deviceOutput, "studio", 1},
                                       {EndpointKind::monitor, "spk", 1}, in));
       }},
      {{"wire", "delete", "studio", "mw1"},
       [](ConfigSnapshot& in) { return encodeJSON(deleteWire("studio", "mw1", in)); }},
      {{"benchmark", "prepare", "--input-uid", "StudioMic", "--input-name", "Studio Mic",
        "--input-channels", "4", "--first-channel", "3", "--monitor-uid", "Speakers",
        "--monitor-name", "Desk Speakers", "--monitor-channels", "2", "--input-backend", "hal"},
       [](ConfigSnapshot& in) {
         return encodeJSON(prepareHardwareInputMonitorBenchmarkDevice(
             "StudioMic", "Studio Mic", 4, "Speakers", "Desk Speakers", 2, 3, "hal", in));
       }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.arguments[0] + " " + row.arguments[1]);
    writeDocument(editableDocument());
    ConfigSnapshot expected = editableDocument();
    const std::string output = row.edit(expected);
    const auto result = run(row.arguments);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.out, line(output));
    EXPECT_EQ(readDocument(), expected);
  }
}

TEST_F(CtlTest, EditsThatMakeIdentifiersUseFreshUUIDs) {
  writeDocument(editableDocument());
  const auto isUUID = [](const std::string& id) {
    return id.size() == 36 && id[8] == '-' && id.find_first_of("abcdef") == std::string::npos;
  };

  // device add: the default device, built with the identifiers it printed.
  auto result = run({"device", "add", "Podcast", "--sample-rate", "44100"});
  ASSERT_EQ(result.status, 0) << result.err;
  const auto added = decodeJSON<DeviceConfig>(result.out);
  std::vector<std::string> ids{added.id, added.sources.at(0).id, added.wires.at(0).id,
                               added.wires.at(1).id};
  std::size_t next = 0;
  EXPECT_EQ(added, DeviceConfig::makeDefault("Podcast", 44100, [&] { return ids.at(next++); }));
  for (const auto& id : ids) EXPECT_TRUE(isUUID(id)) << id;
  EXPECT_EQ(readDocument().devices.back(), added);

  // wire connect: one new wire between the given endpoints, appended.
  result = run({"wire", "connect", "studio", "source:mic:1", "deviceOutput:studio:2"});
  ASSERT_EQ(result.status, 0) << result.err;
  const auto wire = decodeJSON<Wire>(result.out);
  EXPECT_TRUE(isUUID(wire.id));
  EXPECT_EQ(wire.from, (WireEndpoint{EndpointKind::source, "mic", 1}));
  EXPECT_EQ(wire.to, (WireEndpoint{EndpointKind::deviceOutput, "studio", 2}));
  EXPECT_EQ(readDocument().devices[0].wires.back(), wire);

  // source add hardwareInput: name and channel count from the simulated input, wired
  // straight through on the device's two channels.
  result = run({"source", "add", "studio", "hardwareInput", "--device-uid", "StudioMic"});
  ASSERT_EQ(result.status, 0) << result.err;
  const auto input = decodeJSON<SourceConfig>(result.out);
  EXPECT_EQ(input.name, "Studio Mic");
  EXPECT_EQ(input.channelCount, 4);
  EXPECT_EQ(input.metadata.deviceUID, "StudioMic");
  auto studio = readDocument().devices[0];
  EXPECT_EQ(studio.sources.back(), input);
  ASSERT_GE(studio.wires.size(), 2u);
  EXPECT_EQ(studio.wires.back().from, (WireEndpoint{EndpointKind::source, input.id, 2}));
  EXPECT_EQ(studio.wires.back().to, (WireEndpoint{EndpointKind::deviceOutput, "studio", 2}));

  // source add application by pid: the rest comes from the running application.
  result = run({"source", "add", "nest", "application", "--pid", "4242", "--no-wire"});
  ASSERT_EQ(result.status, 0) << result.err;
  const auto application = decodeJSON<SourceConfig>(result.out);
  EXPECT_EQ(application.name, "Sketchpad");
  EXPECT_EQ(application.metadata.bundleIdentifier, "com.example.sketchpad");
  EXPECT_EQ(application.metadata.processObjectID, 90u);
  const auto nestWires = readDocument().devices[1].wires.size();
  EXPECT_EQ(nestWires, editableDocument().devices[1].wires.size());

  // monitor add: named after the output, played channel for channel.
  result = run({"monitor", "add", "nest", "Speakers"});
  ASSERT_EQ(result.status, 0) << result.err;
  const auto monitor = decodeJSON<MonitorConfig>(result.out);
  EXPECT_EQ(monitor.name, "Desk Speakers");
  EXPECT_EQ(readDocument().devices[1].wires.size(), nestWires + 2);

  // source nest: the editor's operation, with the identifiers it printed.
  ConfigSnapshot before = readDocument();
  result = run({"source", "nest", "Podcast-is-not-an-id", "studio"});
  EXPECT_EQ(result.status, 1);
  result = run({"source", "nest", added.id, "studio"});
  ASSERT_EQ(result.status, 0) << result.err;
  const auto nested = decodeJSON<SourceConfig>(result.out);
  const auto after = readDocument();
  std::vector<std::string> nestIDs{nested.id};
  for (auto i = before.devices.back().wires.size(); i < after.devices.back().wires.size(); ++i) {
    nestIDs.push_back(after.devices.back().wires[i].id);
  }
  next = 0;
  ConfigEditor::addVirtualDeviceSource(added.id, "studio", before,
                                       [&] { return nestIDs.at(next++); });
  EXPECT_EQ(after, before);
}

TEST_F(CtlTest, RefusedEditsLeaveTheFileByteForByte) {
  writeDocument(editableDocument());
  const std::string bytes = readFile(document());
  const auto editorError = [](const Edit& edit) {
    ConfigSnapshot copy = editableDocument();
    try {
      edit(copy);
    } catch (const ConfigEditError& error) {
      return "brisolactl: " + std::string(error.what()) + "\n";
    }
    return std::string("the editor accepted it");
  };
  using namespace ConfigEditor;
  struct Row {
    std::vector<std::string> arguments;
    int status;
    std::string error;  // exact for the editor's refusals, a prefix otherwise
  };
  const std::vector<Row> rows{
      {{"device", "rename", "ghost", "X"}, 1, editorError([](ConfigSnapshot& in) {
         return encodeJSON(renameDevice("ghost", "X", in));
       })},
      {{"source", "set", "studio", "ghost", "--muted", "true"},
       1,
       editorError([](ConfigSnapshot& in) {
         return encodeJSON(setSourceControls("studio", "ghost", true, true, 1, in));
       })},
      {{"wire", "connect", "studio", "monitor:spk:1", "deviceOutput:studio:1"},
       1,
       editorError([](ConfigSnapshot& in) {
         return encodeJSON(connectWire("studio", {EndpointKind::monitor, "spk", 1},
                                       {EndpointKind::deviceOutput, "studio", 1}, in));
       })},
      {{"source", "nest", "studio", "nest"}, 1, editorError([](ConfigSnapshot& in) {
         return encodeJSON(addVirtualDeviceSource("studio", "nest", in, [] { return "x"; }));
       })},
      {{"benchmark", "prepare", "--input-uid", " ", "--input-name", "n", "--input-channels", "2",
        "--first-channel", "1"},
       1,
       editorError([](ConfigSnapshot& in) {
         return encodeJSON(prepareHardwareInputBenchmarkDevice(" ", "n", 2, 1, in));
       })},
      {{"monitor", "add", "ghost", "Speakers"}, 1, editorError([](ConfigSnapshot& in) {
         return encodeJSON(requireDevice("ghost", in));
       })},
      {{"wire", "connect", "studio", "source:mic", "deviceOutput:studio:1"},
       64,
       "brisolactl: Wire endpoint 'source:mic'"},
      {{"device", "volume", "studio", "loud"}, 64, "Could not convert"},
      {{"source", "add", "studio", "application"}, 64, "brisolactl: An application source needs"},
      {{"device", "frobnicate"}, 64, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.arguments[0] + " " + row.arguments[1]);
    const auto result = run(row.arguments);
    EXPECT_EQ(result.status, row.status);
    EXPECT_EQ(result.out, "");
    if (row.status == 1) {
      EXPECT_EQ(result.err, row.error);
    } else {
      EXPECT_EQ(result.err.substr(0, row.error.size()), row.error) << result.err;
    }
    EXPECT_EQ(readFile(document()), bytes);
  }
}

TEST_F(CtlTest, DocumentsThatCannotBeLoadedAreNeverOverwrittenButMissingOnesAreStarted) {
  writeFile(document(), "{ not json");
  auto result = run({"device", "add", "X"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err.rfind("brisolactl: ", 0), 0u) << result.err;
  EXPECT_EQ(readFile(document()), "{ not json");

  // --config wins over the environment; a missing document starts empty.
  const auto other = directory() / "sub" / "new.json";
  result = run({"device", "add", "First", "--config", other.string()});
  ASSERT_EQ(result.status, 0) << result.err;
  const auto created = decodeJSON<ConfigSnapshot>(readFile(other));
  ASSERT_EQ(created.devices.size(), 1u);
  EXPECT_EQ(created.devices[0].name, "First");
  EXPECT_EQ(readFile(document()), "{ not json");
}

TEST_F(CtlTest, UnreadableSimulatedHardwareIsAnErrorNotAnEmptyList) {
  for (const std::string content : {"", "{\"devices\": [{\"objectID\": \"x\"}]}"}) {
    if (content.empty()) {
      std::filesystem::remove(hardware());
    } else {
      writeFile(hardware(), content);
    }
    for (const std::string command : {"devices", "product-devices", "apps"}) {
      SCOPED_TRACE(command + (content.empty() ? " (missing file)" : " (bad file)"));
      const auto result = run({command});
      EXPECT_EQ(result.status, 2);
      EXPECT_EQ(result.out, "");
      EXPECT_NE(result.err.find(hardware().string()), std::string::npos) << result.err;
    }
  }
  // No audio server is the same failure, naming where it was looked for.
  setEnvironment("BRISOLA_HARDWARE_SIMULATION", "");
  setEnvironment("PIPEWIRE_RUNTIME_DIR", hardware().string());
  const auto result = run({"devices"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.out, "");
  EXPECT_NE(result.err.find(hardware().string() + "/pipewire-0"), std::string::npos) << result.err;
}

TEST_F(CtlTest, GraphDrawsDevicesWiresAndNesting) {
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
  EXPECT_NE(dot.find("label=\"Studio \\\"A\\\"\";"), std::string::npos) << dot;
  // studio-pt → output on both channels, merged into one edge.
  EXPECT_NE(dot.find("\"d0.source0\" -> \"d0.output\" [label=\"1→1, 2→2\"];"), std::string::npos);
  EXPECT_NE(dot.find("\"d0.output\" -> \"d0.monitor0\" [label=\"1→1\"];"), std::string::npos);
  // "mic" is source 3; its channel 1 plays on output channel 2.
  EXPECT_NE(dot.find("\"d0.source3\" -> \"d0.output\" [label=\"1→2\"];"), std::string::npos);
  // "feed" (source 1 of "nest") takes studio's output.
  EXPECT_NE(dot.find("\"d0.output\" -> \"d1.source1\" [style=dashed"), std::string::npos);
  EXPECT_NE(dot.find("\"missing.source.ghost\" [color=red"), std::string::npos);
  EXPECT_NE(dot.find("\"missing.source.ghost\" -> \"d1.output\""), std::string::npos);
  EXPECT_EQ(dot.substr(dot.size() - 2), "}\n");
}

TEST_F(CtlTest, HelpOnEveryLevelAndVersion) {
  for (const std::vector<std::string>& path : {std::vector<std::string>{},
                                               {"device"},
                                               {"device", "add"},
                                               {"source", "add"},
                                               {"monitor", "add"},
                                               {"wire", "connect"},
                                               {"benchmark", "prepare"},
                                               {"meter"}}) {
    auto arguments = path;
    arguments.push_back("--help");
    SCOPED_TRACE(arguments.size() > 1 ? arguments[arguments.size() - 2] : "brisolactl");
    const auto result = run(arguments);
    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.out.find("Usage"), std::string::npos) << result.out;
  }
  EXPECT_EQ(run({"--version"}).out, "0.1.0\n");
  EXPECT_EQ(run({}).status, 64);
}

}  // namespace
}  // namespace brisola::testing
