#pragma once

#include <string>

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

}  // namespace patchmgmt
