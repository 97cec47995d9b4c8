#include "deployer/runloop.h"

#include <syslog.h>

#include <chrono>

#include "util/log.h"
#include "util/timestamps.h"
#include "zelkor/cpulimit.h"

namespace patchmgmt::deployer {

namespace {

// What a result that did not fail costs in the document besides its names.
constexpr uint64_t kSucceededResultOverhead = 40;

void Post(InterimResults& table, const std::string& patchId, uint32_t code, int64_t value = 0,
          const std::string& message = {}) {
  table.Update(patchId, InterimResult(code, value, std::string(), message));
}

// Notices for the person at the console go to the system log.
void NotifyUser(const std::string& message, const std::string& description) {
  if (message.empty()) return;
  const std::string notice = " message: " + message + " description: " + description;
  syslog(LOG_CRIT, "%s", notice.c_str());
}

// Posts the patch's outcome. Returns true when the rest of the job must be
// abandoned: the package manager is locked and the job ignores time-outs, so
// waiting for the lock could go on for ever.
bool ClassifyOutcome(InterimResults& table, const DeploymentPatch& patch, PatchResult* result,
                     bool ignoreTimeout, bool& rebootRequired) {
  if (result == nullptr) return false;
  if (result->failed) {
    Post(table, patch.patchId, kInterimFailed, result->exitCode, result->errorMessage);
    result->failed = true;
    return ignoreTimeout && result->status == kPackageManagerLocked;
  }
  if (result->notApplicable) {
    Post(table, patch.patchId, kInterimNotApplicable);
  } else if (result->alreadyInstalled) {
    Post(table, patch.patchId, kInterimAlreadyInstalled);
  } else if (patch.rebootRequire) {
    rebootRequired = true;
    Post(table, patch.patchId, kInterimPendingReboot);
    PM_TRACE("Reboot is require for patch id " << patch.patchId);
  } else {
    Post(table, patch.patchId, kInterimSuccess);
  }
  return false;
}

// Fails every patch after `from` as the locked package manager would have.
void AbandonRemainingPatches(std::vector<DeploymentPatch>& patches, size_t from, PatchResultMap& results,
                             bool continueAfterPackageFailedForPatch, InterimResults& table,
                             const StopControl& stop) {
  for (size_t i = from; i < patches.size(); ++i) {
    CPULimit::getInstance().calculateAndSleep();
    const DeploymentPatch& patch = patches[i];
    std::shared_ptr<PatchResult>& result = results[patch.patchId];
    if (!result) result = std::make_shared<PatchResult>();
    result->failed = true;
    result->status = kPackageManagerLocked;
    result->exitCode = 1;
    result->errorMessage = "YUM is locked. cannot install";
    for (size_t p = 0; p < patch.hostPackages.size(); ++p) {
      if (p == 0 || continueAfterPackageFailedForPatch) {
        result->failedPackages.push_back({result->exitCode, patch.hostPackages[p], result->errorMessage, ""});
      } else {
        result->pendingExecutionPackages.insert(patch.hostPackages[p]);
      }
    }
    Post(table, patch.patchId, kInterimFailed, result->exitCode, result->errorMessage);
    stop.atPatchBoundary();
  }
}

uint64_t TotalResultSize(const PatchResultMap& results) {
  uint64_t total = 0;
  for (const auto& entry : results) {
    CPULimit::getInstance().calculateAndSleep();
    if (entry.second) total += EstimateResultSize(*entry.second);
  }
  return total;
}

template <typename Change>
void ForEachResult(PatchResultMap& results, Change change) {
  for (auto& entry : results) {
    CPULimit::getInstance().calculateAndSleep();
    if (entry.second) change(*entry.second);
  }
}

int64_t WindowEnd(const DeploymentJob& job) {
  // The product wraps as a 32-bit number, as the agent computes it too.
  const int32_t timeoutSeconds = static_cast<int32_t>(static_cast<int64_t>(job.timeout) * 60);
  return ParseUtcSeconds(job.dateTime) + timeoutSeconds;
}

}  // namespace

void CollectPackagesForArchitecture(const std::string& architecture,
                                    const std::vector<PackagesByArch>& packagesByArch,
                                    std::vector<std::string>& packages) {
  for (const PackagesByArch& entry : packagesByArch) {
    if (entry.architecture == architecture || entry.architecture == "noarch") {
      packages.insert(packages.end(), entry.packages.begin(), entry.packages.end());
    }
  }
}

void SelectPatchPackages(std::vector<DeploymentPatch>& patches, const std::string& architecture,
                         PatchResultMap& results, InterimResults& interimResults) {
  for (DeploymentPatch& patch : patches) {
    CollectPackagesForArchitecture(architecture, patch.downloadInfo.packagesByArch, patch.hostPackages);
    if (patch.hostPackages.empty()) continue;
    std::shared_ptr<PatchResult>& result = results[patch.patchId];
    if (result) {
      // The same patch id again: both occurrences are deployed, against the
      // one result, with the package list that was already selected.
      Post(interimResults, patch.patchId, kInterimPendingExecution);
      patch.downloadInfo.packagesByArch.clear();
    } else {
      result = std::make_shared<PatchResult>();
    }
  }
}

uint64_t EstimateResultSize(const PatchResult& result) {
  uint64_t size = result.failed ? 0 : kSucceededResultOverhead;
  for (const auto* names :
       {&result.successPackages, &result.pendingExecutionPackages, &result.alreadyInstalledPackages,
        &result.notApplicablePackages, &result.otherPackages}) {
    for (const std::string& name : *names) size += name.size();
  }
  for (const FailedPackage& package : result.failedPackages) {
    size += package.name.size() + package.errorText.size() + package.stdOut.size();
  }
  return size + result.droppedStdOutBytes + result.droppedErrorTextBytes;
}

void LimitResultSize(PatchResultMap& results) {
  if (TotalResultSize(results) < kResultSizeLimit) return;
  PM_WARNING("Truncating stdout from patch result");
  ForEachResult(results, [](PatchResult& result) {
    for (FailedPackage& package : result.failedPackages) package.stdOut.clear();
    result.droppedStdOutBytes = 0;
  });
  if (TotalResultSize(results) < kResultSizeLimit) return;
  PM_WARNING("Truncating stdout and stderror both from patch result");
  ForEachResult(results, [](PatchResult& result) {
    for (FailedPackage& package : result.failedPackages) {
      package.stdOut.clear();
      package.errorText.clear();
    }
    result.droppedErrorTextBytes = 0;
  });
}

int32_t RunPatchDeployment(const std::shared_ptr<IPatcher>& patcher, PatchResultMap& results,
                           const std::shared_ptr<protobuf::CommandlineArgsInProtoBuf>& arguments,
                           DeploymentJob& job, InterimResults& interimResults, const StopControl& stop) {
  const std::string& architecture = arguments->GetPatchArguments().agentdetails().architecture();
  const bool ignoreTimeout = job.ignoreTimeout;
  const bool continueAfterPackageFailedForPatch = job.continueAfterPackageFailedForPatch;
  const bool sendJobTelemetryData = job.sendJobTelemetryData;
  const int64_t windowEnd = WindowEnd(job);

  SelectPatchPackages(job.patches, architecture, results, interimResults);
  NotifyUser(job.preDeployment.message, job.preDeployment.description);
  PM_INFO("Started patching");
  NotifyUser(job.duringDeployment.message, job.duringDeployment.description);
  PM_DEBUG("No of patches for deployment: " << job.patches.size());

  bool rebootRequired = false;
  for (size_t i = 0; i < job.patches.size(); ++i) {
    CPULimit::getInstance().calculateAndSleep();
    DeploymentPatch& patch = job.patches[i];
    if (patch.hostPackages.empty()) {
      PM_DEBUG("Cannot execute patch: " << patch.patchId << " packages list is empty");
      stop.atPatchBoundary();
      continue;
    }
    std::shared_ptr<PatchResult> result = results[patch.patchId];
    PatchResultMap patchResults{{patch.patchId, result}};
    Post(interimResults, patch.patchId, kInterimExecuting);
    PM_INFO("Starting execution of patch id " << patch.patchId);
    const auto started = std::chrono::steady_clock::now();
    patcher->DeployPatch(patch, continueAfterPackageFailedForPatch, ignoreTimeout, windowEnd, patchResults,
                         stop.stopPatching);
    const auto finished = std::chrono::steady_clock::now();
    if (sendJobTelemetryData && result) {
      result->executed = true;
      result->executionTime = std::chrono::duration_cast<std::chrono::seconds>(finished - started).count();
    }
    const bool abandon = ClassifyOutcome(interimResults, patch, result.get(), ignoreTimeout, rebootRequired);
    // A stop is honoured only here, between patches, never in the middle of
    // one: no package manager transaction is cut short by the tool itself.
    stop.atPatchBoundary();
    if (abandon) {
      AbandonRemainingPatches(job.patches, i + 1, results, continueAfterPackageFailedForPatch, interimResults,
                              stop);
      break;
    }
  }

  LimitResultSize(results);
  if (!rebootRequired) return 0;
  PM_INFO("Reboot will be done for job id " << job.jobId);
  return kRebootRequiredExitCode;
}

}  // namespace patchmgmt::deployer
