#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "args/commandlineargs.h"
#include "manifest/deploymentmanifest.h"
#include "results/patchresult.h"

namespace patchmgmt::deployer {

// Where the deployment script and its output file are. The other entries are
// carried for the agent's other script kinds and stay empty in a patch run.
struct ScriptSettings {
  std::string deploymentScriptPath;
  std::string scriptOutputPath;
  std::string preDeploymentScriptPath;
  std::string postDeploymentScriptPath;
  std::string verificationScriptPath;
};

class IPatcher {
 public:
  // Installs the patch's host packages one at a time and records everything in
  // the patch's result inside `results` (a map holding only this patch). The
  // returned value carries no meaning for the caller.
  virtual int32_t DeployPatch(const DeploymentPatch& patch, bool continueAfterPackageFailedForPatch,
                              bool ignoreTimeout, int64_t windowEnd, PatchResultMap& results,
                              const std::atomic<bool>* stopRequested) = 0;
  virtual ~IPatcher() = default;
};

// Per-patch package tallies.
struct PackageCounters {
  int32_t total = 0;
  int32_t notApplicable = 0;
  int32_t alreadyInstalled = 0;
  std::shared_ptr<PatchResult> result;
};

// One run of the deployment script for one package.
struct DeploymentCommandRequest {
  std::string scriptPath;
  std::string packageName;
  int64_t windowEnd = 0;
  std::string scriptOutputPath;
  std::shared_ptr<PatchResult> result;
};

// The texts of the job's failed packages, counted as they are filed. Their sum
// is a lower bound of the result size estimate at the end of the run (names
// and per-result overheads only add to it), so once it reaches the limit the
// texts that the limit will empty can be let go at once instead of being held
// until the end: up to 5 MiB of output and 5 MiB of error text per package.
class FailedTextBudget {
 public:
  // Files `package` into `result`, letting go of what the limit will empty.
  void File(const std::shared_ptr<PatchResult>& result, FailedPackage package);
  // Whether the limit will surely empty failed-package output / error texts.
  bool DropsStdOut() const { return dropStdOut_; }
  bool DropsErrorText() const { return dropErrorText_; }

 private:
  void DropTexts(PatchResult& result) const;

  uint64_t nameBytes_ = 0;
  uint64_t errorTextBytes_ = 0;
  uint64_t stdOutBytes_ = 0;
  bool dropStdOut_ = false;
  bool dropErrorText_ = false;
  // Every result that holds a failed package, for the one pass that drops
  // what was filed before the bound was reached.
  std::vector<std::shared_ptr<PatchResult>> results_;
};

class Patcher : public IPatcher {
 public:
  explicit Patcher(ScriptSettings settings) : settings_(std::move(settings)) {}

  int32_t DeployPatch(const DeploymentPatch& patch, bool continueAfterPackageFailedForPatch,
                      bool ignoreTimeout, int64_t windowEnd, PatchResultMap& results,
                      const std::atomic<bool>* stopRequested) override;

  // Runs the script for one package and files the package under its outcome.
  // Returns the package's PackageInstallStatus; 3 when anything throws.
  int32_t InstallPackage(const ScriptSettings& settings, const std::string& packageName, int64_t windowEnd,
                         PackageCounters& counters);

  const ScriptSettings& settings() const { return settings_; }

 private:
  ScriptSettings settings_;
  FailedTextBudget failedTexts_;
};

// Runs the deployment script once and reads its output file into `result`
// (status, exitCode, errorMessage, stdOut). An output file left by an earlier
// run is removed first; when that fails, the script is not started and the
// package fails (status 3).
void ExecuteDeploymentCommand(const DeploymentCommandRequest& request, PatchResult& result);

// Reads the script's output file. Sets `status` and `exitCode` from
// "customExitCode" and "exitCode", or `message` to what went wrong. Only a
// regular file of at most kLongestScriptOutput bytes is read: a script that
// leaves a FIFO or a device there cannot hold the run or fill its memory.
void ReadScriptResult(const std::string& path, int32_t& status, int64_t& exitCode, std::string& message);
// The JSON part of ReadScriptResult, on text already read from `path`.
void ParseScriptResult(const std::string& text, const std::string& path, int32_t& status, int64_t& exitCode,
                       std::string& message);

constexpr size_t kLongestScriptOutput = 1 << 20;

// The result documents must stay small enough for the agent to upload.
constexpr uint64_t kResultSizeLimit = 1048576;

}  // namespace patchmgmt::deployer
