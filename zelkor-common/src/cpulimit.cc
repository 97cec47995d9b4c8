#include "zelkor/cpulimit.h"

#include <cstdlib>
#include <thread>

namespace {

// User plus system time of the whole process, in seconds.
double ProcessCpuSeconds() {
  rusage usage{};
  if (::getrusage(RUSAGE_SELF, &usage) != 0) return 0;
  auto seconds = [](const timeval& tv) { return static_cast<double>(tv.tv_sec) + tv.tv_usec / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// $ZELKOR_AGENT_CPU_LIMIT as a whole percentage; anything unreadable means
// "no limit".
unsigned PercentFromEnvironment() {
  const char* text = std::getenv("ZELKOR_AGENT_CPU_LIMIT");
  if (text == nullptr || *text == '\0') return 0;
  char* end = nullptr;
  unsigned long value = std::strtoul(text, &end, 10);
  if (*end != '\0' || value > 1000) return 0;
  return static_cast<unsigned>(value);
}

}  // namespace

CPULimit& CPULimit::getInstance() {
  static CPULimit instance;
  return instance;
}

CPULimit::CPULimit() : percent_(PercentFromEnvironment()) {}

void CPULimit::calculateAndSleep() {
  if (percent_ == 0 || percent_ >= 100) return;
  std::chrono::duration<double> pause{0};
  {
    std::lock_guard<std::mutex> guard(mutex_);
    const double cpuNow = ProcessCpuSeconds();
    const auto wallNow = std::chrono::steady_clock::now();
    if (!started_) {
      started_ = true;
      wallStart_ = wallNow;
      cpuStartSeconds_ = cpuNow;
      return;
    }
    // The wall time that the CPU spent so far is allowed to take at this
    // budget; whatever is missing is slept off.
    const double allowedWall = (cpuNow - cpuStartSeconds_) * 100.0 / percent_;
    const double elapsedWall = std::chrono::duration<double>(wallNow - wallStart_).count();
    if (allowedWall > elapsedWall) pause = std::chrono::duration<double>(allowedWall - elapsedWall);
  }
  if (pause.count() > 0) std::this_thread::sleep_for(pause);
}
