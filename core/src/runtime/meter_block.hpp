#pragma once

// The meter object's layout as the reader requires it, and the read on a mapped object, so
// tests can run it on private objects.

#include <cstddef>
#include <cstdint>
#include <optional>

#include "brisola/model/limits.hpp"
#include "brisola/runtime/meter_store.hpp"
#include "runtime/shared_memory.hpp"

namespace brisola::RuntimeMeterStore {

namespace meterLayout {
inline constexpr std::size_t objectSize = 4096;
inline constexpr std::uint32_t magic = 0x53544D4B;  // "KMTS"
inline constexpr std::size_t magicOffset = 0;
inline constexpr std::size_t versionOffset = 4;
inline constexpr std::size_t sizeOffset = 8;
inline constexpr std::size_t sequenceOffset = 12;
inline constexpr std::size_t channelCountOffset = 16;
inline constexpr std::size_t levelsOffset = 20;
inline constexpr std::size_t peaksOffset = 276;
inline constexpr std::size_t maximumChannelCount = Limits::channelSlotCount;
inline constexpr std::size_t peaksEnd = peaksOffset + 4 * maximumChannelCount;
// The wire format, pinned: producers in other processes write these bytes.
static_assert(objectSize == 4096 && magicOffset == 0 && versionOffset == 4 && sizeOffset == 8 &&
              sequenceOffset == 12 && channelCountOffset == 16 && levelsOffset == 20 &&
              peaksOffset == 276 && peaksEnd == 532);
static_assert(levelsOffset + 4 * maximumChannelCount == peaksOffset);
}  // namespace meterLayout

// Up to four attempts at a consistent copy of an object of at least 4096 bytes.
std::optional<Reading> readBlock(const SharedBytes& block);

// reading(ownerID:) for an object name, through the given calls.
std::optional<Reading> readObject(const char* name, const SharedMemorySystem& system);

}  // namespace brisola::RuntimeMeterStore
