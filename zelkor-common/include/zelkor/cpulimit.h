#pragma once

#include <sys/resource.h>

#include <chrono>
#include <mutex>

// Keeps the process's CPU time within $ZELKOR_AGENT_CPU_LIMIT percent of one
// core, measured since the first call, by sleeping as long as needed.
class CPULimit {
 public:
  static CPULimit& getInstance();

  // Returns at once when the limit is unset, 0, or 100 and above.
  void calculateAndSleep();

 private:
  CPULimit();

  std::mutex mutex_;
  unsigned percent_ = 0;
  bool started_ = false;
  std::chrono::steady_clock::time_point wallStart_;
  double cpuStartSeconds_ = 0;
};
