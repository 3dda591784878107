#pragma once

// The document as the last cycle loaded it. A cycle loads it again only when the file's
// identity moved: device, inode, size, and modification and change times to the nanosecond,
// taken with one stat before the read. A save replaces the file by a new inode and moves its
// change time, so a save of the same size within the same second is still seen.

#include <sys/stat.h>

#include <cstdint>
#include <exception>
#include <optional>

#include "brisola/store/config_store.hpp"

namespace brisola {

class DocumentCache {
 public:
  explicit DocumentCache(const ConfigStore& store) : store_(store) {}

  // The store's loadOrCreateEmpty, or what it gave last time while the file is unchanged: the
  // same document, or the same decoding error raised again, so a broken document is reported
  // on every cycle. Other failures (the file unreadable, the directory missing) are never kept.
  const ConfigSnapshot& load();

  // Counts the documents read so far: it moves with every load that read the file anew.
  std::uint64_t generation() const { return generation_; }
  // The document of the generation before this one (empty before the second read), kept so
  // that what depends on it can be redone only where the document moved.
  const ConfigSnapshot& previous() const { return previous_; }

 private:
  struct Identity {
    dev_t device;
    ino_t inode;
    off_t size;
    long modifiedSeconds, modifiedNanoseconds, changedSeconds, changedNanoseconds;
    bool operator==(const Identity&) const = default;
  };

  const ConfigStore& store_;
  std::optional<Identity> identity_;
  ConfigSnapshot snapshot_, previous_;
  std::exception_ptr error_;
  std::uint64_t generation_ = 0;
};

}  // namespace brisola
