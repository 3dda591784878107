#include "brisola/store/document_lock.hpp"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <cstring>
#include <sstream>
#include <system_error>
#include <thread>

namespace brisola {
namespace fs = std::filesystem;

DocumentLockError DocumentLockError::timedOut(const fs::path& lockURL,
                                              std::chrono::milliseconds waited) {
  std::ostringstream text;
  text << "Another edit of the document held " << lockURL.string() << " for "
       << std::chrono::duration<double>(waited).count() << " s; try again when it has finished.";
  return DocumentLockError(Case::timedOut, text.str());
}

DocumentLockError DocumentLockError::unavailable(const fs::path& lockURL, int error) {
  return DocumentLockError(Case::unavailable, "Could not open the edit lock " + lockURL.string() +
                                                  ": " + std::strerror(error));
}

fs::path DocumentLock::lockURL(const fs::path& documentURL) {
  return documentURL.parent_path() / ("." + documentURL.filename().string() + ".lock");
}

DocumentLock::DocumentLock(const fs::path& documentURL, std::chrono::milliseconds wait) {
  const fs::path url = lockURL(documentURL);
  std::error_code ignored;
  fs::create_directories(url.parent_path(), ignored);  // a failure shows in the open below
  int fd = -1;
  do {
    fd = ::open(url.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) throw DocumentLockError::unavailable(url, errno);
  fd_.reset(fd);
  // Polled rather than blocking, so the wait is bounded without a timer signal.
  constexpr std::chrono::milliseconds step{5};
  const auto deadline = std::chrono::steady_clock::now() + wait;
  while (::flock(fd_.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) throw DocumentLockError::unavailable(url, errno);
    if (std::chrono::steady_clock::now() >= deadline) throw DocumentLockError::timedOut(url, wait);
    std::this_thread::sleep_for(step);
  }
}

}  // namespace brisola
