#include "brisola/platform/settings.hpp"

#include <locale.h>
#include <stdlib.h>

#include <algorithm>
#include <cmath>
#include <functional>

#include "brisola/platform/unicode.hpp"

namespace brisola {

namespace {

using Lookup = std::function<std::optional<std::string>(const char*)>;

Settings readWith(const Lookup& lookup) {
  return Settings{
      .configPath = lookup("BRISOLA_CONFIG_PATH").value_or(""),
      .pollInterval = Settings::pollIntervalFrom(lookup("BRISOLA_SERVICE_POLL_SECONDS")),
      .dryRun = Settings::isTruthy(lookup("BRISOLA_SERVICE_DRY_RUN")) ||
                Settings::isTruthy(lookup("BRISOLA_SERVICE_ONCE")),
      .helperDirectory = lookup("BRISOLA_HELPER_DIR").value_or(""),
      .hardwareFile = lookup("BRISOLA_HARDWARE_SIMULATION").value_or(""),
  };
}

}  // namespace

Settings Settings::read(const Environment& environment) {
  return readWith([&](const char* name) -> std::optional<std::string> {
    auto it = environment.find(name);
    if (it == environment.end()) return std::nullopt;
    return it->second;
  });
}

Settings Settings::current() {
  return readWith([](const char* name) -> std::optional<std::string> {
    const char* value = std::getenv(name);
    if (value == nullptr) return std::nullopt;
    return std::string(value);
  });
}

bool Settings::isTruthy(const std::optional<std::string>& value) {
  if (!value) return false;
  std::string lowered = unicode::lowercased(*value);
  return lowered == "1" || lowered == "true" || lowered == "yes" || lowered == "on";
}

Settings::Seconds Settings::pollIntervalFrom(const std::optional<std::string>& value) {
  if (!value || value->empty()) return defaultPollInterval;
  unsigned char first = static_cast<unsigned char>(value->front());
  if (first == ' ' || (first >= '\t' && first <= '\r')) return defaultPollInterval;
  // strtod in the C locale, whatever locale the process runs in.
  static const locale_t cLocale = ::newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
  char* end = nullptr;
  double parsed = ::strtod_l(value->c_str(), &end, cLocale);
  if (end != value->c_str() + value->size()) return defaultPollInterval;  // trailing text
  if (std::isnan(parsed) || parsed <= 0) return defaultPollInterval;
  return std::min(Seconds(parsed), maximumPollInterval);
}

}  // namespace brisola
