#pragma once

#include <string>

#include "support/sandbox.h"

namespace pmtest {

// Points the tool's logger, at trace level, at a fresh log file in `dir` and
// returns that file's path. Call it before starting any thread that logs.
std::string LogToSandbox(const TempDir& dir);

}  // namespace pmtest
