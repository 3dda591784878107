#pragma once

#include "supervision/child_process.hpp"

namespace brisola {

// fork and exec of the executable with the complete environment. The child inherits only
// standard input, output and error (every other descriptor is closed in it, close-on-exec or
// not) and the current directory; it starts with every signal at its default disposition and
// an empty signal mask, whatever the service ignores or blocks for itself. It is killed
// (SIGKILL) when the thread that launched it ends, so launch from the service's main thread:
// nothing the service started outlives it, however the service ends.
//
// A handle destroyed while its child has not been reaped kills the child (SIGKILL) and reaps
// it, waiting at most a second, so a dropped handle leaves neither a running helper nor a
// zombie behind.
class PosixProcessLauncher final : public ProcessLauncher {
 public:
  LaunchResult launch(const std::filesystem::path& executable,
                      const EnvironmentMap& environment) override;
  // One waitid over all children, which leaves them to be collected by their handles.
  bool anyChildMayHaveEnded() override;

  // A process-wide instance; the launcher has no state.
  static PosixProcessLauncher& shared();
};

}  // namespace brisola
