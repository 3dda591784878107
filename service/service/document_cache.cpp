#include "service/document_cache.hpp"

#include "brisola/model/json_coding.hpp"

namespace brisola {

const ConfigSnapshot& DocumentCache::load() {
  std::optional<Identity> now;
  struct stat status {};
  if (::stat(store_.url().c_str(), &status) == 0) {
    now = Identity{status.st_dev,         status.st_ino,          status.st_size,
                   status.st_mtim.tv_sec, status.st_mtim.tv_nsec, status.st_ctim.tv_sec,
                   status.st_ctim.tv_nsec};
  }
  if (now && now == identity_) {
    if (error_) std::rethrow_exception(error_);
    return snapshot_;
  }
  identity_.reset();
  error_ = nullptr;
  try {
    ConfigSnapshot loaded = store_.loadOrCreateEmpty();
    previous_ = std::move(snapshot_);
    snapshot_ = std::move(loaded);
    ++generation_;
  } catch (const DecodingError&) {
    // What the bytes say does not change until the file does.
    identity_ = now;
    error_ = std::current_exception();
    throw;
  }
  // A document this load created has no identity yet: the next cycle reads it once.
  identity_ = now;
  return snapshot_;
}

}  // namespace brisola
