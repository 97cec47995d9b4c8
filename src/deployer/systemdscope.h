#pragma once

#include <sys/types.h>

#include <string>

namespace patchmgmt {

// On a host that systemd runs (/run/systemd/system exists), asks systemd over
// the system bus for a transient scope "zelkor-patchmgmt-<pid>.scope" holding
// `pid`, so that stopping or restarting the agent's service, whatever the
// cgroup layout, leaves the run alone. `runId` is the run id as decimal text;
// the scope's description shows it unsigned.
//
// Never fails the run and never takes more than two seconds: an unreachable
// bus, a refusal or a job that does not end well is one warning line. On a
// host without systemd nothing is tried and nothing is logged.
void MoveToOwnSystemdScope(pid_t pid, const std::string& jobId, const std::string& runId);

}  // namespace patchmgmt
