#pragma once

#include <atomic>

namespace patchmgmt {

// The stop state that signal handlers share with the run. The flags are plain
// bytes (a handler may touch nothing that locks); every write is followed by a
// full fence so that the main thread and the patcher see it at their next read.
struct ToolStopper {
  // A SIGUSR1 arrived: patching stops at the next check.
  static inline volatile bool sigUsr1Recv_ = false;
  // Patching is armed: SIGTERM alone no longer ends the process.
  static inline volatile bool isPatchingOn_ = false;
  // Reserved: cleared at start, never set or read.
  static inline volatile bool stopSignal_ = false;

  static void Set(volatile bool& flag, bool value) {
    flag = value;
    std::atomic_thread_fence(std::memory_order_seq_cst);
  }
};

// Status of every stop requested through the signals.
constexpr int kStoppedExitCode = 57;

void handleSigUsr1(int);
void handleSigTerm(int);

// SIGTERM to handleSigTerm, SIGUSR1 to handleSigUsr1, SIGPIPE ignored.
void InstallSignalHandlers();

}  // namespace patchmgmt
