#include "deployer/patcher.h"

#include <Poco/File.h>

#include <cerrno>
#include <ctime>
#include <fstream>
#include <iterator>

#include "util/json.h"
#include "util/log.h"
#include "zelkor/command.h"
#include "zelkor/strerror.h"

namespace patchmgmt::deployer {

namespace {

// Even a closed window leaves the script a day: a package manager killed in
// the middle of a transaction does more harm than a late installation.
constexpr uint64_t kScriptGraceSeconds = 86400;
// Under ignoreTimeout every package gets at least this long, counted afresh.
constexpr int64_t kIgnoredTimeoutWindowSeconds = 3600;
// What the command runner keeps of each output stream, in KiB.
constexpr uint64_t kOutputCapKiB = 5120;

int64_t Now() { return static_cast<int64_t>(std::time(nullptr)); }

bool IsFailure(int32_t status) { return status == kInstallFailed || status == kPackageManagerLocked; }

void RunCommand(const util::CommandDetails& details, util::CommandResult& result) {
  result.timeLimitSeconds += kScriptGraceSeconds;
  util::SetKillChildHierarchy(true);
  if (!util::ExecuteCommand(details, result)) {
    result.stdErr += "the deployment script could not be started";
  }
}

// The packages that a stopped loop never reached stay visible as pending.
void MarkPending(const std::vector<std::string>& packages, size_t from, PatchResult& result) {
  for (size_t i = from; i < packages.size(); ++i) result.pendingExecutionPackages.insert(packages[i]);
}

void FailForClosedWindow(const std::string& packageName, int64_t now, int64_t windowEnd,
                         PatchResult& result) {
  result.failed = true;
  result.status = kInstallFailed;
  result.exitCode = 1;
  result.errorMessage = "patch window is over.[currentTime,windowTime]: [" + std::to_string(now) + ", " +
                        std::to_string(windowEnd) + "]";
  result.failedPackages.push_back({result.exitCode, packageName, result.errorMessage, ""});
}

void ClassifyPatch(const std::string& patchId, bool failed, const PackageCounters& counters,
                   PatchResult& result) {
  if (failed) {
    result.failed = true;
    PM_INFO("[FAILED]: " << patchId);
    return;
  }
  result.failed = false;
  if (counters.notApplicable == counters.total) {
    result.notApplicable = true;
    PM_INFO("[NOT-APPLICABLE]: " << patchId);
  } else if (counters.alreadyInstalled == counters.total - counters.notApplicable) {
    result.alreadyInstalled = true;
    PM_INFO("[ALREADY-INSTALLED]: " << patchId);
  } else {
    PM_INFO("[SUCCESS]: " << patchId);
  }
}

}  // namespace

int32_t Patcher::DeployPatch(const DeploymentPatch& patch, bool continueAfterPackageFailedForPatch,
                             bool ignoreTimeout, int64_t windowEnd, PatchResultMap& results,
                             volatile bool* stopRequested) {
  auto entry = results.find(patch.patchId);
  if (entry == results.end() || !entry->second) return kInstallFailed;
  PatchResult& result = *entry->second;
  const std::vector<std::string>& packages = patch.hostPackages;

  PackageCounters counters;
  counters.total = static_cast<int32_t>(packages.size());
  counters.result = entry->second;

  int32_t lastStatus = kInstallSuccess;
  bool failedWhileContinuing = false;
  for (size_t i = 0; i < packages.size(); ++i) {
    if (stopRequested != nullptr && *stopRequested) {
      MarkPending(packages, i, result);
      break;
    }
    const int64_t now = Now();
    if (ignoreTimeout) {
      windowEnd = now + kIgnoredTimeoutWindowSeconds;
    } else if (now > windowEnd) {
      FailForClosedWindow(packages[i], now, windowEnd, result);
      MarkPending(packages, i + 1, result);
      lastStatus = kInstallFailed;
      break;
    }
    lastStatus = InstallPackage(settings_, packages[i], windowEnd, counters);
    const bool stopHere = lastStatus == kPackageManagerLocked ||
                          (lastStatus == kInstallFailed && !continueAfterPackageFailedForPatch);
    if (lastStatus == kInstallFailed) failedWhileContinuing = true;
    if (stopHere) {
      MarkPending(packages, i + 1, result);
      break;
    }
  }

  ClassifyPatch(patch.patchId, IsFailure(lastStatus) || failedWhileContinuing, counters, result);
  return lastStatus;
}

int32_t Patcher::InstallPackage(const ScriptSettings& settings, const std::string& packageName,
                                int64_t windowEnd, PackageCounters& counters) {
  try {
    PatchResult& result = *counters.result;
    DeploymentCommandRequest request{settings.deploymentScriptPath, packageName, windowEnd,
                                     settings.scriptOutputPath, counters.result};
    ExecuteDeploymentCommand(request, result);
    switch (result.status) {
      case kInstallSuccess:
        result.successPackages.insert(packageName);
        PM_TRACE("Package: " << packageName << " install successfully");
        break;
      case kAlreadyInstalled:
        ++counters.alreadyInstalled;
        result.alreadyInstalledPackages.insert(packageName);
        PM_TRACE("Package: " << packageName << " is already installed");
        break;
      case kNotApplicable:
        ++counters.notApplicable;
        result.notApplicablePackages.insert(packageName);
        PM_TRACE("Package: " << packageName << " is not applicable");
        break;
      default:
        result.failedPackages.push_back({result.exitCode, packageName, result.errorMessage, result.stdOut});
        PM_TRACE("Package: " << packageName << " failed to install");
        break;
    }
    return result.status;
  } catch (const std::exception& e) {
    PM_ERROR("Failed to execute DeploymentScript: " << settings.deploymentScriptPath << ", packagename: "
                                                    << packageName << " error: " << e.what());
    return kInstallFailed;
  }
}

void ExecuteDeploymentCommand(const DeploymentCommandRequest& request, PatchResult& result) {
  const std::string windowText = std::to_string(static_cast<uint64_t>(request.windowEnd));
  const std::string commandLine =
      request.scriptPath + " " + request.packageName + " " + request.scriptOutputPath + " " + windowText;
  PM_INFO("Executing deployment command: " << commandLine);

  result.status = kInstallSuccess;
  result.exitCode = 0;
  result.stdOut.clear();
  result.errorMessage.clear();
  result.failed = false;

  const int64_t now = Now();
  const uint64_t timeLimit = request.windowEnd > now ? static_cast<uint64_t>(request.windowEnd - now) : 0;
  // The package name is one argument of its own: nothing in it is ever read
  // as shell syntax.
  util::CommandDetails details{
      commandLine, {request.scriptPath, request.packageName, request.scriptOutputPath, windowText}};
  util::CommandResult command{"", "", 0, 0, timeLimit, 0, kOutputCapKiB, 0};
  RunCommand(details, command);

  result.exitCode = command.exitCode;
  int32_t scriptStatus = kInstallFailed;
  std::string message;
  try {
    ReadScriptResult(request.scriptOutputPath, scriptStatus, result.exitCode, message);
  } catch (const std::exception& e) {
    PM_ERROR("std::exception occurred while processing result file output, " << e.what());
  }
  result.stdOut = command.stdOut;
  result.status = (scriptStatus >= kInstallSuccess && scriptStatus <= kPackageManagerLocked) ? scriptStatus
                                                                                             : kInstallFailed;
  result.errorMessage = "stdError: [" + message + ", " + command.stdErr + "]";
  if (IsFailure(result.status)) {
    PM_ERROR("command: " << commandLine << ", stdoutput: " << command.stdOut
                         << ", stderror: " << command.stdErr);
  }
  PM_INFO("Command: " << commandLine << " exit code: " << result.exitCode
                      << ", custom exit code: " << result.status);
}

void ReadScriptResult(const std::string& path, int32_t& status, int64_t& exitCode, std::string& message) {
  if (!Poco::File(path).exists()) {
    PM_ERROR("Failed to locate result file after deployment: " << path);
    message = "Failed to locate result file after deployment";
    status = kInstallFailed;
    return;
  }
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    PM_ERROR("Failed to open file: " << path << ", error: " << util::strerror(errno));
    message = "Failed to open file: " + path;
    status = kInstallFailed;
    return;
  }
  const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  rapidjson::Document document;
  document.Parse(text.c_str(), text.size());
  if (document.HasParseError() || !document.IsObject()) {
    PM_ERROR("Failed to parse json output: " << path);
    message = "Failed to parse json result output";
    status = kInstallFailed;
    return;
  }
  auto custom = document.FindMember("customExitCode");
  if (custom == document.MemberEnd() || !custom->value.IsInt()) {
    PM_ERROR("Failed to parse custom exit code");
    message = "Failed to parse custom exit code";
    status = kInstallFailed;
    return;
  }
  status = custom->value.GetInt();
  auto code = document.FindMember("exitCode");
  if (code == document.MemberEnd() || !code->value.IsInt()) {
    PM_ERROR("Failed to parse exit code");
    message = "Failed to parse exit code";
    return;
  }
  exitCode = code->value.GetInt();
}

}  // namespace patchmgmt::deployer
