#include "brisola/runtime/heartbeat.hpp"

#include <exception>

#include "brisola/model/config.hpp"

namespace brisola {

namespace fs = std::filesystem;

std::optional<fs::path> BrisolaCore::serviceHeartbeatFileURL(const FileManager& fileManager) {
  auto directories = fileManager.applicationSupportDirectories();
  if (directories.empty()) return std::nullopt;
  return directories.front() / Branding::dataDirectoryName / "service-heartbeat";
}

namespace ServiceHeartbeat {

void beat(const fs::path& at, Clock::time_point now, const FileManager& fileManager) {
  // Each step on its own: the file is attempted even when the directory could not be made,
  // and the date is attempted whatever happened before. A beat never fails the caller.
  bool exists = false;
  try {
    exists = fileManager.fileExists(at);
  } catch (const std::exception&) {
  }
  if (!exists) {
    try {
      fileManager.createDirectory(at.parent_path(), true);
    } catch (const std::exception&) {
    }
    try {
      fileManager.createFile(at);
    } catch (const std::exception&) {
    }
  }
  try {
    fileManager.setModificationDate(at, now);
  } catch (const std::exception&) {
  }
}

void beat(const fs::path& at, Clock::time_point now) {
  beat(at, now, *FileManager::defaultManager());
}

std::optional<Clock::time_point> lastBeat(const fs::path& at, const FileManager& fileManager) {
  try {
    return fileManager.modificationDate(at);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::optional<Clock::time_point> lastBeat(const fs::path& at) {
  return lastBeat(at, *FileManager::defaultManager());
}

bool isFresh(const fs::path& at, Clock::time_point now, const FileManager& fileManager) {
  auto last = lastBeat(at, fileManager);
  if (!last) return false;
  return std::chrono::duration<double>(now - *last).count() <= staleAfter;
}

bool isFresh(const fs::path& at, Clock::time_point now) {
  return isFresh(at, now, *FileManager::defaultManager());
}

}  // namespace ServiceHeartbeat

}  // namespace brisola
