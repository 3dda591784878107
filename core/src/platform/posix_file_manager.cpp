#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

#include "brisola/platform/file_manager.hpp"
#include "brisola/platform/unique_fd.hpp"

namespace brisola {
namespace fs = std::filesystem;

namespace {

[[noreturn]] void throwErrno(const char* what, const fs::path& path, int error = errno) {
  throw fs::filesystem_error(what, path, std::error_code(error, std::generic_category()));
}

[[noreturn]] void throwErrno(const char* what, const fs::path& from, const fs::path& to,
                             int error = errno) {
  throw fs::filesystem_error(what, from, to, std::error_code(error, std::generic_category()));
}

[[noreturn]] void tooLarge(const fs::path& path) {
  throw fs::filesystem_error("Could not read file: larger than 64 MiB", path,
                             std::make_error_code(std::errc::file_too_large));
}

UniqueFd openChecked(const fs::path& path, int flags, const char* what, mode_t mode = 0) {
  int fd;
  do {
    fd = ::open(path.c_str(), flags | O_CLOEXEC, mode);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) throwErrno(what, path);
  return UniqueFd(fd);
}

fs::path parentOf(const fs::path& path) {
  fs::path parent = path.parent_path();
  return parent.empty() ? fs::path(".") : parent;
}

// Makes a rename inside the directory durable.
void syncDirectory(const fs::path& directory) {
  UniqueFd fd = openChecked(directory, O_RDONLY | O_DIRECTORY, "Could not open directory");
  if (::fsync(fd.get()) != 0) throwErrno("Could not flush directory", directory);
}

class PosixWritableFile final : public WritableFile {
 public:
  PosixWritableFile(fs::path path, UniqueFd fd) : path_(std::move(path)), fd_(std::move(fd)) {}

  void append(std::string_view bytes) override {
    while (!bytes.empty()) {
      ssize_t count = ::write(fd_.get(), bytes.data(), bytes.size());
      if (count < 0 && errno == EINTR) continue;
      if (count < 0) throwErrno("Could not write file", path_);
      bytes.remove_prefix(static_cast<std::size_t>(count));
    }
  }
  void sync() override {
    if (::fsync(fd_.get()) != 0) throwErrno("Could not flush file", path_);
  }
  void close() override {
    if (fd_.close() != 0) throwErrno("Could not close file", path_);
  }

 private:
  fs::path path_;
  UniqueFd fd_;
};

class PosixFileManager final : public FileManager {
 public:
  std::vector<fs::path> applicationSupportDirectories() const override {
#ifdef __APPLE__
    fs::path home = homeDirectory();
    if (home.empty()) return {};
    return {home / "Library" / "Application Support"};
#else
    const char* dataHome = std::getenv("XDG_DATA_HOME");
    if (dataHome != nullptr && dataHome[0] == '/') return {fs::path(dataHome)};
    fs::path home = homeDirectory();
    if (home.empty()) return {};
    return {home / ".local" / "share"};
#endif
  }

  fs::path homeDirectory() const override {
    const char* home = std::getenv("HOME");
    if (home != nullptr && home[0] != '\0') return fs::path(home);
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* result = nullptr;
    if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &result) == 0 &&
        result != nullptr && result->pw_dir != nullptr) {
      return fs::path(result->pw_dir);
    }
    return {};
  }

  fs::path currentDirectory() const override {
    return fs::current_path();
  }

  bool fileExists(const fs::path& path) const override {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0;
  }

  bool isExecutableFile(const fs::path& path) const override {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
           ::access(path.c_str(), X_OK) == 0;
  }

