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
static_assert(levelsOffset + 4 * maximumChannelCount == peaksOffset);
}  // namespace meterLayout

inline constexpr int readAttempts = 4;

// Up to four attempts at a consistent copy of a mapped object of at least 4096 bytes.
std::optional<Reading> readBlock(const std::byte* block);

// reading(ownerID:) for an object name, through the given calls.
std::optional<Reading> readObject(const char* name, const SharedMemorySystem& system);

}  // namespace brisola::RuntimeMeterStore
