#pragma once

// Hands the newest value from one writer thread to one reader thread without locks, waits or
// allocation: three slots, one being written, one being read, and one in between that the two
// swap atomically. The reader always sees a whole value, the newest complete one.

#include <array>
#include <atomic>
#include <cstdint>

namespace brisola::audio {

template <class T>
class NewestValue {
 public:
  explicit NewestValue(const T& initial = T{}) { slots_.fill(initial); }

  // Writer thread only.
  void write(const T& value) {
    slots_[back_] = value;
    back_ = middle_.exchange(back_ | freshBit, std::memory_order_acq_rel) & indexMask;
  }

  // Reader thread only. The reference stays valid until the reader's next call.
  const T& read() {
    if (middle_.load(std::memory_order_relaxed) & freshBit) {
      front_ = middle_.exchange(front_, std::memory_order_acq_rel) & indexMask;
    }
    return slots_[front_];
  }

 private:
  static constexpr std::uint8_t freshBit = 4;
  static constexpr std::uint8_t indexMask = 3;
  std::array<T, 3> slots_;
  std::uint8_t back_ = 0;   // the writer's
  std::uint8_t front_ = 1;  // the reader's
  std::atomic<std::uint8_t> middle_{2};
};

}  // namespace brisola::audio