  std::string contents(const fs::path& path) const override {
    // Without blocking: opening a FIFO for reading would otherwise wait for a writer for ever.
    UniqueFd fd = openChecked(path, O_RDONLY | O_NONBLOCK, "Could not open file");
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0) throwErrno("Could not read file", path);
    if (S_ISDIR(info.st_mode)) throwErrno("Could not read file", path, EISDIR);
    // A FIFO, a socket or a device (a link to /dev/zero never ends) is no document.
    if (!S_ISREG(info.st_mode)) throwErrno("Could not read file: not a regular file", path, EINVAL);
    if (info.st_size > static_cast<off_t>(maximumFileSize)) tooLarge(path);
    std::string bytes;
    if (info.st_size > 0) bytes.reserve(static_cast<std::size_t>(info.st_size));
    char buffer[65536];
    for (;;) {
      ssize_t count = ::read(fd.get(), buffer, sizeof buffer);
      if (count < 0 && errno == EINTR) continue;
      if (count < 0) throwErrno("Could not read file", path);
      if (count == 0) break;
      bytes.append(buffer, static_cast<std::size_t>(count));
      // The file may grow while it is read.
      if (bytes.size() > maximumFileSize) tooLarge(path);
    }
    return bytes;
  }

  std::error_code brokenLink(const fs::path& path) const override {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0 || !S_ISLNK(info.st_mode)) return {};
    if (::stat(path.c_str(), &info) == 0) return {};
    return {errno, std::generic_category()};
  }

  std::unique_ptr<WritableFile> createWritableFile(const fs::path& path) const override {
    return std::make_unique<PosixWritableFile>(
        path, openChecked(path, O_WRONLY | O_CREAT | O_TRUNC, "Could not create file", 0666));
  }

  void createFile(const fs::path& path) const override {
    // Without blocking: an existing FIFO would wait for a reader.
    openChecked(path, O_WRONLY | O_CREAT | O_NONBLOCK, "Could not create file", 0666);
  }

  void createDirectory(const fs::path& path, bool intermediates) const override {
    std::error_code error;
    if (intermediates) {
      fs::create_directories(path, error);
    } else {
      fs::create_directory(path, error);
    }
    if (error) throw fs::filesystem_error("Could not create directory", path, error);
    if (!fs::is_directory(path, error)) throwErrno("Could not create directory", path, EEXIST);
  }

  std::vector<std::string> contentsOfDirectory(const fs::path& path) const override {
    UniqueFd fd = openChecked(path, O_RDONLY | O_DIRECTORY, "Could not list directory");
    DIR* directory = ::fdopendir(fd.get());
    if (directory == nullptr) throwErrno("Could not list directory", path);
    fd.release();  // now owned by the DIR stream
    std::unique_ptr<DIR, int (*)(DIR*)> owner(directory, ::closedir);
    std::vector<std::string> names;
    for (;;) {
      errno = 0;
      const dirent* entry = ::readdir(directory);
      if (entry == nullptr) {
        if (errno != 0) throwErrno("Could not list directory", path);
        break;
      }
      std::string_view name(entry->d_name);
      if (name != "." && name != "..") names.emplace_back(name);
    }
    return names;
  }

  void replaceItem(const fs::path& target, const fs::path& replacement) const override {
    if (::rename(replacement.c_str(), target.c_str()) != 0) {
      throwErrno("Could not replace file", replacement, target);
    }
    syncDirectory(parentOf(target));
  }

  void moveItem(const fs::path& from, const fs::path& to) const override {
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) != 0) {
      if (errno != EINVAL && errno != ENOSYS) throwErrno("Could not move item", from, to);
      // The file system cannot refuse an existing destination in one step.
      if (fileExists(to)) throwErrno("Could not move item", from, to, EEXIST);
      if (::rename(from.c_str(), to.c_str()) != 0) throwErrno("Could not move item", from, to);
    }
    syncDirectory(parentOf(to));
  }

  void removeItem(const fs::path& path) const override {
    std::error_code error;
    fs::remove_all(path, error);
    if (error) throw fs::filesystem_error("Could not remove item", path, error);
  }

  std::optional<Clock::time_point> modificationDate(const fs::path& path) const override {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return std::nullopt;
    auto since =
        std::chrono::seconds(info.st_mtim.tv_sec) + std::chrono::nanoseconds(info.st_mtim.tv_nsec);
    return Clock::time_point(std::chrono::duration_cast<Clock::duration>(since));
  }

  void setModificationDate(const fs::path& path, Clock::time_point date) const override {
    auto since = std::chrono::duration_cast<std::chrono::nanoseconds>(date.time_since_epoch());
    auto seconds = std::chrono::floor<std::chrono::seconds>(since);
    timespec times[2]{};
    times[0].tv_nsec = UTIME_OMIT;
    times[1].tv_sec = static_cast<time_t>(seconds.count());
    times[1].tv_nsec = static_cast<long>((since - seconds).count());
    if (::utimensat(AT_FDCWD, path.c_str(), times, 0) != 0) {
      throwErrno("Could not set modification date", path);
    }
  }
};

}  // namespace

void FileManager::write(const fs::path& path, std::string_view bytes) const {
  auto file = createWritableFile(path);
  file->append(bytes);
  file->sync();
  file->close();
}

std::shared_ptr<FileManager> FileManager::defaultManager() {
  static const std::shared_ptr<FileManager> manager = std::make_shared<PosixFileManager>();
  return manager;
}

}  // namespace brisola
