#pragma once

// Outside the patch run: look-ups on the host that the agent's other callers
// use (the OS filter of a manifest, finding and stopping a running tool, the
// tool's installed path). No step of the run calls them.

#include <string>
#include <vector>

namespace patchmgmt {

// Whether `filter`, a case-insensitive unanchored regular expression, matches
// anywhere in `hostOs`. False when the expression does not compile.
bool CheckOSFilter(const std::string& hostOs, const std::string& filter);

// Ids of the processes whose command line matches `pattern` (pgrep -f).
std::vector<int> FindProcessIds(const std::string& pattern);

// Sends SIGUSR1 to the processes whose command line matches `pattern`
// (pkill -SIGUSR1 -f).
void SendStopSignal(const std::string& pattern);

// Where the agent installs the tool: data directory + "bin/zelkor-patchmgmt-tool".
std::string GetToolPath();

}  // namespace patchmgmt
