#pragma once

// Every use of RapidJSON in the tool includes it through this header, so that
// the library's consistency checks stay active in every build type: a
// wrong-typed access ends the process deterministically instead of reading
// garbage once NDEBUG removes the library's own assert().

#include <cstdio>
#include <cstdlib>

namespace patchmgmt {
[[noreturn]] inline void JsonConsistencyFailure(const char* check, const char* file, int line) {
  std::fprintf(stderr, "JSON consistency check failed: %s (%s:%d)\n", check, file, line);
  std::abort();
}
}  // namespace patchmgmt

#ifndef RAPIDJSON_ASSERT
#define RAPIDJSON_ASSERT(x) \
  ((x) ? static_cast<void>(0) : ::patchmgmt::JsonConsistencyFailure(#x, __FILE__, __LINE__))
#endif
#ifndef RAPIDJSON_HAS_STDSTRING
#define RAPIDJSON_HAS_STDSTRING 1
#endif

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
