#pragma once

#include <string>

#include "deployer/patchresult.h"
#include "results/jobruninfo.h"

namespace patchmgmt {

constexpr int kResultOpenFailed = 48;
constexpr int kResultWriteFailed = 49;

// Writes resultDirectory/<jobId>_<runId>_status.json. 0 on success, 48 when
// the file cannot be opened, 49 when writing it throws.
int GenerateFinalResult(const std::string& resultDirectory, const JobRunInfo& jobRunInfo,
                        const deployer::PatchResultMap& results);

}  // namespace patchmgmt
