#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "patchcommandlineargs/patchcommandlineargs.pb.h"

namespace pmtest {

namespace pb = ::com::zelkor::patch::proto;

// A fresh directory in the scratch directory ($TMPDIR or /tmp), removed with
// its content when the object goes away. The name is made unique by the
// kernel: a name made from the process id alone names the directory of an
// earlier test process whose id was the same, and one that died without
// cleaning up (a death test's child) leaves its files there.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string Join(const std::string& name) const { return path() + "/" + name; }

 private:
  std::string path_;
};

void WriteTextFile(const std::string& path, const std::string& content, mode_t mode = 0644);
std::string ReadTextFile(const std::string& path);
bool PathExists(const std::string& path);
// The lines of `text`, without their line ends.
std::vector<std::string> SplitLines(const std::string& text);
// Names in a directory, sorted; none when it cannot be read.
std::vector<std::string> ListDir(const std::string& path);
// The children of `pid` (of every thread of it).
std::vector<pid_t> ChildrenOf(pid_t pid);
// The state letter of /proc/<pid>/stat ('R', 'S', 'Z', ...); '\0' when gone.
char ProcessState(pid_t pid);
// Every process below the test process: what a run left behind, since the
// test process is a child subreaper and inherits the orphans.
std::set<pid_t> ProcessesBelowThisOne();
// Polls `condition` every 20 ms until it holds or `timeout` passes.
bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout);

// A log configuration for the tool's logger that writes "%p|%t" lines
// (priority name, a bar, the text) to `logPath` at `level`.
std::string WriteLogConfig(const std::string& configPath, const std::string& logPath,
                           const std::string& level = "trace");

// One logged message: its priority name ("Error", "Debug", ...) and its text
// without the "[thread id]:" prefix; a message of several lines is kept whole.
struct LogLine {
  std::string priority;
  std::string text;
};
std::vector<LogLine> ReadLog(const std::string& logPath);
// Whether a message's text equals `text` (and, when given, has that priority).
bool HasLogLine(const std::vector<LogLine>& log, const std::string& text, const std::string& priority = "");
bool HasLogPrefix(const std::vector<LogLine>& log, const std::string& prefix);

// Routes the tool's logger into a file of the test's own temporary directory
// so that a test can assert the exact messages of a call. Each CaptureLog()
// starts a fresh file at the given level.
class LogCaptureTest : public ::testing::Test {
 protected:
  void SetUp() override { CaptureLog(); }
  void CaptureLog(const std::string& level = "trace");
  std::vector<LogLine> Log() const { return ReadLog(logPath_); }

  TempDir dir_;
  std::string logPath_;

 private:
  int logs_ = 0;
};

// A /bin/sh deployment script; it receives the package name ($1), the output
// file ($2) and the window end ($3).
void WriteDeploymentScript(const std::string& path, const std::string& body);

// Everything one end-to-end run of the tool needs, under one temporary
// directory: a trace-level log configuration, manifest, result, interim and
// health-status directories, a status database path, a deployment script that
// reports success, and valid arguments pointing at all of them (vendor "v1",
// job "job1", run 7, manifest "manifest1", architecture "x86_64", interim
// results off with a 60 s period).
class ToolSandbox {
 public:
  ToolSandbox();

  TempDir root;
  std::string configDir = root.Join("config");
  std::string logPath = root.Join("log/tool.log");
  std::string manifestDir = root.Join("manifests");
  std::string resultDir = root.Join("results");
  std::string interimDir = root.Join("interim");
  std::string scriptPath = root.Join("deploy.sh");
  std::string cgroupDir = root.Join("cgroup");  // stands in for /sys/fs/cgroup/systemd
  // Whether the run sees a host that systemd runs (/run/systemd/system
  // exists; needs root). Otherwise a /run/systemd/system of the host is out of
  // the run's sight, so that no run reaches a real systemd.
  bool systemdHost = false;
  // The run's DBUS_SYSTEM_BUS_ADDRESS; by default a socket that is not there,
  // so that no run reaches the host's system bus.
  std::string systemBus = "unix:path=" + root.Join("no-system-bus");
  pb::CommandlineArguments args;

  pb::PatchArguments& patchArgs() { return *args.mutable_patchargs(); }
  // Serialises `args` through the generated classes; returns the file's path.
  std::string WriteArgs(const std::string& name = "args.bin") const;
  void WriteManifest(const std::string& json) const;
  void WriteScript(const std::string& body) const { WriteDeploymentScript(scriptPath, body); }
  std::vector<LogLine> Log() const { return ReadLog(logPath); }
  // The exit-code file's name (".<job>.<run>.<pid>.exit"), empty when there
  // is none, and its content.
  std::string ExitCodeFileName() const;
  std::string ExitCodeText() const;
};

// A manifest with one job "job1"/`runId` (INSTALL, 60 min timeout from now)
// whose "patches" array holds `patchesJson`.
std::string ManifestWithPatches(const std::string& patchesJson, int runId = 7);
// One patch object with packages for one architecture.
std::string PatchJson(const std::string& id, const std::vector<std::string>& packages,
                      const std::string& arch = "x86_64", bool rebootRequire = false);

// The built tool, started as the agent starts it: stdout and stderr on one
// pipe, ZELKOR_AGENT_CONFIG_DIR pointing at the sandbox,
// DBUS_SYSTEM_BUS_ADDRESS at its `systemBus` and, when the test
// runs as root, inside a private mount namespace whose /sys/fs/cgroup/systemd
// is the sandbox's cgroupDir and whose /run/systemd shows the host that
// `systemdHost` asks for. The test process is a child subreaper, so the
// detached child becomes its child and its exit status can be read.
class ToolProcess {
 public:
  ToolProcess(const ToolSandbox& sandbox, const std::vector<std::string>& toolArgs);
  // Kills (by pid) whatever of the run is still alive: every descendant of
  // the test process.
  ~ToolProcess();

  pid_t parentPid() const { return parentPid_; }
  // Reads the parent's output to end-of-file, then reaps it. Its exit status
  // (128 + n for signal n), or -1 on time-out.
  int WaitParent(std::chrono::seconds timeout = std::chrono::seconds(30));
  const std::string& parentOutput() const { return output_; }
  // The detached child's pid, from its exit-code file; -1 when there is none.
  pid_t ChildPid() const;
  // Reaps the detached child; its exit status, or -1 on time-out or absence.
  int WaitChild(std::chrono::seconds timeout = std::chrono::seconds(120));

  // Whether runs get the private mount namespace: they do as root, which
  // needs it. A root that cannot set it up fails every run with status 120.
  static bool CanIsolateCgroup() { return geteuid() == 0; }

 private:
  const ToolSandbox& sandbox_;
  pid_t parentPid_ = -1;
  int outputFd_ = -1;
  std::string output_;
};

}  // namespace pmtest
