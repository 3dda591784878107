#pragma once

// Access to a mapping that another thread or process may change at any moment. Every access
// is an atomic 32-bit load or store, so a concurrent writer is never a data race; stores
// release and loads acquire, which is what the sequence-word protocol needs: a reader that
// sees any byte of an update also sees the odd sequence that preceded it, and a reader that
// sees the final even sequence sees every byte before it. All fields of the shared layouts
// are 32-bit words at offsets divisible by 4.

#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace brisola::shared_words {

static_assert(std::endian::native == std::endian::little,
              "the shared layouts are little-endian and copied word by word");

inline std::atomic_ref<std::uint32_t> wordAt(const std::byte* base, std::size_t offset) {
  // The mapping is writable by someone; a read-only mapping is only ever loaded from.
  auto* word = reinterpret_cast<std::uint32_t*>(const_cast<std::byte*>(base) + offset);
  return std::atomic_ref<std::uint32_t>(*word);
}

inline std::uint32_t load(const std::byte* base, std::size_t offset) {
  return wordAt(base, offset).load(std::memory_order_acquire);
}

inline void store(std::byte* base, std::size_t offset, std::uint32_t value) {
  wordAt(base, offset).store(value, std::memory_order_release);
}

// Copies byteCount bytes (a multiple of 4) out of the shared mapping into private memory.
inline void copyOut(std::byte* local, const std::byte* shared, std::size_t byteCount) {
  for (std::size_t offset = 0; offset < byteCount; offset += 4) {
    std::uint32_t word = load(shared, offset);
    std::memcpy(local + offset, &word, sizeof word);
  }
}

// Copies byteCount bytes (a multiple of 4) of private memory into the shared mapping.
inline void copyIn(std::byte* shared, const std::byte* local, std::size_t byteCount) {
  for (std::size_t offset = 0; offset < byteCount; offset += 4) {
    std::uint32_t word;
    std::memcpy(&word, local + offset, sizeof word);
    store(shared, offset, word);
  }
}

// Plain little-endian fields of a private copy.
inline std::uint32_t getU32(const std::byte* bytes, std::size_t offset) {
  std::uint32_t value;
  std::memcpy(&value, bytes + offset, sizeof value);
  return value;
}

inline void putU32(std::byte* bytes, std::size_t offset, std::uint32_t value) {
  std::memcpy(bytes + offset, &value, sizeof value);
}

inline float getF32(const std::byte* bytes, std::size_t offset) {
  return std::bit_cast<float>(getU32(bytes, offset));
}

inline void putF32(std::byte* bytes, std::size_t offset, float value) {
  putU32(bytes, offset, std::bit_cast<std::uint32_t>(value));
}

}  // namespace brisola::shared_words
