// The detached run's own systemd scope, against a private dbus-daemon and a
// stand-in for systemd's manager written here with sd-bus.

#include <Poco/PipeStream.h>
#include <Poco/Process.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstring>
#include <map>
#include <optional>
#include <string>

#include "support/sandbox.h"

namespace {

using namespace std::chrono_literals;
using pmtest::ToolProcess;
using pmtest::ToolSandbox;

const std::string kJobPath = "/org/freedesktop/systemd1/job/42";

// A dbus-daemon of the test's own, on a socket in `dir`, open to everyone. A
// tool run's teardown ends it with the rest of what lives below the test.
struct PrivateBus {
  explicit PrivateBus(const pmtest::TempDir& dir) {
    pmtest::WriteTextFile(dir.Join("bus.conf"),
                          "<busconfig><listen>unix:path=" + dir.Join("bus") + R"(</listen>
<auth>EXTERNAL</auth><policy context="default"><allow user="*"/><allow own="*"/>
<allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/></policy></busconfig>)");
    const Poco::Process::Args args = {"--config-file=" + dir.Join("bus.conf"), "--nofork", "--nopidfile",
                                      "--nosyslog", "--print-address"};
    Poco::Pipe out;
    pid = Poco::Process::launch("/usr/bin/dbus-daemon", args, nullptr, &out, nullptr).id();
    Poco::PipeInputStream printed(out);
    std::getline(printed, address);  // printed once the daemon listens
  }
  ~PrivateBus() {
    // Still our unreaped child, so its pid cannot have been reused.
    if (waitpid(pid, nullptr, WNOHANG) == 0 && kill(pid, SIGTERM) == 0) waitpid(pid, nullptr, 0);
  }
  pid_t pid;
  std::string address;
};

// systemd's manager as far as the scope needs it. It records the
// StartTransientUnit call as "unit mode name=type:value..." (properties sorted,
// each number of an array followed by a space, one " +aux" per auxiliary unit)
// and behaves as the case named `scenario`: "Refused" answers with an error,
// "NoAnswer" never answers, "JobNeverEnds" answers but never reports the job's
// end, "DoneBeforeTheAnswer" reports it before answering, "JobFailed" and
// "Done" after, with that result. Each answered call also sees ends that are
// not the run's.
struct SystemdStandIn {
  SystemdStandIn(const std::string& address, std::string scenario) : scenario(std::move(scenario)) {
    if (sd_bus_new(&bus) < 0 || sd_bus_set_address(bus, address.c_str()) < 0 ||
        sd_bus_set_bus_client(bus, 1) < 0 || sd_bus_start(bus) < 0 ||
        sd_bus_request_name(bus, "org.freedesktop.systemd1", 0) < 0 ||
        sd_bus_add_object(bus, nullptr, "/org/freedesktop/systemd1", &SystemdStandIn::Handle, this) < 0) {
      sd_bus_flush_close_unref(bus);
      throw std::runtime_error("stand-in for systemd could not take its name");
    }
  }
  ~SystemdStandIn() { sd_bus_flush_close_unref(bus); }

  static std::string ReadCall(sd_bus_message* m) {
    const char *unit = nullptr, *mode = nullptr;
    sd_bus_message_read(m, "ss", &unit, &mode);
    std::map<std::string, std::string> properties;
    sd_bus_message_enter_container(m, 'a', "(sv)");
    while (sd_bus_message_enter_container(m, 'r', "sv") > 0) {
      const char *name = nullptr, *type = nullptr, *text = nullptr;
      sd_bus_message_read(m, "s", &name);
      sd_bus_message_peek_type(m, nullptr, &type);
      std::string& value = properties[name] = std::string(type) + ":";
      sd_bus_message_enter_container(m, 'v', type);
      if (value == "s:" && sd_bus_message_read(m, "s", &text) > 0) {
        value += text;
      } else if (value == "au:" && sd_bus_message_enter_container(m, 'a', "u") > 0) {
        for (uint32_t pid = 0; sd_bus_message_read(m, "u", &pid) > 0;) value += std::to_string(pid) + " ";
        sd_bus_message_exit_container(m);
      } else {
        sd_bus_message_skip(m, type);
      }
      sd_bus_message_exit_container(m);
      sd_bus_message_exit_container(m);
    }
    std::string call = std::string(unit) + " " + mode;
    for (const auto& [name, value] : properties) call += " " + name + "=" + value;
    sd_bus_message_exit_container(m);
    sd_bus_message_enter_container(m, 'a', "(sa(sv))");
    while (sd_bus_message_skip(m, "(sa(sv))") > 0) call += " +aux";
    return call;
  }

  void JobRemoved(uint32_t id, const std::string& path, const std::string& unit, const char* result) {
    sd_bus_emit_signal(bus, "/org/freedesktop/systemd1", "org.freedesktop.systemd1.Manager", "JobRemoved",
                       "uoss", id, path.c_str(), unit.c_str(), result);
  }

  static int Handle(sd_bus_message* m, void* userdata, sd_bus_error*) {
    if (!sd_bus_message_is_method_call(m, "org.freedesktop.systemd1.Manager", "StartTransientUnit")) return 0;
    auto& self = *static_cast<SystemdStandIn*>(userdata);
    self.call = ReadCall(m);
    const std::string unit = self.call.substr(0, self.call.find(' '));
    if (self.scenario == "NoAnswer") return 1;
    if (self.scenario == "Refused") {
      return sd_bus_reply_method_errorf(m, "org.freedesktop.systemd1.UnitExists", "Unit %s already exists.",
                                        unit.c_str());
    }
    if (self.scenario == "DoneBeforeTheAnswer") self.JobRemoved(42, kJobPath, unit, "done");
    sd_bus_reply_method_return(m, "o", kJobPath.c_str());
    // Another unit's job of the same path, and another job of the run's unit.
    self.JobRemoved(42, kJobPath, "other.scope", "done");
    self.JobRemoved(41, "/org/freedesktop/systemd1/job/41", unit, "done");
    if (self.scenario == "Done" || self.scenario == "JobFailed") {
      self.JobRemoved(42, kJobPath, unit, self.scenario == "Done" ? "done" : "failed");
    }
    return 1;
  }

