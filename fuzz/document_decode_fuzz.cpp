// Any bytes as a document: decoding fails only with a DecodingError, and whatever decodes is
// written back and read again unchanged.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "brisola/model/config.hpp"
#include "brisola/model/json_coding.hpp"

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
  return 0;
}
