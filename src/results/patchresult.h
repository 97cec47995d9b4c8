#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

// The per-patch results that the deployer fills and the result documents
// report. They belong to the deployer's namespace, whose run produces them,
// and sit in this lower layer so that the documents can read them without
// reaching up into the deployer.
namespace patchmgmt::deployer {

// What the deployment script reports for one package ("customExitCode").
enum PackageInstallStatus : int32_t {
  kInstallSuccess = 0,
  kAlreadyInstalled = 1,
  kNotApplicable = 2,
  kInstallFailed = 3,
  kPackageManagerLocked = 4,
};

// One package that failed, as the result documents report it.
struct FailedPackage {
  int64_t exitCode = 0;
  std::string name;
  std::string errorText;
  std::string stdOut;
};

// The outcome of one patch. Shared between the job's result map and the
// one-entry map handed to the patcher for that patch.
struct PatchResult {
  bool failed = false;
  std::string errorMessage;
  std::string stdOut;
  int32_t status = kInstallSuccess;
  int64_t exitCode = 0;
  bool alreadyInstalled = false;
  bool notApplicable = false;
  bool executed = false;
  int64_t executionTime = 0;
  uint64_t size = 0;
  std::set<std::string> successPackages;
  std::set<std::string> pendingExecutionPackages;
  std::set<std::string> alreadyInstalledPackages;
  std::set<std::string> notApplicablePackages;
  // Filled by no step of the run; counted in the result-size estimate.
  std::set<std::string> otherPackages;
  std::vector<FailedPackage> failedPackages;
  // Bytes of failed-package output and error text let go during the run
  // because the result size limit was sure to empty them at its end. The size
  // estimate still counts them, so the limit decides exactly as it would have
  // with every text kept.
  uint64_t droppedStdOutBytes = 0;
  uint64_t droppedErrorTextBytes = 0;
};

// Patch id to its result, in byte-wise ascending patch-id order. An entry may
// hold an empty pointer (a patch that was selected but never processed).
using PatchResultMap = std::map<std::string, std::shared_ptr<PatchResult>>;

}  // namespace patchmgmt::deployer
