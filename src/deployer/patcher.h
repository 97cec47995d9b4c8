#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "args/commandlineargs.h"
#include "deployer/patchresult.h"
#include "manifest/deploymentmanifest.h"

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
                              volatile bool* stopRequested) = 0;
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

class Patcher : public IPatcher {
 public:
  explicit Patcher(ScriptSettings settings) : settings_(std::move(settings)) {}

  int32_t DeployPatch(const DeploymentPatch& patch, bool continueAfterPackageFailedForPatch,
                      bool ignoreTimeout, int64_t windowEnd, PatchResultMap& results,
                      volatile bool* stopRequested) override;

  // Runs the script for one package and files the package under its outcome.
  // Returns the package's PackageInstallStatus; 3 when anything throws.
  int32_t InstallPackage(const ScriptSettings& settings, const std::string& packageName, int64_t windowEnd,
                         PackageCounters& counters);

  const ScriptSettings& settings() const { return settings_; }

 private:
  ScriptSettings settings_;
};

// Runs the deployment script once and reads its output file into `result`
// (status, exitCode, errorMessage, stdOut).
void ExecuteDeploymentCommand(const DeploymentCommandRequest& request, PatchResult& result);

// Reads the script's output file. Sets `status` and `exitCode` from
// "customExitCode" and "exitCode", or `message` to what went wrong.
void ReadScriptResult(const std::string& path, int32_t& status, int64_t& exitCode, std::string& message);

// Fills every patch's host package list for `architecture` (or "noarch") and
// creates the result entries.
void SelectPatchPackages(std::vector<DeploymentPatch>& patches, const std::string& architecture,
                         PatchResultMap& results);
void CollectPackagesForArchitecture(const std::string& architecture,
                                    const std::vector<PackagesByArch>& packagesByArch,
                                    std::vector<std::string>& packages);

// Deploys the job's patches in manifest order. 0, or 55 when an installed
// patch requires a reboot. Ends the process with 57 when a stop is requested.
int32_t RunPatchDeployment(const std::shared_ptr<IPatcher>& patcher, PatchResultMap& results,
                           const std::shared_ptr<protobuf::CommandlineArgsInProtoBuf>& arguments,
                           DeploymentJob& job);

// Keeps the results under 1 MiB by emptying package output, then error texts.
void LimitResultSize(PatchResultMap& results);
// The estimated size of one result as counted by LimitResultSize.
uint64_t EstimateResultSize(const PatchResult& result);

constexpr int32_t kRebootRequiredExitCode = 55;

}  // namespace patchmgmt::deployer
