#pragma once

#include "results/jobruninfo.h"

namespace patchmgmt {

// A job whose run id is the largest the agent can send.
inline JobRunInfo SampleJob() {
  JobRunInfo job;
  job.jobId = "J1";
  job.manifestInstanceId = 42;
  job.runId = 18446744073709551615ULL;
  job.vendorId = "v1";
  job.startTime = 0;
  job.endTime = 1709622489123ULL;  // in the final document only
  job.agentVersion = "1.2.3";
  job.jobReceivedDateTime = "2024-03-05T07:00:00.000Z";
  return job;
}

}  // namespace patchmgmt
