#pragma once

#include <string>

#include "results/jobruninfo.h"
#include "results/patchresult.h"
#include "util/json.h"

namespace patchmgmt {

constexpr int kResultOpenFailed = 48;
constexpr int kResultWriteFailed = 49;

// Writes resultDirectory/<jobId>_<runId>_status.json. 0 on success, 48 when
// the file cannot be opened, 49 when it cannot be written in full (nothing at
// the document's path changes then).
int GenerateFinalResult(const std::string& resultDirectory, const JobRunInfo& jobRunInfo,
                        const deployer::PatchResultMap& results);

// The final document's text, compact, appended to `text`.
void WriteFinalDocument(const JobRunInfo& jobRunInfo, const deployer::PatchResultMap& results,
                        rapidjson::StringBuffer& text);

}  // namespace patchmgmt
