#include "results/finalresult.h"

#include <cerrno>
#include <exception>
#include <fstream>
#include <vector>

#include "results/resultdocument.h"
#include "util/files.h"
#include "util/json.h"
#include "util/log.h"
#include "zelkor/strerror.h"

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

void PatchIdArray(ResultTreeBuilder& tree, const char* key, const std::vector<const Entry*>& entries) {
  tree.Key(key);
  tree.StartArray();
  for (const Entry* entry : entries) tree.RefString(entry->first);
  tree.EndArray();
}

void PackageNames(ResultTreeBuilder& tree, const char* key, const std::set<std::string>& names) {
  tree.Key(key);
  tree.StartArray();
  for (const auto& name : names) tree.RefString(name);
  tree.EndArray();
}

void FailedPackages(ResultTreeBuilder& tree, const std::vector<deployer::FailedPackage>& packages) {
  tree.Key("failedPackages");
  tree.StartArray();
  for (const auto& package : packages) {
    tree.StartObject();
    tree.Key("name");
    tree.RefString(package.name);
    tree.Key("exitCode");
    tree.Int64(package.exitCode);
    tree.Key("errorMessage");
    if (package.stdOut.empty()) {
      tree.RefString(package.errorText);
    } else {
      tree.JoinedString({"stdOut: [", package.stdOut, "], ", package.errorText});
    }
    tree.EndObject();
  }
  tree.EndArray();
}

void FailedPatch(ResultTreeBuilder& tree, const Entry& entry) {
  const deployer::PatchResult* result = entry.second.get();
  // A patch that was never processed has no record to report from.
  if (result == nullptr) {
    tree.EmptyFailedPatch(entry.first);
    return;
  }
  tree.StartObject();
  tree.FailedPatchHead(entry.first, result->size);
  PackageNames(tree, "successPackages", result->successPackages);
  PackageNames(tree, "pendingExecutionPackages", result->pendingExecutionPackages);
  PackageNames(tree, "alreadyInstalledPackages", result->alreadyInstalledPackages);
  PackageNames(tree, "notApplicablePackages", result->notApplicablePackages);
  FailedPackages(tree, result->failedPackages);
  tree.EndObject();
}

void BuildFinalDocument(const JobRunInfo& jobRunInfo, const deployer::PatchResultMap& results,
                        rapidjson::Document& document) {
  const FinalArrays arrays = ClassifyResults(results);
  auto emit = [&](rapidjson::Document& handler) {
    ResultTreeBuilder tree(handler);
    tree.StartObject();
    tree.Key("deploymentResult");
    tree.StartObject();
    tree.ResultHeader(jobRunInfo, true, "FINAL");
    PatchIdArray(tree, "success", arrays.success);
    tree.Key("failed");
    tree.StartArray();
    for (const Entry* entry : arrays.failed) FailedPatch(tree, *entry);
    tree.EndArray();
    PatchIdArray(tree, "alreadyInstalled", arrays.alreadyInstalled);
    // The final document carries the interim document's key set; only
    // interim documents fill superseded and the in-progress states.
    tree.EmptyArray("superseded");
    PatchIdArray(tree, "notApplicable", arrays.notApplicable);
    if (!arrays.patchExecutionTime.empty()) {
      tree.Key("patchExecutionTime");
      tree.StartArray();
      for (const Entry* entry : arrays.patchExecutionTime) {
        tree.StartObject();
        tree.Key("id");
        tree.RefString(entry->first);
        tree.Key("duration");
        tree.Int64(entry->second->executionTime);
        tree.EndObject();
      }
      tree.EndArray();
    }
    tree.EmptyArray("pendingExecution");
    tree.EmptyArray("executing");
    tree.EmptyArray("pendingReboot");
    tree.EmptyArray("pendingVerification");
    tree.EndObject();
    tree.EndObject();
    return true;
  };
  document.Populate(emit);
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
  {
    rapidjson::Document document;
    BuildFinalDocument(jobRunInfo, results, document);
    SerializeCompact(document, text);
  }

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
