// The detached run's own systemd scope, against a private dbus-daemon and a
// stand-in for systemd's manager written here with sd-bus.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <thread>

#include "support/sandbox.h"

namespace {

using pmtest::ToolProcess;
using pmtest::ToolSandbox;

const std::string kFailed = "Failed to move patch process to its own systemd scope: ";
const std::string kWarning = "Warning|" + kFailed;
const std::string kJobPath = "/org/freedesktop/systemd1/job/42";

std::string Replace(std::string text, const std::string& from, const std::string& to) {
  for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

// A dbus-daemon of the test's own, on a socket in `dir`, open to everyone.
class PrivateBus {
 public:
  explicit PrivateBus(const pmtest::TempDir& dir) {
    const std::string config = dir.Join("bus.conf");
    pmtest::WriteTextFile(
        config, "<busconfig><listen>unix:path=" + dir.Join("bus") +
                    "</listen><auth>EXTERNAL</auth><policy context=\"default\">"
                    "<allow user=\"*\"/><allow own=\"*\"/><allow send_destination=\"*\" eavesdrop=\"true\"/>"
                    "<allow eavesdrop=\"true\"/>"
                    "</policy></busconfig>");
    int ready[2];
    if (pipe2(ready, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    std::string configArg = "--config-file=" + config;
    std::string printArg = "--print-address=" + std::to_string(ready[1]);
    char* argv[] = {const_cast<char*>("/usr/bin/dbus-daemon"),
                    configArg.data(),
                    const_cast<char*>("--nofork"),
                    const_cast<char*>("--nopidfile"),
                    const_cast<char*>("--nosyslog"),
                    printArg.data(),
                    nullptr};
    pid_ = fork();
    if (pid_ == 0) {
      fcntl(ready[1], F_SETFD, 0);
      execv(argv[0], argv);
      _exit(127);
    }
    close(ready[1]);
    // The address is printed once the daemon listens.
    pollfd fd = {ready[0], POLLIN, 0};
    char buffer[512];
    const ssize_t n = poll(&fd, 1, 10000) == 1 ? read(ready[0], buffer, sizeof buffer - 1) : -1;
    close(ready[0]);
    if (n <= 0) {
      Stop();
      throw std::runtime_error("dbus-daemon did not start");
    }
    address_.assign(buffer, static_cast<size_t>(n));
    address_.erase(address_.find_last_not_of('\n') + 1);
  }
  ~PrivateBus() { Stop(); }
  const std::string& address() const { return address_; }

 private:
  void Stop() {
    // Still our unreaped child unless a tool run's teardown took it: its pid
    // cannot have been reused.
    int status = 0;
    if (pid_ > 0 && waitpid(pid_, &status, WNOHANG) == 0) {
      kill(pid_, SIGTERM);
      waitpid(pid_, &status, 0);
    }
  }

  pid_t pid_ = -1;
  std::string address_;
};

// What the stand-in does with StartTransientUnit.
enum class Answer { kJob, kError, kNone };

// systemd's manager as far as the scope needs it: records the call, answers
// as told and reports the job's end with `result` (none when empty), amid
// ends of other jobs and units.
class SystemdStandIn {
 public:
  struct Call {
    std::string unit;
    std::string mode;
    std::map<std::string, std::string> properties;  // name -> type + ":" + value
    int auxiliaryUnits = 0;
  };

  SystemdStandIn(const std::string& address, Answer answer, std::string result, bool endFirst)
      : answer_(answer), result_(std::move(result)), endFirst_(endFirst) {
    if (sd_bus_new(&bus_) < 0 || sd_bus_set_address(bus_, address.c_str()) < 0 ||
        sd_bus_set_bus_client(bus_, 1) < 0 || sd_bus_start(bus_) < 0 ||
        sd_bus_request_name(bus_, "org.freedesktop.systemd1", 0) < 0 ||
        sd_bus_add_object(bus_, nullptr, "/org/freedesktop/systemd1", &SystemdStandIn::Handle, this) < 0) {
      sd_bus_flush_close_unref(bus_);
      throw std::runtime_error("stand-in for systemd could not take its name");
    }
    thread_ = std::thread([this] {
      while (!stop_ && sd_bus_process(bus_, nullptr) >= 0) sd_bus_wait(bus_, 20000);
    });
  }
  ~SystemdStandIn() {
    stop_ = true;
    thread_.join();
    sd_bus_flush_close_unref(bus_);
  }
  std::optional<Call> call() {
    std::lock_guard<std::mutex> lock(mutex_);
    return call_;
  }

 private:
  static std::string ReadVariant(sd_bus_message* m) {
    const char* type = nullptr;
    sd_bus_message_peek_type(m, nullptr, &type);
    std::string value = std::string(type) + ":";
    sd_bus_message_enter_container(m, 'v', type);
    if (value == "s:") {
      const char* text = nullptr;
      sd_bus_message_read(m, "s", &text);
      value += text;
    } else if (value == "au:") {
      sd_bus_message_enter_container(m, 'a', "u");
      for (uint32_t n = 0; sd_bus_message_read(m, "u", &n) > 0;)
        value += (value == "au:" ? "" : ",") + std::to_string(n);
      sd_bus_message_exit_container(m);
    } else {
      sd_bus_message_skip(m, type);
    }
    sd_bus_message_exit_container(m);
    return value;
  }

  static Call ReadCall(sd_bus_message* m) {
    Call call;
    const char* unit = nullptr;
    const char* mode = nullptr;
    sd_bus_message_read(m, "ss", &unit, &mode);
    call.unit = unit;
    call.mode = mode;
    sd_bus_message_enter_container(m, 'a', "(sv)");
    while (sd_bus_message_enter_container(m, 'r', "sv") > 0) {
      const char* name = nullptr;
      sd_bus_message_read(m, "s", &name);
      call.properties[name] = ReadVariant(m);
      sd_bus_message_exit_container(m);
    }
    sd_bus_message_exit_container(m);
    sd_bus_message_enter_container(m, 'a', "(sa(sv))");
    while (sd_bus_message_skip(m, "(sa(sv))") > 0) ++call.auxiliaryUnits;
    return call;
  }

  void JobRemoved(uint32_t id, const std::string& path, const std::string& unit, const std::string& result) {
    sd_bus_emit_signal(bus_, "/org/freedesktop/systemd1", "org.freedesktop.systemd1.Manager", "JobRemoved",
                       "uoss", id, path.c_str(), unit.c_str(), result.c_str());
  }

  static int Handle(sd_bus_message* m, void* userdata, sd_bus_error*) {
    if (!sd_bus_message_is_method_call(m, "org.freedesktop.systemd1.Manager", "StartTransientUnit")) return 0;
    auto& self = *static_cast<SystemdStandIn*>(userdata);
    const Call call = ReadCall(m);
    {
      std::lock_guard<std::mutex> lock(self.mutex_);
      self.call_ = call;
    }
    if (self.answer_ == Answer::kNone) return 1;
    if (self.answer_ == Answer::kError) {
      return sd_bus_reply_method_errorf(m, "org.freedesktop.systemd1.UnitExists", "Unit %s already exists.",
                                        call.unit.c_str());
    }
    if (self.endFirst_) self.JobRemoved(42, kJobPath, call.unit, self.result_);
    sd_bus_reply_method_return(m, "o", kJobPath.c_str());
    // Ends that are not the run's: another unit's job of the same path, and
    // another job of the run's unit.
    self.JobRemoved(42, kJobPath, "other.scope", "done");
    self.JobRemoved(41, "/org/freedesktop/systemd1/job/41", call.unit, "done");
    if (!self.endFirst_ && !self.result_.empty()) self.JobRemoved(42, kJobPath, call.unit, self.result_);
    return 1;
  }

  sd_bus* bus_ = nullptr;
  const Answer answer_;
  const std::string result_;
  const bool endFirst_;
  std::atomic<bool> stop_{false};
  std::mutex mutex_;
  std::optional<Call> call_;
  std::thread thread_;
};

// A socket that takes connections and never says a word.
class MuteSocket {
 public:
  explicit MuteSocket(const std::string& path)
      : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(fd_, 8) != 0) {
      throw std::runtime_error("cannot listen on " + path);
    }
  }
  ~MuteSocket() { close(fd_); }
  bool WasConnected() const {
    const int peer = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (peer >= 0) close(peer);
    return peer >= 0;
  }

 private:
  int fd_;
};

enum class BusKind { kNone, kMute, kStandIn };

struct ScopeCase {
  const char* name;
  bool systemdHost;
  BusKind bus;
  Answer answer;
  const char* result;  // the end the stand-in reports for the run's job; "" for none
  bool endFirst;       // that end comes before the answer
  uint64_t runId;
  std::string line;  // the scope's one log line, "priority|text", $UNIT for the unit; "" for none
};

void PrintTo(const ScopeCase& c, std::ostream* os) { *os << c.name; }

class SystemdScopeE2E : public ::testing::TestWithParam<ScopeCase> {};

TEST_P(SystemdScopeE2E, TheRunAsksForItsScopeAndEndsNormallyWhateverTheBusDoes) {
  if (!ToolProcess::CanIsolateCgroup()) GTEST_SKIP() << "needs root and a private mount namespace";
  const ScopeCase& c = GetParam();
  ToolSandbox sandbox;
  sandbox.systemdHost = c.systemdHost;
  sandbox.patchArgs().set_runid(c.runId);
  const std::string runId = std::to_string(c.runId);
  // The manifest reads run ids as signed 32-bit numbers.
  sandbox.WriteManifest(Replace(pmtest::ManifestWithPatches(pmtest::PatchJson("P1", {"pkg"})), "\"runid\":7",
                                "\"runid\":" + std::to_string(static_cast<int32_t>(c.runId))));
  const std::string socket = sandbox.root.Join("bus");
  sandbox.environment = {"DBUS_SYSTEM_BUS_ADDRESS=unix:path=" + socket};
  std::optional<PrivateBus> bus;
  std::optional<SystemdStandIn> standIn;
  std::optional<MuteSocket> mute;
  if (c.bus == BusKind::kStandIn) {
    bus.emplace(sandbox.root);
    sandbox.environment = {"DBUS_SYSTEM_BUS_ADDRESS=" + bus->address()};
    standIn.emplace(bus->address(), c.answer, c.result, c.endFirst);
  } else if (c.bus == BusKind::kMute) {
    mute.emplace(socket);
  }

  pid_t child = -1;
  {
    ToolProcess tool(sandbox, {sandbox.WriteArgs()});
    ASSERT_EQ(tool.WaitParent(), 0) << tool.parentOutput();
    child = tool.ChildPid();
    ASSERT_GT(child, 0);
    EXPECT_EQ(tool.WaitChild(), 0);
  }
  const std::string unit = "zelkor-patchmgmt-" + std::to_string(child) + ".scope";
  EXPECT_EQ(sandbox.ExitCodeText(), "0");
  EXPECT_TRUE(pmtest::PathExists(sandbox.resultDir + "/job1_" + runId + "_status.json"));

  // The scope's lines, as "priority|text".
  std::vector<std::string> scopeLines;
  for (const auto& line : sandbox.Log()) {
    if (line.text.rfind(kFailed, 0) == 0 || line.text.rfind("Patch process runs in systemd scope ", 0) == 0) {
      scopeLines.push_back(line.priority + "|" + line.text);
    }
  }
  std::vector<std::string> expected;
  if (!c.line.empty()) expected.push_back(Replace(c.line, "$UNIT", unit));
  EXPECT_EQ(scopeLines, expected);
  if (mute) {
    EXPECT_EQ(mute->WasConnected(), c.systemdHost);
  }
  if (standIn) {
    const auto call = standIn->call();
    ASSERT_TRUE(call.has_value());
    EXPECT_EQ(call->unit, unit);
    EXPECT_EQ(call->mode, "fail");
    const std::map<std::string, std::string> properties = {{"PIDs", "au:" + std::to_string(child)},
                                                           {"Description", "s:Patch job job1 run " + runId},
                                                           {"CollectMode", "s:inactive-or-failed"}};
    EXPECT_EQ(call->properties, properties);
    EXPECT_EQ(call->auxiliaryUnits, 0);
  }
}

const std::string kDone = "Information|Patch process runs in systemd scope $UNIT";
const std::string kRefused = kWarning + "StartTransientUnit failed: Unit $UNIT already exists.";
const std::string kJobFailed = kWarning + "job " + kJobPath + " ended with result failed";
const std::string kJobStuck = kWarning + "job " + kJobPath + " did not finish within 2 s";
const std::string kNoAnswer = kWarning + "no answer from systemd within 2 s";
const std::string kNoBus = kWarning + "cannot connect to the system bus: No such file or directory";
constexpr uint64_t kLargestRunId = std::numeric_limits<uint64_t>::max();

INSTANTIATE_TEST_SUITE_P(
    Systemd, SystemdScopeE2E,
    ::testing::Values(
        ScopeCase{"Done", true, BusKind::kStandIn, Answer::kJob, "done", false, kLargestRunId, kDone},
        ScopeCase{"DoneBeforeTheAnswer", true, BusKind::kStandIn, Answer::kJob, "done", true, 7, kDone},
        ScopeCase{"Refused", true, BusKind::kStandIn, Answer::kError, "", false, 7, kRefused},
        ScopeCase{"JobFailed", true, BusKind::kStandIn, Answer::kJob, "failed", false, 7, kJobFailed},
        ScopeCase{"JobNeverEnds", true, BusKind::kStandIn, Answer::kJob, "", false, 7, kJobStuck},
        ScopeCase{"NoAnswer", true, BusKind::kStandIn, Answer::kNone, "", false, 7, kNoAnswer},
        ScopeCase{"MuteBus", true, BusKind::kMute, Answer::kNone, "", false, 7, kNoAnswer},
        ScopeCase{"NoBus", true, BusKind::kNone, Answer::kNone, "", false, 7, kNoBus},
        ScopeCase{"NoSystemd", false, BusKind::kMute, Answer::kNone, "", false, 7, ""}),
    [](const ::testing::TestParamInfo<ScopeCase>& info) { return std::string(info.param.name); });

}  // namespace
