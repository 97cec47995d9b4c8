// Outside the patch run: the health-status record builders that the agent's
// other callers use. Each writes its row at once and returns the database's
// answer; nothing is queued. No step of the run calls them.
#include <string>

#include "healthstatus/patchstatushelper.h"

namespace patchmgmt {

int32_t PatchStatusHelper::ReportStatus(const std::string& contextId, uint32_t statusCode, uint32_t state) {
  PatchMgmtHealthStatus record(contextId, statusCode, state);
  return StoreHealthStatus(record);
}

int32_t PatchStatusHelper::ReportManifestStatus(const std::string& contextId, uint32_t statusCode,
                                                uint32_t state, const std::string& manifestId,
                                                const std::string& manifestInstanceId,
                                                const std::string& runId) {
  PatchMgmtHealthStatus record(contextId, statusCode, state);
  record.extraFields["manifestId"] = manifestId;
  record.extraFields["manifestInstanceId"] = manifestInstanceId;
  record.extraFields["runId"] = runId;
  return StoreHealthStatus(record);
}

int32_t PatchStatusHelper::ReportOsStatus(const std::string& contextId, uint32_t statusCode, uint32_t state,
                                          int64_t osStatus, int64_t httpStatus) {
  PatchMgmtHealthStatus record(contextId, statusCode, state);
  record.extraFields["httpStatus"] = std::to_string(httpStatus);
  record.extraFields["osStatus"] = std::to_string(osStatus);
  return StoreHealthStatus(record);
}

int32_t PatchStatusHelper::ReportManifestOsStatus(const std::string& contextId, uint32_t statusCode,
                                                  uint32_t state, const std::string& manifestId,
                                                  const std::string& manifestInstanceId, int64_t runId,
                                                  int64_t osStatus) {
  PatchMgmtHealthStatus record(contextId, statusCode, state);
  record.extraFields["manifestId"] = manifestId;
  record.extraFields["manifestInstanceId"] = manifestInstanceId;
  record.extraFields["osStatus"] = std::to_string(osStatus);
  record.extraFields["runId"] = std::to_string(runId);
  return StoreHealthStatus(record);
}

}  // namespace patchmgmt
