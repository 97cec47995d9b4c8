#pragma once

#include <string>
#include <string_view>

namespace patchmgmt {

// `text` with every invalid UTF-8 sequence replaced by U+FFFD, so that a
// document or a D-Bus string built from it is valid whatever bytes a script
// or a manifest carried. Each maximal invalid subpart (as Unicode defines it)
// becomes one replacement character; valid text, NUL bytes included, passes
// unchanged.
std::string ToValidUtf8(std::string_view text);

// Whether `text` is valid UTF-8.
bool IsValidUtf8(std::string_view text);

}  // namespace patchmgmt
