#pragma once

// The control block's byte layout and the store's internal steps, parametrised by object name
// and system calls so that tests can run them on private objects and inject failures.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "brisola/platform/unique_fd.hpp"
#include "brisola/runtime/control_store.hpp"
#include "runtime/shared_memory.hpp"

namespace brisola::RuntimeControlStoreV3 {

namespace layout {
inline constexpr std::size_t objectSize = 65536;
inline constexpr std::size_t headerSize = 64;
inline constexpr std::size_t slotSize = 2048;
inline constexpr std::uint32_t magic = 0x5354524B;  // "KRTS"
inline constexpr std::uint32_t version = 4;

// Header fields.
inline constexpr std::size_t magicOffset = 0;
inline constexpr std::size_t versionOffset = 4;
inline constexpr std::size_t sizeOffset = 8;
inline constexpr std::size_t sequenceOffset = 12;
inline constexpr std::size_t deviceCountOffset = 16;
inline constexpr std::size_t unusedWordOffset = 20;
inline constexpr std::size_t headerFieldsEnd = 24;

// Slot fields, relative to the slot.
inline constexpr std::size_t flagsOffset = 0;
inline constexpr std::size_t channelCountOffset = 4;
inline constexpr std::size_t deviceGainOffset = 8;
inline constexpr std::size_t sourceGainOffset = 12;
inline constexpr std::size_t routeCountOffset = 16;
inline constexpr std::size_t uidOffset = 32;
inline constexpr std::size_t nameOffset = 160;
inline constexpr std::size_t iconOffset = 288;
inline constexpr std::size_t channelGainsOffset = 320;
inline constexpr std::size_t routesOffset = 576;
inline constexpr std::size_t slotFieldsEnd = 1600;
inline constexpr std::size_t uidCapacity = 128;
inline constexpr std::size_t nameCapacity = 128;
inline constexpr std::size_t iconCapacity = 32;

inline constexpr std::uint32_t inUseFlag = 1;
inline constexpr std::uint32_t deviceEnabledFlag = 2;
inline constexpr std::uint32_t sourceEnabledFlag = 4;
inline constexpr std::uint32_t mutedFlag = 8;

inline constexpr std::size_t slotOffset(std::size_t index) {
  return headerSize + slotSize * index;
}

// The wire format, pinned: other processes read these bytes.
static_assert(objectSize == 65536 && headerSize == 64 && slotSize == 2048);
static_assert(magicOffset == 0 && versionOffset == 4 && sizeOffset == 8 && sequenceOffset == 12 &&
              deviceCountOffset == 16 && unusedWordOffset == 20 && headerFieldsEnd == 24);
static_assert(flagsOffset == 0 && channelCountOffset == 4 && deviceGainOffset == 8 &&
              sourceGainOffset == 12 && routeCountOffset == 16 && uidOffset == 32 &&
              nameOffset == 160 && iconOffset == 288 && channelGainsOffset == 320 &&
              routesOffset == 576 && slotFieldsEnd == 1600);
static_assert(uidOffset + uidCapacity == nameOffset && nameOffset + nameCapacity == iconOffset);
static_assert(slotOffset(maximumDeviceCount) == 32832);
static_assert(routesOffset + 8 * maximumRouteCount == slotFieldsEnd);
static_assert(channelGainsOffset + 4 * maximumChannelCount == routesOffset);
static_assert(iconOffset + iconCapacity == channelGainsOffset);
}  // namespace layout

struct OpenedObject {
  UniqueFd fd;
  bool created = false;
};

// Opens for reading and writing; creates the object (exclusively, with `mode`) only when it
// does not exist. A lost creation race gives openFailed(EEXIST).
OpenedObject openSharedMemory(const char* name, std::uint16_t mode,
                              const SharedMemorySystem& system);

// One complete update of the named object, as publish(_:) does it without the retry. Both
// hand back the descriptor they wrote through, for a writer that keeps the object open.
UniqueFd write(const char* name, const std::vector<RuntimeDeviceControls>& controls,
               const SharedMemorySystem& system);
UniqueFd publish(const char* name, const std::vector<RuntimeDeviceControls>& controls,
                 const SharedMemorySystem& system);
std::vector<RuntimeDeviceControls> read(const char* name, const SharedMemorySystem& system);

// The text's UTF-8 bytes, cut by whole characters to at most capacity − 1 bytes, then zero
// bytes up to `capacity`.
void writeString(std::string_view text, std::byte* base, std::size_t offset, std::size_t capacity);

// The update protocol on an object of layout::objectSize bytes: sequence made odd, header and
// slots stored, sequence made even. At most 16 records are written. A write that fails throws
// writeFailed and leaves the sequence odd until the next complete update.
void writeBlock(SharedBytes& block, std::span<const RuntimeDeviceControls> controls);

// Up to four attempts at a consistent copy; nothing when none succeeds.
std::optional<std::vector<RuntimeDeviceControls>> readBlock(const SharedBytes& block);

}  // namespace brisola::RuntimeControlStoreV3
