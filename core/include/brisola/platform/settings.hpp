#pragma once

// What the product's programs take from their environment, read in this one place: the
// service, brisolactl and the hardware layer all see the same values.

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace brisola {

using Environment = std::map<std::string, std::string>;

struct Settings {
  using Seconds = std::chrono::duration<double>;

  // An infinite or huge interval would stop the service from cycling; longer ones are cut to
  // this. Any interval above zero is otherwise taken as it stands.
  static constexpr Seconds defaultPollInterval{1.0};
  static constexpr Seconds maximumPollInterval{3600.0};

  // BRISOLA_CONFIG_PATH; empty: the default location.
  std::string configPath;
  // BRISOLA_SERVICE_POLL_SECONDS, read by pollIntervalFrom.
  Seconds pollInterval = defaultPollInterval;
  // BRISOLA_SERVICE_DRY_RUN or BRISOLA_SERVICE_ONCE, read by isTruthy.
  bool dryRun = false;
  // BRISOLA_HELPER_DIR; empty: none.
  std::string helperDirectory;
  // BRISOLA_HARDWARE_SIMULATION; empty: the real hardware.
  std::string hardwareFile;

  bool operator==(const Settings&) const = default;

  static Settings read(const Environment& environment);
  // The process's environment as it is now (it is read afresh on every call).
  static Settings current();

  // "1", "true", "yes" or "on" after lower-casing; nothing is trimmed.
  static bool isTruthy(const std::optional<std::string>& value);
  // The whole text must be one number in the C library's strtod syntax (C locale), with no
  // leading white space and nothing after it. Unacceptable, zero, negative and NaN values give
  // the default; accepted values are capped at the maximum.
  static Seconds pollIntervalFrom(const std::optional<std::string>& value);
};

}  // namespace brisola
