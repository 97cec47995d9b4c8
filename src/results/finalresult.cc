#include "results/finalresult.h"

#include <vector>

#include "results/resultdocument.h"
#include "util/files.h"
#include "util/filewriter.h"
#include "util/json.h"
#include "util/log.h"

namespace patchmgmt {

namespace {

using Entry = deployer::PatchResultMap::value_type;

// The map's entries sorted into the document's arrays, each in patch-id order.
struct FinalArrays {
  std::vector<const Entry*> success;
  std::vector<const Entry*> failed;
  std::vector<const Entry*> alreadyInstalled;
  std::vector<const Entry*> notApplicable;
  std::vector<const Entry*> patchExecutionTime;
};

FinalArrays ClassifyResults(const deployer::PatchResultMap& results) {
  FinalArrays arrays;
  for (const Entry& entry : results) {
    const auto& record = entry.second;
    // Timing is reported for every executed patch, whatever its outcome.
    if (record && record->executed) arrays.patchExecutionTime.push_back(&entry);
    if (!record) {
      PM_ERROR("patch id " << entry.first << " is not processed. Adding it to failed patched");
      arrays.failed.push_back(&entry);
    } else if (record->alreadyInstalled) {
      arrays.alreadyInstalled.push_back(&entry);
    } else if (record->notApplicable) {
      arrays.notApplicable.push_back(&entry);
    } else if (!record->failed) {
      arrays.success.push_back(&entry);
    } else {
      arrays.failed.push_back(&entry);
    }
  }
  return arrays;
}

void PatchIdArray(ResultWriter& out, const char* key, const std::vector<const Entry*>& entries) {
  out.Key(key);
  out.StartArray();
  for (const Entry* entry : entries) out.String(entry->first);
  out.EndArray();
}

void PackageNames(ResultWriter& out, const char* key, const std::set<std::string>& names) {
  out.Key(key);
  out.StartArray();
  for (const auto& name : names) out.String(name);
  out.EndArray();
}

void FailedPackages(ResultWriter& out, const std::vector<deployer::FailedPackage>& packages) {
  out.Key("failedPackages");
  out.StartArray();
  for (const auto& package : packages) {
    out.StartObject();
    out.Key("name");
    out.String(package.name);
    out.Key("exitCode");
    out.Int64(package.exitCode);
    out.Key("errorMessage");
    if (package.stdOut.empty()) {
      out.String(package.errorText);
    } else {
      out.JoinedString("stdOut: [", package.stdOut, "], ", package.errorText);
    }
    out.EndObject();
  }
  out.EndArray();
}

void FailedPatch(ResultWriter& out, const Entry& entry) {
  const deployer::PatchResult* result = entry.second.get();
  // A patch that was never processed has no record to report from.
  if (result == nullptr) {
    out.EmptyFailedPatch(entry.first);
    return;
  }
  out.StartObject();
  out.FailedPatchHead(entry.first, result->size);
  PackageNames(out, "successPackages", result->successPackages);
  PackageNames(out, "pendingExecutionPackages", result->pendingExecutionPackages);
  PackageNames(out, "alreadyInstalledPackages", result->alreadyInstalledPackages);
  PackageNames(out, "notApplicablePackages", result->notApplicablePackages);
  FailedPackages(out, result->failedPackages);
  out.EndObject();
}

}  // namespace

void WriteFinalDocument(const JobRunInfo& jobRunInfo, const deployer::PatchResultMap& results,
                        rapidjson::StringBuffer& text) {
  const FinalArrays arrays = ClassifyResults(results);
  ResultWriter out(text);
  out.StartObject();
  out.Key("deploymentResult");
  out.StartObject();
  out.ResultHeader(jobRunInfo, true, "FINAL");
  PatchIdArray(out, "success", arrays.success);
  out.Key("failed");
  out.StartArray();
  for (const Entry* entry : arrays.failed) FailedPatch(out, *entry);
  out.EndArray();
  PatchIdArray(out, "alreadyInstalled", arrays.alreadyInstalled);
  // The final document carries the interim document's key set; only interim
  // documents fill superseded and the in-progress states.
  out.EmptyArray("superseded");
  PatchIdArray(out, "notApplicable", arrays.notApplicable);
  if (!arrays.patchExecutionTime.empty()) {
    out.Key("patchExecutionTime");
    out.StartArray();
    for (const Entry* entry : arrays.patchExecutionTime) {
      out.StartObject();
      out.Key("id");
      out.String(entry->first);
      out.Key("duration");
      out.Int64(entry->second->executionTime);
      out.EndObject();
    }
    out.EndArray();
  }
  out.EmptyArray("pendingExecution");
  out.EmptyArray("executing");
  out.EmptyArray("pendingReboot");
  out.EmptyArray("pendingVerification");
  out.EndObject();
  out.EndObject();
}

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
  WriteFinalDocument(jobRunInfo, results, text);

  // Written whole beside the document and renamed over it: a full disk or an
  // I/O error leaves no truncated document in its place, only this failure.
  const FileWriteError failure = ReplaceFile(path, {text.GetString(), text.GetSize()});
  if (failure.step == FileWriteError::kOpen) {
    PM_ERROR("Failed to open file " << path << " in write mode. "
                                    << " error :" << failure.Text());
    return kResultOpenFailed;
  }
  if (failure) {
    PM_ERROR("Failed to write result in file: " << path << " error :" << failure.Text());
    return kResultWriteFailed;
  }
  PM_DEBUG("Generated result for jobid: " << jobRunInfo.jobId << " and runid " << jobRunInfo.runId
                                          << " in file: " << path);
  return 0;
}

}  // namespace patchmgmt
