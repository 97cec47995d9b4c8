#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <queue>
#include <string>

#include "patchahsmessage/patchahsmessage.pb.h"

namespace patchmgmt {

namespace ahs = ::com::zelkor::patch::proto;

// One health-status record.
struct PatchMgmtHealthStatus {
  PatchMgmtHealthStatus(std::string contextId, uint32_t statusCode, uint32_t state)
      : contextId(std::move(contextId)), statusCode(statusCode), state(state) {}

  std::string contextId;
  uint32_t statusCode;
  // An ahs::State value.
  uint32_t state;
  // Seconds since the epoch; 0 until the record is first written.
  int64_t dateTime = 0;
  std::map<std::string, std::string> extraFields;
};

// The process-wide queue of records whose database row could not be written,
// and the message files they end up in.
class PatchStatusHelper {
 public:
  // Under lock_: stores both paths and initialises the status database.
  static void SetStatusPaths(const std::string& statusDirPath, const std::string& statusDBPath);

  // Under lock_: writes the record's row now, or queues a stamped copy.
  static void AddHealthStatus(PatchMgmtHealthStatus record);

  // Under lock_: writes queued records oldest first, stopping at the first
  // failure. Always 1.
  static int32_t FlushQueuedStatuses();

  // Flushes, then moves what is still queued into `writer`. Always 1.
  static int32_t CollectQueuedStatuses();

  // At the end of a run, before the exit code is saved: collects what is still
  // queued (CollectQueuedStatuses) and writes `writer` to the file name chosen
  // there, creating the health-status directory when it is missing. True when
  // nothing was left to write or the file was written; false (logged) when it
  // could not be, in which case the records stay in `writer`.
  static bool SaveQueuedStatuses();

  // Writes `messages` to `path` and clears it on success.
  static bool WriteAhsMessages(ahs::PatchAHSMessages& messages, const std::string& path);

  // Stamps (when dateTime is 0) and writes one row. 0 on success.
  static int32_t StoreHealthStatus(PatchMgmtHealthStatus& record);

  // ---- Outside the patch run (statusbuilders.cc) ----
  // Record builders for the agent's other callers, which write directly and
  // return the database result, queueing nothing. No step of the run calls
  // them.
  static int32_t ReportStatus(const std::string& contextId, uint32_t statusCode, uint32_t state);
  static int32_t ReportManifestStatus(const std::string& contextId, uint32_t statusCode, uint32_t state,
                                      const std::string& manifestId, const std::string& manifestInstanceId,
                                      const std::string& runId);
  static int32_t ReportOsStatus(const std::string& contextId, uint32_t statusCode, uint32_t state,
                                int64_t osStatus, int64_t httpStatus);
  static int32_t ReportManifestOsStatus(const std::string& contextId, uint32_t statusCode, uint32_t state,
                                        const std::string& manifestId, const std::string& manifestInstanceId,
                                        int64_t runId, int64_t osStatus);

  static std::queue<PatchMgmtHealthStatus> queOfAhsMessages_;
  static std::mutex lock_;
  static ahs::PatchAHSMessages writer;
  static std::string statusDBPath_;
  static std::string statusDirPath_;
  // The file name chosen by the last CollectQueuedStatuses.
  static std::string collectedFilePath_;
};

}  // namespace patchmgmt
