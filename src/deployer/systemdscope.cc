#include "deployer/systemdscope.h"

#include <systemd/sd-bus.h>
#include <systemd/sd-daemon.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "util/log.h"
#include "util/utf8.h"
#include "zelkor/strerror.h"

namespace patchmgmt {

namespace {

using Clock = std::chrono::steady_clock;

// The whole step, from connecting to the end of systemd's job. The run must
// not wait on a bus or a systemd that has stopped answering.
constexpr std::chrono::milliseconds kScopeStepLimit(2000);

constexpr const char* kSystemdService = "org.freedesktop.systemd1";
constexpr const char* kSystemdPath = "/org/freedesktop/systemd1";
constexpr const char* kManagerInterface = "org.freedesktop.systemd1.Manager";

// Closing without flushing: a flush would wait, unbounded, on a peer that
// does not read.
using Bus = std::unique_ptr<sd_bus, decltype(&sd_bus_close_unref)>;
using Message = std::unique_ptr<sd_bus_message, decltype(&sd_bus_message_unref)>;

// What the bus has told about the scope so far.
struct ScopeRequest {
  std::string unit;
  bool answered = false;
  std::string jobPath;
  bool jobEnded = false;
  std::string jobResult;
  std::string failure;  // set once, ends the step
  // Ends of our unit's jobs that came before systemd's answer named the job.
  std::vector<std::pair<std::string, std::string>> earlyEnds;

