// Any bytes as a control block and as a meter object: the readers bound every count, read
// nothing outside the object, and what they accept can be written as JSON.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "brisola/runtime/meter_store.hpp"
#include "brisola/runtime/runtime_controls.hpp"
#include "runtime/control_block.hpp"
#include "runtime/meter_block.hpp"

namespace {

void readBoth(std::vector<std::uint32_t>& words) {
  using namespace brisola;
  MemoryBytes object(std::as_writable_bytes(std::span(words)));
  if (const auto records = RuntimeControlStoreV3::readBlock(object)) encodeJSON(*records);
  if (const auto reading = RuntimeMeterStore::readBlock(object)) encodeJSON(*reading);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Word-aligned and exactly as long as the input (rounded down to whole words), so a read past
  // the end shows under AddressSanitizer; then padded with zeros to a full control block, so
  // short inputs reach the accepting paths too.
  std::vector<std::uint32_t> words(size / 4);
  if (!words.empty()) std::memcpy(words.data(), data, words.size() * 4);
  readBoth(words);
  words.resize(std::max<std::size_t>(words.size(), 65536 / 4));
  readBoth(words);
  return 0;
}
