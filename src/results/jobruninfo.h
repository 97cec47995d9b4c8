#pragma once

#include <cstdint>
#include <string>

namespace patchmgmt {

// The job summary at the head of every result document.
struct JobRunInfo {
  std::string jobId;
  uint64_t manifestInstanceId = 0;
  uint64_t runId = 0;
  std::string vendorId;
  // Milliseconds since the epoch.
  uint64_t startTime = 0;
  uint64_t endTime = 0;
  std::string agentVersion;
  // Copied unchanged into the documents; left out of them when empty.
  std::string jobReceivedDateTime;
};

}  // namespace patchmgmt
