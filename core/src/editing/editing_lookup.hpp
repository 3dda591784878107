#pragma once

// Lookups shared by the editing operations: the first element whose id equals the given text,
// or the matching ConfigEditError.

#include <cstddef>
#include <string_view>

#include "brisola/editing/config_editor.hpp"

namespace brisola::editing {

inline DeviceConfig& requireDeviceRef(std::string_view deviceID, ConfigSnapshot& in) {
  return in.devices[ConfigEditor::requireDeviceIndex(deviceID, in)];
}

inline SourceConfig& requireSourceRef(std::string_view sourceID, DeviceConfig& device) {
  for (SourceConfig& source : device.sources) {
    if (source.id == sourceID) return source;
  }
  throw ConfigEditError::sourceNotFound(std::string(sourceID));
}

inline MonitorConfig& requireMonitorRef(std::string_view monitorID, DeviceConfig& device) {
  for (MonitorConfig& monitor : device.monitors) {
    if (monitor.id == monitorID) return monitor;
  }
  throw ConfigEditError::monitorNotFound(std::string(monitorID));
}

}  // namespace brisola::editing
