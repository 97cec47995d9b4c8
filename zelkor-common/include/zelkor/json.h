#pragma once

// RapidJSON as the agent's components use it. Every user of the library, in
// the common library and in the tool alike, includes it through this header,
// so that all of them see one assertion hook and one set of parse defaults:
// two definitions would make the same template instantiations differ between
// the libraries that are linked into one program.
//
// - The library's consistency checks stay active in every build type: a
//   wrong-typed access ends the process at once instead of reading garbage
//   after NDEBUG removed the library's own assert().
// - Parsing never recurses: the default parser takes one stack frame per
//   nesting level, so a document of a hundred thousand brackets would end the
//   process. The iterative parser accepts exactly the same grammar. A parse
//   that names flags of its own must add kParseDefaultFlags to them, or it
//   is recursive again.

#ifdef RAPIDJSON_RAPIDJSON_H_
#error "zelkor/json.h must come before any RapidJSON header"
#endif

#include <cstdio>
#include <cstdlib>

namespace zelkorcommon {
[[noreturn]] inline void JsonConsistencyFailure(const char* check, const char* file, int line) {
  std::fprintf(stderr, "JSON consistency check failed: %s (%s:%d)\n", check, file, line);
  std::abort();
}
}  // namespace zelkorcommon

#define RAPIDJSON_ASSERT(x) \
  ((x) ? static_cast<void>(0) : ::zelkorcommon::JsonConsistencyFailure(#x, __FILE__, __LINE__))
#define RAPIDJSON_HAS_STDSTRING 1
#define RAPIDJSON_PARSE_DEFAULT_FLAGS kParseIterativeFlag

#include <rapidjson/document.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
