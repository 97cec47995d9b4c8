#include "manifest/deploymentmanifest.h"

#include <cstddef>
#include <type_traits>
#include <exception>
#include <new>
#include <utility>

#include "util/files.h"
#include "util/json.h"
#include "util/log.h"

namespace patchmgmt {
namespace {

using JsonValue = rapidjson::Value;

// The value of the member named `key`, or null. The name's length is known
// at compile time, so no look-up measures the key. The object check of the
// JSON library stays in force: calling this on anything but an object ends
// the process.
template <size_t N>
const JsonValue* FindField(const JsonValue& object, const char (&key)[N]) {
  const JsonValue name(rapidjson::GenericStringRef<char>(key, N - 1));
  const auto member = object.FindMember(name);
  return member != object.MemberEnd() ? &member->value : nullptr;
}

// The one typed look-up (T is std::string, int32_t, uint64_t or bool). When
// `key` is absent or holds a value of another JSON type, a required look-up
// yields kManifestInvalid and an optional one kManifestOk, and `destination`
// keeps what it had (the model's default). The caller reports the failure,
// so that each one is logged once, in the words of the level that knows what
// was being read.
//
// The types are strict: an int32_t is a JSON number that fits 32 bits (1.0
// and 1e3 are not), a uint64_t a non-negative integer, a bool only true or
// false (the string "true" is not one).
template <typename T, size_t N>
int32_t GetField(const JsonValue& object, const char (&key)[N], T& destination, bool required) {
  const JsonValue* value = FindField(object, key);
  if (value == nullptr || !value->Is<T>()) return required ? kManifestInvalid : kManifestOk;
  if constexpr (std::is_same_v<T, std::string>) {
    // Names and ids end up as script arguments and file names, which cannot
    // carry a NUL; a "\u0000" escape therefore ends the value.
    destination.assign(value->GetString());
  } else {
    destination = value->Get<T>();
  }
  return kManifestOk;
}

// The value under `key` when it is present and of the wanted kind, else null.
template <size_t N>
const JsonValue* FindObjectField(const JsonValue& object, const char (&key)[N]) {
  const JsonValue* value = FindField(object, key);
  return value != nullptr && value->IsObject() ? value : nullptr;
}

template <size_t N>
const JsonValue* FindArrayField(const JsonValue& object, const char (&key)[N]) {
  const JsonValue* value = FindField(object, key);
  return value != nullptr && value->IsArray() ? value : nullptr;
}

void ParseDeferment(const JsonValue& object, Deferment& deferment) {
  GetField(object, "count", deferment.count, false);
  GetField(object, "minutesinterval", deferment.minutesInterval, false);
}

// "predeployment" and "rebootoption": every key is optional, so a prompt never
// makes the manifest invalid.
void ParseDeferrablePrompt(const JsonValue& object, DeferrablePrompt& prompt) {
  if (const JsonValue* deferment = FindObjectField(object, "deferment")) {
    ParseDeferment(*deferment, prompt.deferment);
  }
  GetField(object, "message", prompt.message, false);
  GetField(object, "description", prompt.description, false);
}

// "duringdeployment" and "oncomplete".
void ParseDeploymentMessage(const JsonValue& object, DeploymentMessage& message) {
  GetField(object, "message", message.message, false);
  GetField(object, "description", message.description, false);
}

int32_t ParseRebootCountdown(const JsonValue& object, RebootCountdown& countdown) {
  if (GetField(object, "minutesinterval", countdown.minutesInterval, true) != kManifestOk) {
    PM_ERROR("[Patch]:Failed to find: minutesinterval in rebootcountdown in manifest");
    return kManifestInvalid;
  }
  GetField(object, "message", countdown.message, false);
  GetField(object, "description", countdown.description, false);
  return kManifestOk;
}

int32_t ParsePostDeployment(const JsonValue& object, PostDeployment& postDeployment) {
  if (GetField(object, "suppressreboots", postDeployment.suppressReboots, true) != kManifestOk) {
    PM_ERROR("[Patch]:Failed to find bool field suppressreboots in postdeployment in manifest");
    return kManifestInvalid;
  }
  if (const JsonValue* rebootOption = FindObjectField(object, "rebootoption")) {
    ParseDeferrablePrompt(*rebootOption, postDeployment.rebootOption);
  }
  if (const JsonValue* countdown = FindObjectField(object, "rebootcountdown")) {
    const int32_t result = ParseRebootCountdown(*countdown, postDeployment.rebootCountdown);
    if (result != kManifestOk) return result;
  }
  if (const JsonValue* onComplete = FindObjectField(object, "oncomplete")) {
    ParseDeploymentMessage(*onComplete, postDeployment.onComplete);
  }
  return kManifestOk;
}

int32_t ParsePackageNames(const JsonValue& array, std::vector<std::string>& packages) {
  packages.reserve(packages.size() + array.Size());
  for (const JsonValue& name : array.GetArray()) {
    if (!name.IsString()) return kManifestInvalid;
    packages.emplace_back(name.GetString());
  }
  return kManifestOk;
}

int32_t ParsePackagesByArch(const JsonValue& array, std::vector<PackagesByArch>& packagesByArch) {
  packagesByArch.reserve(packagesByArch.size() + array.Size());
  for (const JsonValue& element : array.GetArray()) {
    PackagesByArch& entry = packagesByArch.emplace_back();
    // An entry that is not an object has no architecture: a broken manifest
    // must end in a reported failure, not in a process that leaves no result.
    if (!element.IsObject() ||
        GetField(element, "architecture", entry.architecture, true) != kManifestOk) {
      PM_ERROR("[Patch]:Failed to find string field architecture in packagesbyarch in manifest");
      return kManifestInvalid;
    }
    const JsonValue* packages = FindArrayField(element, "packages");
    if (packages == nullptr) {
      PM_ERROR("[Patch]:Failed to find array field packages in packagesbyarch in manifest");
      return kManifestInvalid;
    }
    const int32_t result = ParsePackageNames(*packages, entry.packages);
    if (result != kManifestOk) return result;
  }
  return kManifestOk;
}

// The tool only carries the digests, it never checks them, so a list that is
// not an array contributes nothing instead of failing the job.
void ParseHashes(const JsonValue& value, std::vector<PackageHash>& hashes) {
  if (!value.IsArray()) return;
  hashes.reserve(hashes.size() + value.Size());
  for (const JsonValue& element : value.GetArray()) {
    if (!element.IsObject()) continue;
    PackageHash& hash = hashes.emplace_back();
    GetField(element, "type", hash.type, false);
    GetField(element, "value", hash.value, false);
  }
}

int32_t ParseDownloadInfo(const JsonValue& object, DownloadInfo& downloadInfo) {
  if (!object.IsObject()) {
    PM_ERROR("[Patch]:Failed to find packagesbyarch in downloadinfo of manifest");
    return kManifestInvalid;
  }
  GetField(object, "langid", downloadInfo.langId, false);
  GetField(object, "downloadurl", downloadInfo.downloadUrl, false);
  if (const JsonValue* hashes = FindField(object, "hashesh")) ParseHashes(*hashes, downloadInfo.hashes);
  GetField(object, "platform", downloadInfo.platform, false);
  const JsonValue* packagesByArch = FindArrayField(object, "packagesbyarch");
  if (packagesByArch == nullptr) {
    PM_ERROR("[Patch]:Failed to find packagesbyarch in downloadinfo of manifest");
    return kManifestInvalid;
  }
  return ParsePackagesByArch(*packagesByArch, downloadInfo.packagesByArch);
}

// Patches are filled in place: on any failure the whole job is dropped, so a
// half-filled patch is never seen.
template <size_t N>
int32_t ParsePatches(const JsonValue& job, const char (&key)[N], std::vector<DeploymentPatch>& patches) {
  const JsonValue* array = FindArrayField(job, key);
  if (array == nullptr) {
    PM_ERROR("[Patch]:Failed to find array field patches in patches in manifest");
    return kManifestInvalid;
  }
  patches.reserve(patches.size() + array->Size());
  for (const JsonValue& element : array->GetArray()) {
    // Looking a key up in anything but an object would trip the JSON
    // library's consistency check and end the process without a result.
    if (!element.IsObject()) {
      PM_ERROR("[Patch]:Element of patches in manifest is not an object");
      return kManifestInvalid;
    }
    DeploymentPatch& patch = patches.emplace_back();
    if (GetField(element, "zpatchid", patch.patchId, true) != kManifestOk) {
      PM_ERROR("[Patch]:Failed to find string field zpatchid in patches in manifest");
      return kManifestInvalid;
    }
    GetField(element, "vendorpatchid", patch.vendorPatchId, false);
    const JsonValue* downloadInfo = FindArrayField(element, "downloadinfo");
    if (downloadInfo == nullptr) {
      PM_ERROR("[Patch]:Failed to find array field downloadinfo in patches in manifest");
      return kManifestInvalid;
    }
    if (GetField(element, "rebootrequire", patch.rebootRequire, true) != kManifestOk) {
      PM_ERROR("[Patch]:Failed to find bool field rebootrequire in patches in manifest");
      return kManifestInvalid;
    }
    if (!downloadInfo->Empty()) {
      const int32_t result = ParseDownloadInfo((*downloadInfo)[0], patch.downloadInfo);
      if (result != kManifestOk) return result;
    }
  }
  return kManifestOk;
}

// Fills `job` from one element of "jobs". `isInstall` tells the caller whether
// the job is one this tool runs; a job of another type is no failure, it is
// only not stored.
int32_t ParseJob(const JsonValue& object, DeploymentJob& job, bool& isInstall) {
  isInstall = false;
  if (GetField(object, "id", job.jobId, true) != kManifestOk) {
    PM_ERROR("[Patch]:Failed to find string field id in jobs in manifest");
    return kManifestInvalid;
  }
  if (GetField(object, "runid", job.runId, true) != kManifestOk) {
    PM_ERROR("[Patch]:Failed to find integer field runid in jobs in manifest");
    return kManifestInvalid;
  }
  if (GetField(object, "type", job.type, true) != kManifestOk) {
    PM_ERROR("[Patch]:Failed to find string field type in jobs in manifest");
    return kManifestInvalid;
  }
  if (job.type != "INSTALL") {
    PM_WARNING("[Patch]:type provided: " << job.type
                                         << " for linux job is not valid. supports only \"INSTALL\"");
    return kManifestOk;
  }
  isInstall = true;
  if (GetField(object, "isimmediate", job.isImmediate, true) != kManifestOk) {
    PM_ERROR("[Patch]:Failed to find bool field isimmediate in jobs in manifest");
    return kManifestInvalid;
  }
  if (GetField(object, "datetime", job.dateTime, true) != kManifestOk) {
    PM_ERROR("[Patch]:Failed to find string field datetime in jobs in manifest");
    return kManifestInvalid;
  }
  GetField(object, "ignoretimeout", job.ignoreTimeout, false);
  // A job that ignores its time limit has none: "timeout" is not even looked at.
  if (!job.ignoreTimeout && GetField(object, "timeout", job.timeout, true) != kManifestOk) {
    PM_ERROR("[Patch]:Failed to find integer field timeout in jobs in manifest");
    return kManifestInvalid;
  }
  GetField(object, "uploadprogressreports", job.uploadProgressReports, false);
  if (GetField(object, "continueafterpackagefailedforpatch", job.continueAfterPackageFailedForPatch,
                   true) != kManifestOk) {
    PM_ERROR("[Patch]:Failed to find bool field continueafterpackagefailedforpatch in jobs in manifest");
    return kManifestInvalid;
  }
  GetField(object, "sendJobTelemetryData", job.sendJobTelemetryData, false);
  if (FindField(object, "patches") == nullptr) {
    PM_ERROR("[Patch]:Failed to find object patches in jobs in manifest");
    return kManifestInvalid;
  }
  int32_t result = ParsePatches(object, "patches", job.patches);
  if (result != kManifestOk) return result;
  if (const JsonValue* preDeployment = FindObjectField(object, "predeployment")) {
    ParseDeferrablePrompt(*preDeployment, job.preDeployment);
  }
  if (const JsonValue* duringDeployment = FindObjectField(object, "duringdeployment")) {
    ParseDeploymentMessage(*duringDeployment, job.duringDeployment);
  }
  const JsonValue* postDeployment = FindObjectField(object, "postdeployment");
  if (postDeployment == nullptr) {
    PM_ERROR("[Patch]:Failed to find object field postdeployment in jobs in manifest");
    return kManifestInvalid;
  }
  return ParsePostDeployment(*postDeployment, job.postDeployment);
}

// Jobs accepted before a failure stay in `jobs`; the caller must not use a
// manifest whose parse failed.
int32_t ParseJobs(const JsonValue& array, std::vector<DeploymentJob>& jobs) {
  jobs.reserve(jobs.size() + array.Size());
  DeploymentJob scratch;
  for (const JsonValue& element : array.GetArray()) {
    if (!element.IsObject()) {
      PM_ERROR("[Patch]:Element of jobs in manifest is not an object");
      return kManifestInvalid;
    }
    scratch.Reset();
    bool isInstall = false;
    const int32_t result = ParseJob(element, scratch, isInstall);
    if (result != kManifestOk) return result;
    if (isInstall) jobs.push_back(std::move(scratch));
  }
  return kManifestOk;
}

int32_t ParseManifestObject(const JsonValue& root, DeploymentJobManifest& manifest) {
  if (GetField(root, "schemaversion", manifest.schemaVersion, true) != kManifestOk) {
    PM_ERROR("[Patch]:Failed to find integer field schemaversion in deployement manifest");
    return kManifestInvalid;
  }
  // Reported with the schema version's text: that is the message the field's
  // logs have always carried for either header key, and it is kept as it is.
  if (GetField(root, "manifestinstanceid", manifest.manifestInstanceId, true) != kManifestOk) {
    PM_ERROR("[Patch]:Failed to find integer field schemaversion in deployement manifest");
    return kManifestInvalid;
  }
  const JsonValue* jobs = FindArrayField(root, "jobs");
  if (jobs == nullptr) {
    PM_ERROR("[Patch]:Failed to find array field jobs in deployement manifest");
    return kManifestInvalid;
  }
  return ParseJobs(*jobs, manifest.jobs);
}

}  // namespace

int32_t DeploymentJobManifest::ParseManifest(const std::string& path) {
  PM_DEBUG("[Patch]:Parsing Deployment manifest: " << path);
  std::string content;
  try {
    content = ReadFile(path);
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception&) {
    // The reader has logged why the file could not be opened; for the caller
    // a missing manifest and an empty one are the same failure.
    content.clear();
  }
  if (content.empty()) {
    PM_ERROR("[Patch]:Error in reading manifest file content: " << path);
    return kManifestUnreadable;
  }
  PM_TRACE("[Patch]:Deployment manifest content: " << content);

  const int32_t result = ParseManifestText(std::move(content));
  if (result != kManifestOk) return result;

  DumpManifest();
  PM_DEBUG("[Patch]:Deployment manifest: " << path << " parsed successfully");
  return kManifestOk;
}

int32_t DeploymentJobManifest::ParseManifestText(std::string content) {
  rapidjson::Document document;
  // Parsed in place: the document's strings point into `content` instead of
  // being copies, so the text must outlive the model's filling. The parser
  // reads up to the terminating NUL, so a NUL byte inside the file would end
  // the document early; where the parser stopped tells whether the whole file
  // was read, and a file that was not is the syntax error it looks like.
  rapidjson::InsituStringStream stream(content.data());
  document.ParseStream<rapidjson::kParseInsituFlag | rapidjson::kParseDefaultFlags>(stream);
  const bool readWhole = stream.Tell() == content.size();
  if (!readWhole || document.HasParseError() || !document.IsObject()) {
    PM_ERROR("[Patch]:Not valid json document for Deployemnt manifest json.");
    return kManifestInvalid;
  }
  return ParseManifestObject(document, *this);
}

void DeploymentJobManifest::DumpManifest() const {
  // A manifest of thousands of patches is not walked unless it is written.
  if (!IsLogged(Poco::Message::PRIO_DEBUG)) return;
  PM_DEBUG("[Patch]:Dumping DeploymentManifest: ");
  PM_DEBUG("schemaversion: " << schemaVersion << "\n"
                             << "manifestInstanceID: " << manifestInstanceId << "\n");
  for (const DeploymentJob& job : jobs) {
    PM_DEBUG("[Patch]:Deployment Job: [JobId,RunId,Type,IsImmediate,DateTime,IgnoreTimeout, Timeout]: ["
             << job.jobId << ", " << job.runId << ", " << job.type << ", " << job.isImmediate << ", "
             << job.dateTime << ", " << job.ignoreTimeout << ", " << job.timeout << "]");
    for (const DeploymentPatch& patch : job.patches) {
      PM_DEBUG("[Patch]:Deployment patch:[zpatchid]: [" << patch.patchId << "]");
    }
  }
}

bool FindDeploymentJob(const DeploymentJobManifest& manifest, const std::string& jobId, uint64_t runId,
                       DeploymentJob& job) {
  // The agent hands the run id over as unsigned 64 bits while the manifest
  // carries it as a signed 32-bit number; both are compared as signed 64 bits,
  // so a run id of -1 in the manifest is the agent's 18446744073709551615.
  const int64_t wantedRunId = static_cast<int64_t>(runId);
  for (const DeploymentJob& candidate : manifest.jobs) {
    if (candidate.jobId == jobId && static_cast<int64_t>(candidate.runId) == wantedRunId) {
      job = candidate;
      return true;
    }
  }
  return false;
}

}  // namespace patchmgmt
