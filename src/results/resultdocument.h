#pragma once

// Pieces shared by the final and the interim result documents.

#include <cstdint>
#include <string>

#include "results/jobruninfo.h"
#include "util/json.h"

namespace patchmgmt {

using JsonAllocator = rapidjson::Document::AllocatorType;

// The job header of the result object: "jobId" to "startDateTime", then
// "endDateTime" when `withEndTime`, then "jobReceivedDateTime" when known, and
// "resultType". Every string is copied into `allocator`.
rapidjson::Value ResultHeader(const JobRunInfo& jobRunInfo, bool withEndTime, const char* resultType,
                              JsonAllocator& allocator);

// An element of "failed". The three status codes are always 0 in this tool.
rapidjson::Value FailedPatchEntry(rapidjson::Value id, uint64_t size, rapidjson::Value successPackages,
                                  rapidjson::Value pendingExecutionPackages,
                                  rapidjson::Value alreadyInstalledPackages,
                                  rapidjson::Value notApplicablePackages, rapidjson::Value failedPackages,
                                  JsonAllocator& allocator);

// An element of "failed" for a patch of which nothing but its id is known.
rapidjson::Value EmptyFailedPatchEntry(rapidjson::Value id, JsonAllocator& allocator);

// Compact text of `value`: no white space, keys in insertion order.
void SerializeCompact(const rapidjson::Value& value, rapidjson::StringBuffer& out);

}  // namespace patchmgmt
