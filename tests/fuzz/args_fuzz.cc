// Any argument file: loaded or refused, validated, its paths resolved and its
// dump logged, never a crash.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "args/commandlineargs.h"
#include "fuzzlog.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The loader reads a path; a memory file spares the disk.
  static const int input = memfd_create("arguments", 0);
  static const std::string inputPath = "/proc/self/fd/" + std::to_string(input);
  if (input < 0) std::abort();
  if (ftruncate(input, 0) != 0 || pwrite(input, data, size, 0) != static_cast<ssize_t>(size)) return 0;
  patchmgmt::protobuf::CommandlineArgsInProtoBuf arguments;
  if (!arguments.LoadFromFile(inputPath)) return 0;
  arguments.LogArguments();
  if (arguments.Validate()) arguments.ResolveRelativePaths("/start");
  return 0;
}
