#pragma once

// Serialises read-modify-save cycles of one document between processes. The lock is an
// advisory flock on a hidden file beside the document (".config.json.lock"), never on the
// document itself, so readers and plain saves are never held up; it dies with its holder.

#include <chrono>
#include <filesystem>
#include <stdexcept>

#include "brisola/platform/unique_fd.hpp"

namespace brisola {

class DocumentLockError : public std::runtime_error {
 public:
  enum class Case { timedOut, unavailable };

  // Another process held the lock for the whole wait.
  static DocumentLockError timedOut(const std::filesystem::path& lockURL,
                                    std::chrono::milliseconds waited);
  // The lock file could not be created or opened (errno in `error`).
  static DocumentLockError unavailable(const std::filesystem::path& lockURL, int error);

  Case errorCase() const { return case_; }

 private:
  DocumentLockError(Case errorCase, const std::string& description)
      : std::runtime_error(description), case_(errorCase) {}
  Case case_;
};

class DocumentLock {
 public:
  static constexpr std::chrono::milliseconds defaultWait{5000};

  static std::filesystem::path lockURL(const std::filesystem::path& documentURL);

  // Creates the document's directory and the lock file when missing, then waits up to `wait`
  // for the exclusive lock.
  explicit DocumentLock(const std::filesystem::path& documentURL,
                        std::chrono::milliseconds wait = defaultWait);

 private:
  UniqueFd fd_;
};

}  // namespace brisola
