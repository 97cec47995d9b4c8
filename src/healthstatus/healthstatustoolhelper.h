#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace patchmgmt {

// Outside the patch run: no step of the run creates this helper or queues
// through it. It queues the tool's manifest health statuses under one
// context, with the manifest's identity as extra fields. One per process.
class HealthStatusToolHelper {
 public:
  // The first call points PatchStatusHelper at `statusDirPath` and
  // `statusDBPath` and creates the helper from the four identifiers; every
  // later call returns that helper and ignores its arguments. Safe to call
  // from several threads.
  static std::shared_ptr<HealthStatusToolHelper> GetInstance(const std::string& contextId,
                                                             const std::string& secondaryId,
                                                             const std::string& manifestId,
                                                             const std::string& manifestInstanceId,
                                                             const std::string& statusDirPath,
                                                             const std::string& statusDBPath);

  // A record stamped now with "manifestId" and "manifestInstanceId", through
  // PatchStatusHelper::AddHealthStatus (queued when the row cannot be written).
  void QueueManifestStatus(uint32_t statusCode, uint32_t state) const;
  // The same with "osStatus" added.
  void QueueManifestOsStatus(uint32_t statusCode, uint32_t state, const std::string& osStatus) const;

  const std::string& contextId() const { return contextId_; }
  const std::string& secondaryId() const { return secondaryId_; }
  const std::string& manifestId() const { return manifestId_; }
  const std::string& manifestInstanceId() const { return manifestInstanceId_; }

  static std::shared_ptr<HealthStatusToolHelper> instance_;

 private:
  HealthStatusToolHelper(std::string contextId, std::string secondaryId, std::string manifestId,
                         std::string manifestInstanceId);

  const std::string contextId_;
  const std::string secondaryId_;
  const std::string manifestId_;
  const std::string manifestInstanceId_;
};

}  // namespace patchmgmt
