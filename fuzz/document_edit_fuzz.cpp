// A document from the first bytes, validated, then edits chosen by the rest: every edit either
// succeeds or throws ConfigEditError and leaves the document exactly as it was.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "brisola/editing/config_editor.hpp"
#include "brisola/model/config.hpp"
#include "brisola/model/json_coding.hpp"
#include "brisola/validation/validation.hpp"

namespace {

using namespace brisola;

std::string pickDevice(FuzzedDataProvider& in, const ConfigSnapshot& document) {
  if (document.devices.empty() || in.ConsumeBool()) return in.ConsumeRandomLengthString(8);
  return document.devices[in.ConsumeIntegralInRange<std::size_t>(0, document.devices.size() - 1)]
      .id;
}

template <class List>
std::string pickID(FuzzedDataProvider& in, const List& list) {
  if (list.empty() || in.ConsumeBool()) return in.ConsumeRandomLengthString(8);
  return list[in.ConsumeIntegralInRange<std::size_t>(0, list.size() - 1)].id;
}

const DeviceConfig* deviceWithID(const ConfigSnapshot& document, const std::string& id) {
  for (const auto& device : document.devices) {
    if (device.id == id) return &device;
  }
  return nullptr;
}

WireEndpoint endpoint(FuzzedDataProvider& in, const std::string& owner) {
  return {static_cast<EndpointKind>(in.ConsumeIntegralInRange<int>(0, 2)),
          in.ConsumeBool() ? owner : in.ConsumeRandomLengthString(8),
          in.ConsumeIntegralInRange<std::int64_t>(-2, 70)};
}

void edit(FuzzedDataProvider& in, ConfigSnapshot& document) {
  namespace E = ConfigEditor;
  const std::string device = pickDevice(in, document);
  const DeviceConfig* found = deviceWithID(document, device);
  const std::string source = found ? pickID(in, found->sources) : "";
  const std::string monitor = found ? pickID(in, found->monitors) : "";
  const auto count = in.ConsumeIntegral<std::int64_t>();
  const double gain = in.ConsumeFloatingPoint<double>();
  switch (in.ConsumeIntegralInRange<int>(0, 13)) {
    case 0:
      E::renameDevice(device, in.ConsumeRandomLengthString(16), document);
      break;
    case 1:
      E::setDeviceChannelCount(device, count, document);
      break;
    case 2:
      E::setDeviceChannelGain(device, count, gain, document);
      break;
    case 3:
      E::deleteDevice(device, document);
      break;
    case 4:
      E::setSourceControls(device, source, in.ConsumeBool(), in.ConsumeBool(), gain, document);
      break;
    case 5:
      E::setSourceChannelGain(device, source, count, gain, document);
      break;
    case 6:
      E::setMonitorControls(device, monitor, in.ConsumeBool(), in.ConsumeBool(), gain, document);
      break;
    case 7:
      E::setMonitorChannelGain(device, monitor, count, gain, document);
      break;
    case 8:
      E::connectWire(device, endpoint(in, source), endpoint(in, device), document);
      break;
    case 9:
      E::deleteWire(device, found ? pickID(in, found->wires) : "", document);
      break;
    case 10:
      E::addVirtualDeviceSource(device, pickDevice(in, document), document,
                                [] { return std::string("id"); });
      break;
    case 11:
      E::prepareHardwareInputBenchmarkDevice(in.ConsumeRandomLengthString(8), "In", count,
                                             in.ConsumeIntegral<std::int64_t>(), document);
      break;
    case 12:
      E::setDeviceVolume(device, gain, document);
      break;
    default:
      E::selectDevice(device, document);
      break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzedDataProvider in(data, size);
  ConfigSnapshot document;
  try {
    document = decodeJSON<ConfigSnapshot>(in.ConsumeRandomLengthString(4096));
  } catch (const DecodingError&) {
    document = ConfigSnapshot::empty();
  }
  ConfigValidator().validate(document);
  for (int step = 0; step < 8 && in.remaining_bytes() > 0; ++step) {
    const ConfigSnapshot before = document;
    try {
      edit(in, document);
    } catch (const ConfigEditError&) {
      if (document != before) std::abort();  // a refused edit changed the document
    }
    ConfigValidator().validate(document);
  }
  return 0;
}
