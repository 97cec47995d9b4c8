#pragma once

#include <atomic>

namespace patchmgmt {

// The stop state that signal handlers share with the run. A handler may run on
// any thread, the interim thread included, and may touch nothing that locks:
// the flags are lock-free one-byte atomics, and every write is sequentially
// consistent (a full fence) so that the main thread and the patcher see it at
// their next read.
struct ToolStopper {
  // A SIGUSR1 arrived: patching stops at the next check.
  static inline std::atomic<bool> sigUsr1Recv_{false};
  // Patching is armed: SIGTERM alone no longer ends the process.
  static inline std::atomic<bool> isPatchingOn_{false};
  // Reserved: cleared at start, never set or read.
  static inline std::atomic<bool> stopSignal_{false};

  static void Set(std::atomic<bool>& flag, bool value) { flag.store(value, std::memory_order_seq_cst); }
};
static_assert(std::atomic<bool>::is_always_lock_free && sizeof(std::atomic<bool>) == 1,
              "a signal handler may only touch a lock-free byte");

// Status of every stop requested through the signals.
constexpr int kStoppedExitCode = 57;

void handleSigUsr1(int);
void handleSigTerm(int);

// Ends the process with 57 when patching is not armed or a SIGUSR1 came;
// returns otherwise. The run loop's check between patches.
void EndIfStopRequested();

// SIGTERM to handleSigTerm, SIGUSR1 to handleSigUsr1, SIGPIPE ignored.
void InstallSignalHandlers();

}  // namespace patchmgmt
