#pragma once

namespace patchmgmt {

// The whole run of the tool, from logging set-up to the saved exit code.
// Returns the process exit status.
int RunTool(int argc, char** argv);

}  // namespace patchmgmt
