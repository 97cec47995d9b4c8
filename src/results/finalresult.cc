#include "results/finalresult.h"

#include <cerrno>
#include <exception>
#include <fstream>

#include "results/resultdocument.h"
#include "util/files.h"
#include "util/json.h"
#include "util/log.h"
#include "zelkor/strerror.h"

namespace patchmgmt {

namespace {

using rapidjson::Value;
using Allocator = JsonAllocator;

// Patch ids and package names live in the results map for the whole call,
// so the tree refers to them instead of copying every string.
Value RefString(const std::string& text) { return Value(rapidjson::StringRef(text.data(), text.size())); }

Value PackageNames(const std::set<std::string>& names, Allocator& allocator) {
  Value array(rapidjson::kArrayType);
  array.Reserve(static_cast<rapidjson::SizeType>(names.size()), allocator);
  for (const auto& name : names) array.PushBack(RefString(name), allocator);
  return array;
}

Value FailedPackages(const std::vector<deployer::FailedPackage>& packages, Allocator& allocator) {
  Value array(rapidjson::kArrayType);
  array.Reserve(static_cast<rapidjson::SizeType>(packages.size()), allocator);
  for (const auto& package : packages) {
    std::string errorMessage;
    if (!package.stdOut.empty()) errorMessage = "stdOut: [" + package.stdOut + "], ";
    errorMessage += package.errorText;

    Value entry(rapidjson::kObjectType);
    entry.AddMember("name", RefString(package.name), allocator);
    entry.AddMember("exitCode", Value(package.exitCode), allocator);
    entry.AddMember(
        "errorMessage",
        Value(errorMessage.data(), static_cast<rapidjson::SizeType>(errorMessage.size()), allocator),
        allocator);
    array.PushBack(entry, allocator);
  }
  return array;
}

// A "failed" element from the patch's record.
Value FailedPatchFromResult(const std::string& patchId, const deployer::PatchResult& result,
                            Allocator& allocator) {
  return FailedPatchEntry(RefString(patchId), result.size, PackageNames(result.successPackages, allocator),
                          PackageNames(result.pendingExecutionPackages, allocator),
                          PackageNames(result.alreadyInstalledPackages, allocator),
                          PackageNames(result.notApplicablePackages, allocator),
                          FailedPackages(result.failedPackages, allocator), allocator);
}

void BuildFinalDocument(const JobRunInfo& jobRunInfo, const deployer::PatchResultMap& results,
                        rapidjson::StringBuffer& text) {
  rapidjson::Document document(rapidjson::kObjectType);
  Allocator& allocator = document.GetAllocator();

  Value result = ResultHeader(jobRunInfo, true, "FINAL", allocator);
  Value success(rapidjson::kArrayType);
  Value failed(rapidjson::kArrayType);
  Value alreadyInstalled(rapidjson::kArrayType);
  Value notApplicable(rapidjson::kArrayType);
  Value patchExecutionTime(rapidjson::kArrayType);
  bool executionTimeUsed = false;

  for (const auto& [patchId, record] : results) {
    if (record && record->executed) {
      Value timing(rapidjson::kObjectType);
      timing.AddMember("id", RefString(patchId), allocator);
      timing.AddMember("duration", Value(record->executionTime), allocator);
      patchExecutionTime.PushBack(timing, allocator);
      executionTimeUsed = true;
    }
    if (!record) {
      PM_ERROR("patch id " << patchId << " is not processed. Adding it to failed patched");
      // Nothing is known of its packages.
      failed.PushBack(EmptyFailedPatchEntry(RefString(patchId), allocator), allocator);
    } else if (record->alreadyInstalled) {
      alreadyInstalled.PushBack(RefString(patchId), allocator);
    } else if (record->notApplicable) {
      notApplicable.PushBack(RefString(patchId), allocator);
    } else if (!record->failed) {
      success.PushBack(RefString(patchId), allocator);
    } else {
      failed.PushBack(FailedPatchFromResult(patchId, *record, allocator), allocator);
    }
  }

  // The final document carries the interim document's key set; only interim
  // documents fill superseded and the in-progress states.
  result.AddMember("success", success, allocator);
  result.AddMember("failed", failed, allocator);
  result.AddMember("alreadyInstalled", alreadyInstalled, allocator);
  result.AddMember("superseded", Value(rapidjson::kArrayType), allocator);
  result.AddMember("notApplicable", notApplicable, allocator);
  if (executionTimeUsed) result.AddMember("patchExecutionTime", patchExecutionTime, allocator);
  result.AddMember("pendingExecution", Value(rapidjson::kArrayType), allocator);
  result.AddMember("executing", Value(rapidjson::kArrayType), allocator);
  result.AddMember("pendingReboot", Value(rapidjson::kArrayType), allocator);
  result.AddMember("pendingVerification", Value(rapidjson::kArrayType), allocator);
  document.AddMember("deploymentResult", result, allocator);

  SerializeCompact(document, text);
}

}  // namespace

int GenerateFinalResult(const std::string& resultDirectory, const JobRunInfo& jobRunInfo,
                        const deployer::PatchResultMap& results) {
  PM_DEBUG("Generating patch results for jobid: " << jobRunInfo.jobId << " and runid " << jobRunInfo.runId);
  CreateDirectory(resultDirectory);

  const std::string path =
      resultDirectory + "/" + jobRunInfo.jobId + "_" + std::to_string(jobRunInfo.runId) + "_status.json";
  PM_DEBUG("Creating resultPayload of type: "
           << "FINAL"
           << " in file: " << path);

  rapidjson::StringBuffer text;
  BuildFinalDocument(jobRunInfo, results, text);

  try {
    std::ofstream file(path, std::ios::out | std::ios::trunc | std::ios::binary);
    if (!file) {
      const int error = errno;
      PM_ERROR("Failed to open file " << path << " in write mode. "
                                      << " error :" << util::strerror(error));
      return kResultOpenFailed;
    }
    // A full disk or an I/O error shows up at the insertion or at the flush;
    // closing afterwards has nothing left to report.
    file.exceptions(std::ios::badbit | std::ios::failbit);
    file.write(text.GetString(), static_cast<std::streamsize>(text.GetSize()));
    file.flush();
    file.exceptions(std::ios::goodbit);
    file.close();
    PM_DEBUG("Generated result for jobid: " << jobRunInfo.jobId << " and runid " << jobRunInfo.runId
                                            << " in file: " << path);
    return 0;
  } catch (const std::exception& e) {
    PM_ERROR("Failed to write result in file: " << path << " error :" << e.what());
    return kResultWriteFailed;
  }
}

}  // namespace patchmgmt