  void Fail(const std::string& reason) {
    if (failure.empty()) failure = reason;
  }
  bool Done() const { return !failure.empty() || jobEnded; }
};

std::string ErrorText(const sd_bus_error* error) {
  if (error->message != nullptr && error->message[0] != '\0') return error->message;
  return error->name != nullptr ? error->name : "unknown error";
}

std::string SystemError(int negativeErrno) { return util::strerror(-negativeErrno); }

// The run id reaches the detach as signed decimal text; an id above the
// signed range is shown as the agent knows it.
std::string UnsignedRunId(const std::string& runId) {
  char* end = nullptr;
  errno = 0;
  const long long value = std::strtoll(runId.c_str(), &end, 10);
  if (runId.empty() || *end != '\0' || errno != 0) return runId;
  return std::to_string(static_cast<uint64_t>(value));
}

int OnJobRemoved(sd_bus_message* signal, void* userdata, sd_bus_error*) {
  auto& request = *static_cast<ScopeRequest*>(userdata);
  uint32_t id = 0;
  const char* path = nullptr;
  const char* unit = nullptr;
  const char* result = nullptr;
  if (sd_bus_message_read(signal, "uoss", &id, &path, &unit, &result) < 0 || request.unit != unit) return 0;
  if (!request.answered) {
    request.earlyEnds.emplace_back(path, result);
  } else if (request.jobPath == path) {
    request.jobEnded = true;
    request.jobResult = result;
  }
  return 0;
}

int OnMatchInstalled(sd_bus_message* reply, void* userdata, sd_bus_error*) {
  const sd_bus_error* error = sd_bus_message_get_error(reply);
  if (error != nullptr) {
    static_cast<ScopeRequest*>(userdata)->Fail("cannot subscribe to JobRemoved: " + ErrorText(error));
  }
  return 0;
}

int OnStarted(sd_bus_message* reply, void* userdata, sd_bus_error*) {
  auto& request = *static_cast<ScopeRequest*>(userdata);
  const sd_bus_error* error = sd_bus_message_get_error(reply);
  if (error != nullptr) {
    request.Fail("StartTransientUnit failed: " + ErrorText(error));
    return 0;
  }
  const char* path = nullptr;
  const int r = sd_bus_message_read(reply, "o", &path);
  if (r < 0) {
    request.Fail("unreadable answer to StartTransientUnit: " + SystemError(r));
    return 0;
  }
  request.answered = true;
  request.jobPath = path;
  for (const auto& [endedPath, result] : request.earlyEnds) {
    if (endedPath == request.jobPath) {
      request.jobEnded = true;
      request.jobResult = result;
    }
  }
  return 0;
}

// StartTransientUnit(name, mode, properties, auxiliary units). The scope is
// the run's own: nothing ties it to the agent's service.
int NewStartCall(sd_bus* bus, pid_t pid, const std::string& unit, const std::string& description,
                 Message& call) {
  sd_bus_message* raw = nullptr;
  int r = sd_bus_message_new_method_call(bus, &raw, kSystemdService, kSystemdPath, kManagerInterface,
                                         "StartTransientUnit");
  call.reset(raw);
  if (r < 0) return r;
  if ((r = sd_bus_message_append(raw, "ss", unit.c_str(), "fail")) < 0) return r;
  if ((r = sd_bus_message_open_container(raw, 'a', "(sv)")) < 0) return r;
  if ((r = sd_bus_message_append(raw, "(sv)", "PIDs", "au", 1, static_cast<uint32_t>(pid))) < 0) return r;
  if ((r = sd_bus_message_append(raw, "(sv)", "Description", "s", description.c_str())) < 0) return r;
  // A scope that ended, well or not, is removed at once instead of lingering
  // until someone resets it.
  if ((r = sd_bus_message_append(raw, "(sv)", "CollectMode", "s", "inactive-or-failed")) < 0) return r;
  if ((r = sd_bus_message_close_container(raw)) < 0) return r;
  return sd_bus_message_append(raw, "a(sa(sv))", 0);
}

// Drives the connection until the request is done or the deadline passes.
void AwaitScope(sd_bus* bus, ScopeRequest& request, Clock::time_point deadline) {
  while (!request.Done()) {
    const auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now());
    if (left.count() <= 0) {
      request.Fail(request.answered ? "job " + request.jobPath + " did not finish within 2 s"
                                    : "no answer from systemd within 2 s");
      return;
    }
    int r = sd_bus_process(bus, nullptr);
    if (r < 0) {
      request.Fail("system bus connection lost: " + SystemError(r));
      return;
    }
    if (r > 0) continue;
    r = sd_bus_wait(bus, static_cast<uint64_t>(left.count()));
    if (r < 0 && r != -EINTR) {
      request.Fail("waiting on the system bus failed: " + SystemError(r));
      return;
    }
  }
}

// The reason the run is not in its own scope; empty on success.
std::string StartScope(pid_t pid, const std::string& description, ScopeRequest& request) {
  const auto deadline = Clock::now() + kScopeStepLimit;
  sd_bus* raw = nullptr;
  // Connecting is not blocking: a bus that does not answer is only met in
  // the wait below, which the deadline bounds.
  int r = sd_bus_open_system(&raw);
  Bus bus(raw, &sd_bus_close_unref);
  if (r < 0) return "cannot connect to the system bus: " + SystemError(r);

  // The subscription goes out before the call: the bus handles a
  // connection's messages in order, so the job's end cannot slip past it.
  r = sd_bus_match_signal_async(bus.get(), nullptr, kSystemdService, kSystemdPath, kManagerInterface,
                                "JobRemoved", OnJobRemoved, OnMatchInstalled, &request);
  if (r < 0) return "cannot subscribe to JobRemoved: " + SystemError(r);

  Message call(nullptr, &sd_bus_message_unref);
  r = NewStartCall(bus.get(), pid, request.unit, description, call);
  if (r < 0) return "cannot build the StartTransientUnit call: " + SystemError(r);
  // The call's own time-out is left long: the deadline decides.
  r = sd_bus_call_async(bus.get(), nullptr, call.get(), OnStarted, &request, 0);
  if (r < 0) return "cannot send the StartTransientUnit call: " + SystemError(r);

  AwaitScope(bus.get(), request, deadline);
  if (!request.failure.empty()) return request.failure;
  if (request.jobResult != "done")
    return "job " + request.jobPath + " ended with result " + request.jobResult;
  return "";
}

}  // namespace

void MoveToOwnSystemdScope(pid_t pid, const std::string& jobId, const std::string& runId) {
  // Without systemd the cgroup task list is all there is: no bus is touched.
  if (sd_booted() <= 0) return;
  ScopeRequest request;
  request.unit = "zelkor-patchmgmt-" + std::to_string(pid) + ".scope";
  const std::string description = ToValidUtf8("Patch job " + jobId + " run " + UnsignedRunId(runId));
  const std::string reason = StartScope(pid, description, request);
  if (reason.empty()) {
    PM_INFO("Patch process runs in systemd scope " << request.unit);
  } else {
    PM_WARNING("Failed to move patch process to its own systemd scope: " << reason);
  }
}

}  // namespace patchmgmt
