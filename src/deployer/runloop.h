#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "args/commandlineargs.h"
#include "deployer/patcher.h"
#include "manifest/deploymentmanifest.h"
#include "results/interimresults.h"
#include "results/patchresult.h"

namespace patchmgmt::deployer {

// How a requested stop reaches the run loop. The loop only asks; whether the
// process ends, and how, is its caller's decision.
struct StopControl {
  // Read before each package: once set, the package under way is the last
  // one of its patch.
  const std::atomic<bool>* stopPatching = nullptr;
  // Called after each patch, and after each patch of the abandon pass: the
  // only points where a stop may end the run, never in the middle of a
  // patch. It may not return.
  std::function<void()> atPatchBoundary;
};

// Deploys the job's patches in manifest order, posting each patch's state to
// `interimResults`. 0, or 55 when an installed patch requires a reboot.
int32_t RunPatchDeployment(const std::shared_ptr<IPatcher>& patcher, PatchResultMap& results,
                           const std::shared_ptr<protobuf::CommandlineArgsInProtoBuf>& arguments,
                           DeploymentJob& job, InterimResults& interimResults, const StopControl& stop);

// Fills every patch's host package list for `architecture` (or "noarch") and
// creates the result entries; a patch id seen before gets 8976.
void SelectPatchPackages(std::vector<DeploymentPatch>& patches, const std::string& architecture,
                         PatchResultMap& results, InterimResults& interimResults);
void CollectPackagesForArchitecture(const std::string& architecture,
                                    const std::vector<PackagesByArch>& packagesByArch,
                                    std::vector<std::string>& packages);

// Keeps the results under 1 MiB by emptying package output, then error texts.
void LimitResultSize(PatchResultMap& results);
// The estimated size of one result as counted by LimitResultSize.
uint64_t EstimateResultSize(const PatchResult& result);

constexpr int32_t kRebootRequiredExitCode = 55;

}  // namespace patchmgmt::deployer
