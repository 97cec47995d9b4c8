#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace util {

// What to run. `argv` is executed (argv[0] is the program path, execv-style,
// never through a shell); `commandLine` is only what is logged and shown.
struct CommandDetails {
  std::string commandLine;
  std::vector<std::string> argv;
};

// Filled by ExecuteCommand, except the two inputs `timeLimitSeconds` and
// `outputCapKiB`. Field order is part of the interface: callers initialise it
// positionally as {"", "", 0, 0, limit, 0, cap, 0}.
struct CommandResult {
  std::string stdOut;
  std::string stdErr;
  int exitCode = 0;
  // Signal that ended the child, 0 when it exited.
  int signalNumber = 0;
  // Input: 0 means no limit.
  uint64_t timeLimitSeconds = 0;
  // 1 when the time limit ran out and the tree was killed.
  int timedOut = 0;
  // Input: most KiB kept per stream; 0 means unbounded.
  uint64_t outputCapKiB = 0;
  // 1 when either stream was cut at the cap.
  int outputTruncated = 0;
};

// Runs one command to completion.
//
// The child gets /dev/null as stdin, a process group of its own and the
// caller's environment. Both output pipes are read in one poll loop. The
// runner returns once the child is reaped and what already sits in the pipes
// is drained, even if a background descendant still holds a pipe open.
//
// Exit code: the child's exit status; 128 + n when signal n ended it; 127
// with the reason in stdErr when the program could not be started. On time
// out the whole process group is killed (and, with SetKillChildHierarchy(true),
// every descendant, including those that called setsid or were orphaned),
// exitCode is 137 and stdErr gains "timed out after N s". A limit of more than
// a century counts as a century: the command is never killed early because
// its deadline could not be represented.
//
// Returns false only when no child could be created at all. Safe to call from
// any thread.
bool ExecuteCommand(const CommandDetails& details, CommandResult& result);

// Whether a time-out also kills descendants outside the child's process group.
void SetKillChildHierarchy(bool enable);

// Reaps every child of the calling process that has exited and that no
// running ExecuteCommand owns: the orphans that a command's tree left behind
// and that came back to this process (a child subreaper) once their parent
// was gone. Children that still run are left alone; a finished command may
// have started a service on purpose. Returns how many were reaped.
// REQUIRES: the caller starts no children of its own outside ExecuteCommand
// whose status it means to collect later.
int ReapExitedOrphans();

// While enabled, every command's run reaps ended orphans itself
// (ReapExitedOrphans): once it has ended, and about once a second while it
// runs, so that no zombie lingers for the length of a long command.
// REQUIRES: as for ReapExitedOrphans.
void SetReapExitedOrphans(bool enable);

}  // namespace util
