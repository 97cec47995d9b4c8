#pragma once

// RapidJSON as this library uses it: its consistency checks stay active in
// every build type, so a wrong-typed access ends the process at once instead
// of reading garbage after NDEBUG removed the library's own assert().

#include <cstdio>
#include <cstdlib>

namespace zelkorcommon {
[[noreturn]] inline void JsonConsistencyFailure(const char* check, const char* file, int line) {
  std::fprintf(stderr, "JSON consistency check failed: %s (%s:%d)\n", check, file, line);
  std::abort();
}
}  // namespace zelkorcommon

#ifndef RAPIDJSON_ASSERT
#define RAPIDJSON_ASSERT(x) \
  ((x) ? static_cast<void>(0) : ::zelkorcommon::JsonConsistencyFailure(#x, __FILE__, __LINE__))
#endif
#ifndef RAPIDJSON_HAS_STDSTRING
#define RAPIDJSON_HAS_STDSTRING 1
#endif

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
