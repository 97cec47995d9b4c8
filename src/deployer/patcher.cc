#include "deployer/patcher.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

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

// Gives the memory back; clear() would keep the capacity of a 5 MiB text.
void Release(std::string& text) { std::string().swap(text); }

void RunCommand(const util::CommandDetails& details, util::CommandResult& result) {
  result.timeLimitSeconds += kScriptGraceSeconds;
  util::SetKillChildHierarchy(true);
  // A script's background children come back to the tool (a child subreaper)
  // when the script ends. Those that end too are collected by the runner, so
  // that they never pile up as zombies over a job of thousands of packages;
  // those still running are left alone.
  util::SetReapExitedOrphans(true);
  if (!util::ExecuteCommand(details, result)) {
    result.stdErr += "the deployment script could not be started";
  }
}

// The output file of the previous package must not speak for this one: a
// script that crashes or writes nothing would be credited with its outcome.
// This is the one file of the script's that the tool deletes; what the last
// script wrote stays after the run. False, with `message` set, when a file
// stands there that cannot be removed.
bool RemoveStaleScriptOutput(const std::string& path, std::string& message) {
  if (::unlink(path.c_str()) == 0 || errno == ENOENT) return true;
  message = "Failed to remove stale script output file: " + path + ", error: " + util::strerror(errno);
  PM_ERROR(message);
  return false;
}

// The packages that a stopped loop never reached stay visible as pending.
void MarkPending(const std::vector<std::string>& packages, size_t from, PatchResult& result) {
  for (size_t i = from; i < packages.size(); ++i) result.pendingExecutionPackages.insert(packages[i]);
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

void FailedTextBudget::File(const std::shared_ptr<PatchResult>& result, FailedPackage package) {
  nameBytes_ += package.name.size();
  errorTextBytes_ += package.errorText.size();
  stdOutBytes_ += package.stdOut.size();
  if (results_.empty() || results_.back() != result) results_.push_back(result);
  result->failedPackages.push_back(std::move(package));

  const bool dropStdOut = nameBytes_ + errorTextBytes_ + stdOutBytes_ >= kResultSizeLimit;
  const bool dropErrorText = nameBytes_ + errorTextBytes_ >= kResultSizeLimit;
  if (dropStdOut != dropStdOut_ || dropErrorText != dropErrorText_) {
    dropStdOut_ = dropStdOut;
    dropErrorText_ = dropErrorText;
    for (const auto& earlier : results_) DropTexts(*earlier);
  } else {
    DropTexts(*result);
  }
}

void FailedTextBudget::DropTexts(PatchResult& result) const {
  for (FailedPackage& package : result.failedPackages) {
    if (dropStdOut_ && !package.stdOut.empty()) {
      result.droppedStdOutBytes += package.stdOut.size();
      Release(package.stdOut);
    }
    if (dropErrorText_ && !package.errorText.empty()) {
      result.droppedErrorTextBytes += package.errorText.size();
      Release(package.errorText);
    }
  }
}

int32_t Patcher::DeployPatch(const DeploymentPatch& patch, bool continueAfterPackageFailedForPatch,
                             bool ignoreTimeout, int64_t windowEnd, PatchResultMap& results,
                             const std::atomic<bool>* stopRequested) {
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
    if (stopRequested != nullptr && stopRequested->load()) {
      MarkPending(packages, i, result);
      break;
    }
    const int64_t now = Now();
    if (ignoreTimeout) {
      windowEnd = now + kIgnoredTimeoutWindowSeconds;
    } else if (now > windowEnd) {
      result.failed = true;
      result.status = kInstallFailed;
      result.exitCode = 1;
      result.errorMessage = "patch window is over.[currentTime,windowTime]: [" + std::to_string(now) + ", " +
                            std::to_string(windowEnd) + "]";
      failedTexts_.File(counters.result, {result.exitCode, packages[i], result.errorMessage, ""});
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
        failedTexts_.File(counters.result,
                          {result.exitCode, packageName, result.errorMessage, std::move(result.stdOut)});
        PM_TRACE("Package: " << packageName << " failed to install");
        break;
    }
    // The command's output has been filed where the documents read it. The
    // result keeps its error message for the patch's interim state unless the
    // size limit will empty such texts anyway.
    Release(result.stdOut);
    if (!IsFailure(result.status) || failedTexts_.DropsErrorText()) Release(result.errorMessage);
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

  std::string message;
  if (!RemoveStaleScriptOutput(request.scriptOutputPath, message)) {
    result.status = kInstallFailed;
    result.exitCode = 1;
    result.errorMessage = "stdError: [" + message + ", ]";
    return;
  }

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
  try {
    ReadScriptResult(request.scriptOutputPath, scriptStatus, result.exitCode, message);
  } catch (const std::exception& e) {
    PM_ERROR("std::exception occurred while processing result file output, " << e.what());
  }
  result.status = (scriptStatus >= kInstallSuccess && scriptStatus <= kPackageManagerLocked) ? scriptStatus
                                                                                             : kInstallFailed;
  // A script's streams can hold 5 MiB each: the texts that carry them are
  // built with one allocation of the final size, never through temporaries.
  result.errorMessage.reserve(message.size() + command.stdErr.size() + 16);
  result.errorMessage.append("stdError: [").append(message).append(", ").append(command.stdErr).append("]");
  if (IsFailure(result.status) && IsLogged(Poco::Message::PRIO_ERROR)) {
    std::string line;
    line.reserve(commandLine.size() + command.stdOut.size() + command.stdErr.size() + 64 + kLogPrefixRoom);
    line.append("command: ").append(commandLine).append(", stdoutput: ").append(command.stdOut);
    line.append(", stderror: ").append(command.stdErr);
    LogText(Poco::Message::PRIO_ERROR, std::move(line));
  }
  PM_INFO("Command: " << commandLine << " exit code: " << result.exitCode
                      << ", custom exit code: " << result.status);
  result.stdOut = std::move(command.stdOut);
}

void ReadScriptResult(const std::string& path, int32_t& status, int64_t& exitCode, std::string& message) {
  // Not blocking: a FIFO left at the path would otherwise hold the open for
  // ever.
  const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0 && errno == ENOENT) {
    PM_ERROR("Failed to locate result file after deployment: " << path);
    message = "Failed to locate result file after deployment";
    status = kInstallFailed;
    return;
  }
  struct stat info {};
  if (fd < 0 || ::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    const std::string reason = fd < 0 ? util::strerror(errno) : "not a regular file";
    if (fd >= 0) ::close(fd);
    PM_ERROR("Failed to open file: " << path << ", error: " << reason);
    message = "Failed to open file: " + path;
    status = kInstallFailed;
    return;
  }
  // One byte more than the longest accepted output tells a longer file apart.
  std::string text;
  text.resize(std::min<size_t>(static_cast<size_t>(info.st_size), kLongestScriptOutput) + 1);
  size_t filled = 0;
  for (ssize_t n; filled < text.size() && (n = ::read(fd, &text[filled], text.size() - filled)) != 0;) {
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) break;
    filled += static_cast<size_t>(n);
  }
  ::close(fd);
  text.resize(filled);
  if (text.size() > kLongestScriptOutput) text.clear();
  ParseScriptResult(text, path, status, exitCode, message);
}

void ParseScriptResult(const std::string& text, const std::string& path, int32_t& status, int64_t& exitCode,
                       std::string& message) {
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
