#pragma once

// Tree-level JSON forms of the configuration records, for other areas that embed them.

#include "brisola/model/config.hpp"
#include "model/json_support.hpp"

namespace brisola::json {

Json toJSON(const ConfigSnapshot& value);
Json toJSON(const DeviceConfig& value);
Json toJSON(const SourceConfig& value);
Json toJSON(const MonitorConfig& value);
Json toJSON(const Wire& value);
Json toJSON(const WireEndpoint& value);
Json toJSON(const SourceMetadata& value);

ConfigSnapshot readSnapshot(const Json& value, const std::string& path);
DeviceConfig readDevice(const Json& value, const std::string& path);
SourceConfig readSource(const Json& value, const std::string& path);
MonitorConfig readMonitor(const Json& value, const std::string& path);
Wire readWire(const Json& value, const std::string& path);

// The fast way alone: nothing where it leaves the document to the nlohmann way.
std::optional<ConfigSnapshot> decodeSnapshotFast(std::string_view bytes);

}  // namespace brisola::json
