#pragma once

#include <sys/types.h>

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>

namespace brisola {

using EnvironmentMap = std::map<std::string, std::string>;

// One launched helper. The handle is the only owner of the child: it reaps the child when it
// notices the end, and signals it only while it is not yet reaped (so never a recycled pid).
class ChildProcess {
 public:
  virtual ~ChildProcess() = default;

  virtual pid_t pid() const = 0;
  // False once the child has ended; the first such call collects (reaps) it.
  virtual bool isRunning() = 0;
  // The exit code after a normal exit, the signal number when a signal ended the child.
  // Meaningful only after isRunning() has returned false.
  virtual int terminationStatus() const = 0;
  // The signal that ended the child, when one did (then also its terminationStatus()).
  virtual std::optional<int> terminationSignal() const { return std::nullopt; }
  // Asks the child to end (SIGTERM); does not wait. Nothing happens once it has been reaped.
  virtual void terminate() = 0;
  // Ends the child for certain (SIGKILL); does not wait. Nothing happens once it has been reaped.
  virtual void kill() = 0;
};

// Why a launch failed, as a readable text: "Could not launch " + path + ": " + system error.
struct LaunchError {
  std::string description;
  bool operator==(const LaunchError&) const = default;
};

using LaunchResult = std::variant<std::unique_ptr<ChildProcess>, LaunchError>;

class ProcessLauncher {
 public:
  virtual ~ProcessLauncher() = default;
  // Starts the executable (no arguments besides its own path) with exactly the given
  // environment. Reports failure in the result; never throws for a launch that fails.
  virtual LaunchResult launch(const std::filesystem::path& executable,
                              const EnvironmentMap& environment) = 0;
  // Whether any child may have ended and not been collected yet. While the answer is no, every
  // helper is known to run without asking each one; a launcher that cannot tell says yes.
  virtual bool anyChildMayHaveEnded() { return true; }
};

}  // namespace brisola
