#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace patchmgmt {

struct Deferment {
  int32_t count = 0;
  int32_t minutesInterval = 0;
};

// A prompt the user may put off: "predeployment" and "rebootoption".
struct DeferrablePrompt {
  std::string message;
  std::string description;
  Deferment deferment;
};

// "duringdeployment" and "oncomplete".
struct DeploymentMessage {
  std::string message;
  std::string description;
};

struct RebootCountdown {
  int32_t minutesInterval = 0;
  std::string message;
  std::string description;
};

struct PostDeployment {
  bool suppressReboots = true;
  DeferrablePrompt rebootOption;
  RebootCountdown rebootCountdown;
  DeploymentMessage onComplete;
};

struct PackageHash {
  std::string type;
  std::string value;
};

struct PackagesByArch {
  std::string architecture;
  std::vector<std::string> packages;
};

struct DownloadInfo {
  int32_t langId = 0;
  std::vector<PackageHash> hashes;
  std::vector<PackagesByArch> packagesByArch;
  std::string downloadUrl;
  std::string platform;
};

struct DeploymentPatch {
  std::string patchId;
  std::string vendorPatchId;
  DownloadInfo downloadInfo;
  bool rebootRequire = false;
  // The packages that apply to this host, filled by the patcher's package
  // selection; never read from the manifest.
  std::vector<std::string> hostPackages;
};

struct DeploymentJob {
  std::string jobId;
  int32_t runId = 0;
  std::string type;
  bool isImmediate = false;
  std::string dateTime;
  bool ignoreTimeout = false;
  int32_t timeout = 0;
  bool uploadProgressReports = false;
  bool continueAfterPackageFailedForPatch = false;
  bool sendJobTelemetryData = false;
  std::vector<DeploymentPatch> patches;
  DeferrablePrompt preDeployment;
  DeploymentMessage duringDeployment;
  PostDeployment postDeployment;

  // Back to a freshly constructed job, releasing its patches and strings.
  void Reset() { *this = DeploymentJob(); }
};

// The parsed deployment manifest of one vendor.
class DeploymentJobManifest {
 public:
  explicit DeploymentJobManifest(std::string vendorId = std::string()) : vendorId_(std::move(vendorId)) {}

  // Reads, checks and stores the manifest at `path`, then dumps it to the
  // debug log. 0 on success, 100004 when the file cannot be read, 100010 when
  // it is not a JSON object or a required key is missing or mistyped. A
  // failed parse may leave the jobs accepted before the failure.
  int32_t ParseManifest(const std::string& path);

  // The checks and the filling of ParseManifest, on manifest text already in
  // memory; no dump and no success line. 0 or 100010.
  int32_t ParseManifestText(std::string content);

  // Writes the manifest to the debug log.
  void DumpManifest() const;

  const std::string& vendorId() const { return vendorId_; }

  uint64_t manifestInstanceId = 0;
  int32_t schemaVersion = 0;
  std::vector<DeploymentJob> jobs;

 private:
  std::string vendorId_;
};

constexpr int32_t kManifestOk = 0;
constexpr int32_t kManifestUnreadable = 100004;
constexpr int32_t kManifestInvalid = 100010;

}  // namespace patchmgmt

namespace patchmgmt {

// The first job of the manifest, in list order, whose id equals `jobId` byte
// for byte and whose run id, widened with its sign, equals `runId`. Copies it
// into `job` and returns true; false when there is none.
bool FindDeploymentJob(const DeploymentJobManifest& manifest, const std::string& jobId, uint64_t runId,
                       DeploymentJob& job);

}  // namespace patchmgmt
