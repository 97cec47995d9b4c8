#include "healthstatus/healthstatustoolhelper.h"

#include <ctime>
#include <mutex>
#include <utility>

#include "healthstatus/patchstatushelper.h"

namespace patchmgmt {

std::shared_ptr<HealthStatusToolHelper> HealthStatusToolHelper::instance_;

namespace {

std::once_flag instanceCreated;

PatchMgmtHealthStatus ManifestRecord(const HealthStatusToolHelper& helper, uint32_t statusCode,
                                     uint32_t state) {
  PatchMgmtHealthStatus record(helper.contextId(), statusCode, state);
  // Stamped here rather than at the write, so a record that waits in the queue
  // still carries the moment of the event.
  record.dateTime = static_cast<int64_t>(std::time(nullptr));
  record.extraFields["manifestId"] = helper.manifestId();
  record.extraFields["manifestInstanceId"] = helper.manifestInstanceId();
  return record;
}

}  // namespace

HealthStatusToolHelper::HealthStatusToolHelper(std::string contextId, std::string secondaryId,
                                               std::string manifestId, std::string manifestInstanceId)
    : contextId_(std::move(contextId)),
      secondaryId_(std::move(secondaryId)),
      manifestId_(std::move(manifestId)),
      manifestInstanceId_(std::move(manifestInstanceId)) {}

std::shared_ptr<HealthStatusToolHelper> HealthStatusToolHelper::GetInstance(
    const std::string& contextId, const std::string& secondaryId, const std::string& manifestId,
    const std::string& manifestInstanceId, const std::string& statusDirPath,
    const std::string& statusDBPath) {
  std::call_once(instanceCreated, [&] {
    PatchStatusHelper::SetStatusPaths(statusDirPath, statusDBPath);
    instance_.reset(new HealthStatusToolHelper(contextId, secondaryId, manifestId, manifestInstanceId));
  });
  return instance_;
}

void HealthStatusToolHelper::QueueManifestStatus(uint32_t statusCode, uint32_t state) const {
  PatchStatusHelper::AddHealthStatus(ManifestRecord(*this, statusCode, state));
}

void HealthStatusToolHelper::QueueManifestOsStatus(uint32_t statusCode, uint32_t state,
                                                   const std::string& osStatus) const {
  PatchMgmtHealthStatus record = ManifestRecord(*this, statusCode, state);
  record.extraFields["osStatus"] = osStatus;
  PatchStatusHelper::AddHealthStatus(std::move(record));
}

}  // namespace patchmgmt
