// Any bytes as a document: decoding fails only with a DecodingError, whatever decodes is
// written back and read again unchanged, and what the fast way takes it reads exactly as the
// nlohmann way does.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "brisola/model/config.hpp"
#include "brisola/model/json_coding.hpp"
#include "model/config_json.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace brisola;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  ConfigSnapshot snapshot;
  try {
    snapshot = decodeJSON<ConfigSnapshot>(bytes);
  } catch (const DecodingError&) {
    return 0;
  }
  if (decodeJSON<ConfigSnapshot>(encodeJSON(snapshot)) != snapshot) std::abort();
  if (auto fast = json::decodeSnapshotFast(bytes)) {
    try {
      if (json::readSnapshot(json::parse(bytes), "") != *fast) std::abort();
    } catch (const DecodingError&) {
      std::abort();
    }
  }
  return 0;
}
