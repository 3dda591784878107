#pragma once

#include "supervision/child_process.hpp"

namespace brisola {

// posix_spawn with the executable and the complete environment. The child inherits only
// standard input, output and error (every other descriptor is closed in it, close-on-exec or
// not) and the current directory; it starts with every signal at its default disposition and
// an empty signal mask, whatever the service ignores or blocks for itself.
//
// A handle destroyed while its child has not been reaped kills the child (SIGKILL) and reaps
// it, waiting at most a second, so a dropped handle leaves neither a running helper nor a
// zombie behind.
class PosixProcessLauncher final : public ProcessLauncher {
 public:
  LaunchResult launch(const std::filesystem::path& executable,
                      const EnvironmentMap& environment) override;

  // A process-wide instance; the launcher has no state.
  static PosixProcessLauncher& shared();
};

}  // namespace brisola
