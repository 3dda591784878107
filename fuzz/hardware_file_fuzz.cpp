// Any bytes as the simulated hardware file: every registry query answers (or reports the file
// unusable) without crashing, hanging or exhausting memory.

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <string>

#include "brisola/devices/core_audio_device_registry.hpp"
#include "brisola/devices/hardware_layer.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace brisola;
  static const std::string path = "/tmp/brisola-fuzz-hardware-" + std::to_string(::getpid());
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  const auto backend = HardwareBackend::simulated(path);
  const auto layer = backend->snapshot();
  using Registry = CoreAudioDeviceRegistry;
  Registry::deviceInventory(*layer);
  Registry::brisolaDeviceSummaries(*layer);
  for (const auto& uid : Registry::allDeviceUIDs(*layer)) Registry::containsDevice(*layer, uid);
  Registry::halPlugInIsLoaded(*layer);
  Registry::passThruDeviceIsLoaded(*layer);
  return 0;
}
