#pragma once

// Builders for configuration documents used across the test suites.

#include <string>

#include "brisola/model/config.hpp"

namespace brisola::testing {

SourceConfig passThruSource(std::string id, std::int64_t channelCount = 2);
SourceConfig hardwareSource(std::string id, std::string deviceUID, std::int64_t channelCount = 2);
// Enabled, not muted, gain 1.0.
SourceConfig sourceOf(SourceType type, std::string id, std::string name,
                      SourceMetadata metadata = {}, std::int64_t channelCount = 2);
// A source that feeds the device `deviceID` into its owner.
SourceConfig nestedSource(std::string id, std::string deviceID, std::string name = "Feed");
MonitorConfig monitor(std::string id, std::string deviceUID, std::int64_t channelCount = 2);
Wire wire(std::string id, WireEndpoint from, WireEndpoint to);
WireEndpoint sourceEnd(std::string owner, std::int64_t channel);
WireEndpoint outputEnd(std::string owner, std::int64_t channel);
WireEndpoint monitorEnd(std::string owner, std::int64_t channel);

// A stereo device with a pass-thru source "<id>-pt" wired 1→1 and 2→2.
DeviceConfig stereoDevice(std::string id, std::string name);

// A document that uses every record, every enumeration and every optional field at least
// once, with texts that need escaping (slashes, quotes, non-ASCII).
ConfigSnapshot richSnapshot();

// An IdFactory that returns prefix + "1", prefix + "2", ... and counts its calls.
struct CountingIdFactory {
  std::string prefix = "id-";
  int calls = 0;
  std::string operator()() { return prefix + std::to_string(++calls); }
};

}  // namespace brisola::testing
