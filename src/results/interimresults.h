#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace patchmgmt {

// Interim state codes of a patch; each fills one array of the interim document.
enum InterimCode : uint32_t {
  kInterimPendingExecution = 8976,
  kInterimExecuting = 8977,
  kInterimPendingReboot = 8978,
  kInterimPendingVerification = 8979,
  kInterimSuccess = 8980,
  kInterimFailed = 8981,
  kInterimSuperseded = 8982,
  kInterimNotApplicable = 8983,
  kInterimAlreadyInstalled = 8984,
};

struct InterimResult {
  explicit InterimResult(uint32_t code, int64_t value = 0, std::string supersedingPatchId = {},
                         std::string message = {})
      : code(code),
        value(value),
        supersedingPatchId(std::move(supersedingPatchId)),
        message(std::move(message)) {}

  uint32_t code;
  // An exit code, or 0.
  int64_t value;
  // Only written with code 8982.
  std::string supersedingPatchId;
  // Carried, never written to a document.
  std::string message;
};

using InterimResultMap = std::map<std::string, std::shared_ptr<const InterimResult>>;

// The process-wide table of every patch's latest interim state. The mutex is
// held for one update or one copy of the map, never while a document is built.
class InterimResults {
 public:
  static InterimResults instance_;

  // Sets (inserts or replaces) the state of a patch.
  void Update(const std::string& patchId, InterimResult result);
  // A copy of the table; the copies share the records.
  InterimResultMap Snapshot() const;
  // Empties the table (tests and repeated runs in one process).
  void Clear();

 private:
  mutable std::mutex mutex_;
  InterimResultMap results_;
};

}  // namespace patchmgmt
