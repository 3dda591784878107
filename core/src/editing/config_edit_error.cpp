#include "brisola/editing/config_editor.hpp"

namespace brisola {

ConfigEditError::ConfigEditError(Case errorCase, const std::string& description, std::string text,
                                 std::optional<WireEndpoint> endpoint)
    : std::runtime_error(description),
      case_(errorCase),
      text_(std::move(text)),
      endpoint_(std::move(endpoint)) {}

ConfigEditError ConfigEditError::deviceNotFound(std::string identifier) {
  return {Case::deviceNotFound, "No device exists with ID '" + identifier + "'.",
          std::move(identifier), std::nullopt};
}

ConfigEditError ConfigEditError::sourceNotFound(std::string identifier) {
  return {Case::sourceNotFound, "No source exists with ID '" + identifier + "'.",
          std::move(identifier), std::nullopt};
}

ConfigEditError ConfigEditError::monitorNotFound(std::string identifier) {
  return {Case::monitorNotFound, "No monitor exists with ID '" + identifier + "'.",
          std::move(identifier), std::nullopt};
}

ConfigEditError ConfigEditError::wireNotFound(std::string identifier) {
  return {Case::wireNotFound, "No wire exists with ID '" + identifier + "'.", std::move(identifier),
          std::nullopt};
}

ConfigEditError ConfigEditError::invalidBenchmarkInput(std::string reason) {
  return {Case::invalidBenchmarkInput, "Invalid benchmark input: " + reason + ".",
          std::move(reason), std::nullopt};
}

ConfigEditError ConfigEditError::invalidWireEndpoint(WireEndpoint endpoint) {
  std::string description = "Wire endpoint " + std::string(enumName(endpoint.kind)) + ":" +
                            endpoint.ownerID + ":" + std::to_string(endpoint.channel) +
                            " is not valid for the device.";
  return {Case::invalidWireEndpoint, description, {}, std::move(endpoint)};
}

ConfigEditError ConfigEditError::nestedDeviceCycle(std::string identifier) {
  return {Case::nestedDeviceCycle,
          "Adding device '" + identifier + "' as a source would create a nested-device cycle.",
          std::move(identifier), std::nullopt};
}

ConfigEditError ConfigEditError::invalidWireDirection() {
  return {Case::invalidWireDirection,
          "Wire direction must be source-to-deviceOutput or deviceOutput-to-monitor.",
          {},
          std::nullopt};
}

ConfigEditError ConfigEditError::channelCountOutOfRange(std::int64_t count) {
  return {Case::channelCountOutOfRange,
          "Channel count " + std::to_string(count) + " is out of range (at most " +
              std::to_string(ConfigEditor::maximumChannelCount) + ").",
          {},
          std::nullopt};
}

}  // namespace brisola
