#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "results/interimresults.h"
#include "results/jobruninfo.h"

namespace patchmgmt {

// The interim document text and its digest (taken before "endDateTime").
struct InterimDocument {
  std::string text;
  std::string digest;
};
InterimDocument BuildInterimDocument(const InterimResultMap& snapshot, const JobRunInfo& jobRunInfo);

// Writes one interim document into `interimDirectory` through a temporary
// file. False only when the temporary file cannot be opened.
bool WriteInterimResult(const InterimResultMap& snapshot, const JobRunInfo& jobRunInfo,
                        const std::string& interimDirectory);

// One period's document: a snapshot of `table` written into
// `interimDirectory`, with "Failed to generate interim Result" when the file
// cannot be written. The job summary is read as it stands: the run keeps
// filling it.
void GenerateInterimResult(const InterimResults& table, const JobRunInfo& jobRunInfo,
                           const std::string& interimDirectory);

// Runs the interim work once per period while a job runs, on a thread of its
// own. The first period ends one whole period after the start.
class InterimResultGeneratorThread {
 public:
  // One period's work, step by step (the tool's: flush the health-status
  // queue, then write the interim document). A step runs only while no stop
  // has been requested: a stop that comes between two steps ends the period
  // there.
  using PeriodSteps = std::vector<std::function<void()>>;

  InterimResultGeneratorThread(uint32_t periodSeconds, bool generateOnStart, PeriodSteps steps);
  // Stops the worker and joins it.
  ~InterimResultGeneratorThread();

  void Start();
  // The worker's body.
  void Run();
  // Stops the worker; returns once it has left its loop.
  void Shutdown();

 private:
  std::atomic<bool> stop_{false};
  std::atomic<bool> running_{false};
  std::thread worker_;
  std::condition_variable condition_;
  std::mutex mutex_;
  uint64_t periodSeconds_;
  bool generateOnStart_;
  PeriodSteps steps_;
};

}  // namespace patchmgmt