  sd_bus* bus = nullptr;
  const std::string scenario;
  std::string call;
};

// A socket that takes connections and never says a word.
struct MuteSocket {
  explicit MuteSocket(const std::string& path) {
    sockaddr_un address{AF_UNIX, {}};
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(fd, 8) != 0) {
      throw std::runtime_error("cannot listen on " + path);
    }
  }
  ~MuteSocket() { close(fd); }
  bool WasConnected() const {
    const int peer = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
    return peer >= 0 && close(peer) == 0;
  }
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
};

// A scenario named as the stand-in knows it, or "MuteBus" (a bus that never
// speaks), "NoBus" (none at all) or "NoSystemd" (a mute bus on a host that
// systemd does not run); and the scope's log lines, "priority|text" with
// $UNIT for the unit.
struct ScopeCase {
  std::string name;
  std::vector<std::string> lines;
};

void PrintTo(const ScopeCase& c, std::ostream* os) { *os << c.name; }

class SystemdScopeE2E : public ::testing::TestWithParam<ScopeCase> {};

TEST_P(SystemdScopeE2E, TheRunAsksForItsScopeAndEndsNormallyWhateverTheBusDoes) {
  if (!ToolProcess::CanIsolateCgroup()) GTEST_SKIP() << "needs root and a private mount namespace";
  const ScopeCase& c = GetParam();
  ToolSandbox sandbox;
  sandbox.systemdHost = c.name != "NoSystemd";
  // The largest run id; the manifest reads run ids as signed 32-bit numbers.
  const std::string runId = "18446744073709551615";
  sandbox.patchArgs().set_runid(std::stoull(runId));
  sandbox.WriteManifest(pmtest::ManifestWithPatches(pmtest::PatchJson("P1", {"pkg"}), -1));
  sandbox.systemBus = "unix:path=" + sandbox.root.Join("bus");
  std::optional<PrivateBus> bus;
  std::optional<SystemdStandIn> standIn;
  std::optional<MuteSocket> mute;
  if (c.name == "MuteBus" || c.name == "NoSystemd") {
    mute.emplace(sandbox.root.Join("bus"));
  } else if (c.name != "NoBus") {
    sandbox.systemBus = bus.emplace(sandbox.root).address;
    standIn.emplace(bus->address, c.name);
  }

  ToolProcess tool(sandbox, {sandbox.WriteArgs()});
  ASSERT_EQ(tool.WaitParent(), 0) << tool.parentOutput();
  const pid_t child = tool.ChildPid();
  ASSERT_GT(child, 0);
  // The stand-in answers, a message at a time, while the detached run waits on it.
  ASSERT_TRUE(pmtest::WaitFor(
      [&] {
        return !(standIn && sd_bus_process(standIn->bus, nullptr) > 0) && pmtest::ProcessState(child) == 'Z';
      },
      60s));
  EXPECT_EQ(tool.WaitChild(), 0);
  const std::string unit = "zelkor-patchmgmt-" + std::to_string(child) + ".scope";
  EXPECT_EQ(sandbox.ExitCodeText(), "0");
  EXPECT_TRUE(pmtest::PathExists(sandbox.resultDir + "/job1_" + runId + "_status.json"));
  std::vector<std::string> scopeLines;
  for (const auto& line : sandbox.Log()) {
    std::string text = line.priority + "|" + line.text;
    if (const auto at = text.find(unit); at != std::string::npos) text.replace(at, unit.size(), "$UNIT");
    if (text.find("systemd scope") != std::string::npos) scopeLines.push_back(text);
  }
  EXPECT_EQ(scopeLines, c.lines);
  if (mute) {
    EXPECT_EQ(mute->WasConnected(), sandbox.systemdHost);
  }
  if (standIn) {
    EXPECT_EQ(standIn->call, unit +
                                 " fail CollectMode=s:inactive-or-failed Description=s:Patch job job1 run " +
                                 runId + " PIDs=au:" + std::to_string(child) + " ");
  }
}

const std::string kFailed = "Warning|Failed to move patch process to its own systemd scope: ";

INSTANTIATE_TEST_SUITE_P(
    Systemd, SystemdScopeE2E,
    ::testing::Values(
        ScopeCase{"Done", {"Information|Patch process runs in systemd scope $UNIT"}},
        ScopeCase{"DoneBeforeTheAnswer", {"Information|Patch process runs in systemd scope $UNIT"}},
        ScopeCase{"Refused", {kFailed + "StartTransientUnit failed: Unit $UNIT already exists."}},
        ScopeCase{"JobFailed", {kFailed + "job " + kJobPath + " ended with result failed"}},
        ScopeCase{"JobNeverEnds", {kFailed + "job " + kJobPath + " did not finish within 2 s"}},
        ScopeCase{"NoAnswer", {kFailed + "no answer from systemd within 2 s"}},
        ScopeCase{"MuteBus", {kFailed + "no answer from systemd within 2 s"}},
        ScopeCase{"NoBus", {kFailed + "cannot connect to the system bus: No such file or directory"}},
        ScopeCase{"NoSystemd", {}}),
    [](const ::testing::TestParamInfo<ScopeCase>& info) { return info.param.name; });

}  // namespace
