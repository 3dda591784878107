#pragma once

// Every file-system query and change of the library goes through this interface, so tests can
// make any single step fail (FileManagerWrapper forwards everything; override one call).
//
// Errors are std::filesystem::filesystem_error naming the operation, the path and the system
// error. Every descriptor opened by an implementation is close-on-exec.

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace brisola {

// A file being written. Nothing is promised to be on the disk before sync() returns.
class WritableFile {
 public:
  virtual ~WritableFile() = default;
  virtual void append(std::string_view bytes) = 0;
  virtual void sync() = 0;
  // Reports a failed close; the destructor closes silently when close() was not called.
  virtual void close() = 0;
};

class FileManager {
 public:
  using Clock = std::chrono::system_clock;

  virtual ~FileManager() = default;

  // The user's Application Support directories, possibly none. On Linux this is
  // $XDG_DATA_HOME when it is an absolute path, else $HOME/.local/share.
  virtual std::vector<std::filesystem::path> applicationSupportDirectories() const = 0;
  // $HOME, or the password database entry when HOME is unset or empty.
  virtual std::filesystem::path homeDirectory() const = 0;
  virtual std::filesystem::path currentDirectory() const = 0;

  // True when any entry exists at the path; a symbolic link counts as what it points to.
  virtual bool fileExists(const std::filesystem::path& path) const = 0;
  // True for a regular file (after links) that the current user may execute.
  virtual bool isExecutableFile(const std::filesystem::path& path) const = 0;

  // The largest file contents() reads: documents and hardware files are far smaller, and a
  // bound keeps a hostile file from taking all memory.
  static constexpr std::size_t maximumFileSize = 64 * 1024 * 1024;

  // The whole regular file, at most maximumFileSize bytes. Throws when the path cannot be
  // opened or read, is not a regular file (a directory, a FIFO, a device), or is larger.
  // Never blocks on opening.
  virtual std::string contents(const std::filesystem::path& path) const = 0;
  // For a symbolic link at the path that leads to no entry, why: ENOENT (it leads nowhere) or
  // ELOOP (round in a loop). No error for anything else.
  virtual std::error_code brokenLink(const std::filesystem::path& path) const = 0;
  // Creates or truncates the file.
  virtual std::unique_ptr<WritableFile> createWritableFile(
      const std::filesystem::path& path) const = 0;
  // Creates or truncates the file, writes all bytes, flushes them to the disk and closes it,
  // each step checked. On failure the file may hold part of the bytes.
  void write(const std::filesystem::path& path, std::string_view bytes) const;
  // Creates an empty file when nothing exists at the path; an existing file is left alone.
  virtual void createFile(const std::filesystem::path& path) const = 0;
  // Succeeds when the directory exists afterwards (also when it existed before).
  virtual void createDirectory(const std::filesystem::path& path,
                               bool withIntermediateDirectories) const = 0;
  // Names of the entries directly inside, hidden ones included, without "." and "..".
  virtual std::vector<std::string> contentsOfDirectory(const std::filesystem::path& path) const = 0;

  // Puts `replacement` in place of `target` in one step (a rename inside one directory) and
  // flushes the directory. Afterwards `replacement` no longer exists.
  virtual void replaceItem(const std::filesystem::path& target,
                           const std::filesystem::path& replacement) const = 0;
  // Moves an entry to a destination that must not exist yet, and flushes the directory.
  virtual void moveItem(const std::filesystem::path& from,
                        const std::filesystem::path& to) const = 0;
  virtual void removeItem(const std::filesystem::path& path) const = 0;

  virtual std::optional<Clock::time_point> modificationDate(
      const std::filesystem::path& path) const = 0;
  virtual void setModificationDate(const std::filesystem::path& path,
                                   Clock::time_point date) const = 0;

  // The process-wide POSIX implementation.
  static std::shared_ptr<FileManager> defaultManager();
};

// Forwards every call to another file manager. Tests derive from it to fail one operation.
class FileManagerWrapper : public FileManager {
 public:
  explicit FileManagerWrapper(std::shared_ptr<FileManager> target) : target_(std::move(target)) {}

  std::vector<std::filesystem::path> applicationSupportDirectories() const override {
    return target_->applicationSupportDirectories();
  }
  std::filesystem::path homeDirectory() const override { return target_->homeDirectory(); }
  std::filesystem::path currentDirectory() const override { return target_->currentDirectory(); }
  bool fileExists(const std::filesystem::path& path) const override {
    return target_->fileExists(path);
  }
  bool isExecutableFile(const std::filesystem::path& path) const override {
    return target_->isExecutableFile(path);
  }
  std::string contents(const std::filesystem::path& path) const override {
    return target_->contents(path);
  }
  std::error_code brokenLink(const std::filesystem::path& path) const override {
    return target_->brokenLink(path);
  }
  std::unique_ptr<WritableFile> createWritableFile(
      const std::filesystem::path& path) const override {
    return target_->createWritableFile(path);
  }
  void createFile(const std::filesystem::path& path) const override { target_->createFile(path); }
  void createDirectory(const std::filesystem::path& path, bool intermediates) const override {
    target_->createDirectory(path, intermediates);
  }
  std::vector<std::string> contentsOfDirectory(const std::filesystem::path& path) const override {
    return target_->contentsOfDirectory(path);
  }
  void replaceItem(const std::filesystem::path& target,
                   const std::filesystem::path& replacement) const override {
    target_->replaceItem(target, replacement);
  }
  void moveItem(const std::filesystem::path& from, const std::filesystem::path& to) const override {
    target_->moveItem(from, to);
  }
  void removeItem(const std::filesystem::path& path) const override { target_->removeItem(path); }
  std::optional<Clock::time_point> modificationDate(
      const std::filesystem::path& path) const override {
    return target_->modificationDate(path);
  }
  void setModificationDate(const std::filesystem::path& path,
                           Clock::time_point date) const override {
    target_->setModificationDate(path, date);
  }

 protected:
  const std::shared_ptr<FileManager>& target() const { return target_; }

 private:
  std::shared_ptr<FileManager> target_;
};

}  // namespace brisola
