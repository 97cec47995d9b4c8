// Any script output file: the status the file gives, or a failure with its
// reason; never a status left over from before.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "deployer/patcher.h"
#include "fuzzlog.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace patchmgmt::deployer;
  int32_t status = kInstallSuccess;
  int64_t exitCode = 0;
  std::string message;
  ParseScriptResult(std::string(reinterpret_cast<const char*>(data), size), "output", status, exitCode,
                    message);
  const bool statusUnread =
      message == "Failed to parse json result output" || message == "Failed to parse custom exit code";
  if (statusUnread && status != kInstallFailed) std::abort();
  if (!statusUnread && !message.empty() && message != "Failed to parse exit code") std::abort();
  return 0;
}
