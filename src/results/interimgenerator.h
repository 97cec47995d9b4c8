#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

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

// Writes an interim document once per period while a job runs. The job summary
// is held by reference: the run keeps filling it.
class InterimResultGeneratorThread {
 public:
  InterimResultGeneratorThread(const JobRunInfo& jobRunInfo, std::string interimDirectory,
                               uint32_t periodSeconds, bool generateOnStart);
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
  const JobRunInfo& jobRunInfo_;
  std::string interimDirectory_;
  uint64_t periodSeconds_;
  bool generateOnStart_;
};

}  // namespace patchmgmt
