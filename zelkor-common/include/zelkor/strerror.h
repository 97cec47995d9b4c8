#pragma once

#include <string>

namespace util {

// Thread-safe text of an errno value.
std::string strerror(int errnum);

}  // namespace util
