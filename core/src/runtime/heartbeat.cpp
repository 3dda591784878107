#include "brisola/runtime/heartbeat.hpp"

#include <ctime>
#include <exception>

#include "brisola/model/config.hpp"
#include "model/json_support.hpp"

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

Status status(Clock::time_point now, const FileManager& fileManager) {
  Status status;
  status.file = BrisolaCore::serviceHeartbeatFileURL(fileManager);
  if (!status.file) return status;
  status.lastBeat = lastBeat(*status.file, fileManager);
  status.alive = isFresh(*status.file, now, fileManager);
  if (status.lastBeat) {
    status.secondsSinceLastBeat = std::chrono::duration<double>(now - *status.lastBeat).count();
  }
  return status;
}

}  // namespace ServiceHeartbeat

namespace {

std::string utcText(ServiceHeartbeat::Clock::time_point time) {
  const std::time_t seconds = ServiceHeartbeat::Clock::to_time_t(time);
  std::tm utc{};
  ::gmtime_r(&seconds, &utc);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text;
}

}  // namespace

std::string encodeJSON(const ServiceHeartbeat::Status& status) {
  json::Json object{
      {"alive", status.alive},
      {"heartbeatFile", status.file ? json::Json(status.file->string()) : json::Json()},
      {"lastBeat", status.lastBeat ? json::Json(utcText(*status.lastBeat)) : json::Json()}};
  json::putOptional(object, "secondsSinceLastBeat", status.secondsSinceLastBeat);
  return json::dump(object);
}

}  // namespace brisola
