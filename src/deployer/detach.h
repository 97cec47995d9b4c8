#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace patchmgmt {

// Forks the patching process off the agent. Returns only in the detached
// child (own session, working directory "/", exit-code file created); the
// calling process ends here with 0 once the child acknowledged or ten seconds
// passed. Ends with 44 (no pipe) or 58 (no fork, or no session).
void DetachPatchProcess(const std::string& resultDirectory, const std::string& jobId,
                        const std::string& runId);

// Remembers the descriptors above standard error that the process was started
// with, so that the detached child can close exactly those, and puts /dev/null
// on any standard stream that was started closed, so that no file of the
// tool's own takes its number. Call first thing, before anything of the
// tool's own is opened.
void RecordInheritedDescriptors();

// The file through which the detached child hands its exit status to the agent:
// resultDirectory + "/." + jobId + "." + runId + "." + pid + ".exit".
class ExitCodeFile {
 public:
  static inline int32_t exitCode_ = 0;
  static inline std::string file_;

  // Names the file and creates it empty. Logs failures, never throws.
  static void Create(const std::string& resultDirectory, const std::string& jobId, const std::string& runId,
                     int pid);
  // Writes exitCode_ in decimal, nothing else, into the space Create set
  // aside. Logs failures, never throws.
  static void Save();

  // Room for any 32-bit code in decimal, with its sign.
  static constexpr off_t kReservedBytes = 16;
};

// The file-creation mask of the whole run: nothing the tool or its deployment
// script creates is writable by group or others.
constexpr mode_t kFileCreationMask = 022;

// Where the detached child registers itself to leave the agent's service group.
constexpr const char* kSystemdTasksPath = "/sys/fs/cgroup/systemd/tasks";

}  // namespace patchmgmt
