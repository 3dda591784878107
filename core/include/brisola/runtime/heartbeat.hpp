#pragma once

// The service's heartbeat: a file whose modification time the service moves once per cycle.
// Any program judges the service alive when that time is at most 10 s old.

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>

#include "brisola/platform/file_manager.hpp"

namespace brisola {

namespace BrisolaCore {
// <first Application Support directory>/Brisola/service-heartbeat; nothing when the file
// manager knows no Application Support directory.
std::optional<std::filesystem::path> serviceHeartbeatFileURL(const FileManager& fileManager);
}  // namespace BrisolaCore

// No operation reports an error: an unwritable location leaves the heartbeat stale, and a
// missing file reads as no heartbeat.
namespace ServiceHeartbeat {

using Clock = std::chrono::system_clock;

// Seconds after which a beat is stale.
inline constexpr double staleAfter = 10.0;

// Creates the directory and an empty file when nothing exists at `at`, then sets the
// modification time to `now`. An existing file keeps its content.
void beat(const std::filesystem::path& at, Clock::time_point now, const FileManager& fileManager);
void beat(const std::filesystem::path& at, Clock::time_point now);

std::optional<Clock::time_point> lastBeat(const std::filesystem::path& at,
                                          const FileManager& fileManager);
std::optional<Clock::time_point> lastBeat(const std::filesystem::path& at);

// True when now − last beat ≤ 10 s; a beat in the future is fresh.
bool isFresh(const std::filesystem::path& at, Clock::time_point now,
             const FileManager& fileManager);
bool isFresh(const std::filesystem::path& at, Clock::time_point now);

// What the heartbeat at the default location says at one moment; no file when the file
// manager knows no location.
struct Status {
  bool alive = false;
  std::optional<std::filesystem::path> file;
  std::optional<Clock::time_point> lastBeat;
  std::optional<double> secondsSinceLastBeat;
  bool operator==(const Status&) const = default;
};
Status status(Clock::time_point now, const FileManager& fileManager);

}  // namespace ServiceHeartbeat

// "alive", and "heartbeatFile" and "lastBeat" (UTC, to the second) as null when absent;
// "secondsSinceLastBeat" only with a last beat.
std::string encodeJSON(const ServiceHeartbeat::Status& status);

}  // namespace brisola
