#include <string>

#include "brisola/validation/validation.hpp"
#include "validation/validation_builder.hpp"

namespace brisola {

namespace {

// Rule groups, in the order validate() visits the document. Each appends to the one builder.

void validateSchema(const ConfigSnapshot& /*snapshot*/, ValidationBuilder& /*builder*/) {}

void validateDuplicateDeviceIdentifiers(const ConfigSnapshot& /*snapshot*/,
                                        ValidationBuilder& /*builder*/) {}

void validate(const SourceConfig& /*source*/, const DeviceConfig& /*device*/,
              const std::string& /*path*/, ValidationBuilder& /*builder*/) {}

void validate(const MonitorConfig& /*monitor*/, const std::string& /*path*/,
              ValidationBuilder& /*builder*/) {}

void validate(const Wire& /*wire*/, const DeviceConfig& /*device*/, const std::string& /*path*/,
              ValidationBuilder& /*builder*/) {}

void validate(const DeviceConfig& device, const std::string& path, ValidationBuilder& builder) {
  for (std::size_t j = 0; j < device.sources.size(); ++j) {
    validate(device.sources[j], device, path + ".sources[" + std::to_string(j) + "]", builder);
  }
  for (std::size_t k = 0; k < device.monitors.size(); ++k) {
    validate(device.monitors[k], path + ".monitors[" + std::to_string(k) + "]", builder);
  }
  for (std::size_t w = 0; w < device.wires.size(); ++w) {
    validate(device.wires[w], device, path + ".wires[" + std::to_string(w) + "]", builder);
  }
}

void validateSelectedDevice(const ConfigSnapshot& /*snapshot*/, ValidationBuilder& /*builder*/) {}

void validateNestedDeviceGraph(const ConfigSnapshot& /*snapshot*/, ValidationBuilder& /*builder*/) {
}

}  // namespace

ValidationResult ConfigValidator::validate(const ConfigSnapshot& snapshot) const {
  ValidationBuilder builder;
  validateSchema(snapshot, builder);
  validateDuplicateDeviceIdentifiers(snapshot, builder);
  for (std::size_t i = 0; i < snapshot.devices.size(); ++i) {
    brisola::validate(snapshot.devices[i], "devices[" + std::to_string(i) + "]", builder);
  }
  validateSelectedDevice(snapshot, builder);
  validateNestedDeviceGraph(snapshot, builder);
  return std::move(builder).finish();
}

}  // namespace brisola
