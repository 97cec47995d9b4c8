#pragma once

#include <string>
#include <vector>

namespace patchmgmt {

// The whole content of a file. Throws std::runtime_error (after logging) when
// the file cannot be opened; an empty or unsizable file reads as empty text.
std::string ReadFile(const std::string& path);

// Creates the directory and any missing parents, owner-only, when the path
// does not exist yet. An existing path is left as it is. Logs, never throws.
void CreateDirectory(const std::string& path);

// Creates an empty owner-only file when the path does not exist yet. Logs,
// never throws.
void CreateFile(const std::string& path);

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
