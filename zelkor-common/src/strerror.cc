#include "zelkor/strerror.h"

#include <string.h>

namespace util {

std::string strerror(int errnum) {
  char buffer[256];
  // The GNU strerror_r returns either `buffer` or a pointer to a static,
  // immutable text; both are safe to copy from while other threads call it.
  const char* text = ::strerror_r(errnum, buffer, sizeof buffer);
  return text != nullptr ? std::string(text) : "Unknown error " + std::to_string(errnum);
}

}  // namespace util
