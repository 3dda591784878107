// A program of someone else's against the installed library: a new device, validated.
#include <iostream>

#include "brisola/platform/uuid.hpp"
#include "brisola/validation/validation.hpp"

int main() {
  brisola::ConfigSnapshot snapshot = brisola::ConfigSnapshot::empty();
  snapshot.devices.push_back(
      brisola::DeviceConfig::makeDefault("Mix", 48000, brisola::makeUUIDString));
  const brisola::ValidationResult result = brisola::ConfigValidator{}.validate(snapshot);
  std::cout << brisola::encodeJSON(result) << '\n';
  return result.isValid() ? 0 : 1;
}
