// Any manifest text: a result code, never a crash, a hang or a leak.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzzlog.h"
#include "manifest/deploymentmanifest.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  patchmgmt::DeploymentJobManifest manifest("vendor");
  const int32_t result = manifest.ParseManifestText(std::string(reinterpret_cast<const char*>(data), size));
  if (result != patchmgmt::kManifestOk && result != patchmgmt::kManifestInvalid) std::abort();
  if (result == patchmgmt::kManifestOk) manifest.DumpManifest();
  return 0;
}
