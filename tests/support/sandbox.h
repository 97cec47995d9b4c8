#pragma once

#include <Poco/TemporaryFile.h>
#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "patchcommandlineargs/patchcommandlineargs.pb.h"

namespace pmtest {

namespace pb = ::com::zelkor::patch::proto;

// A fresh directory in the scratch directory ($TMPDIR or /tmp), removed with
// its content when the object goes away.
class TempDir {
 public:
  TempDir() { dir_.createDirectories(); }

  const std::string& path() const { return dir_.path(); }
  std::string Join(const std::string& name) const { return path() + "/" + name; }

 private:
  Poco::TemporaryFile dir_;
};

void WriteTextFile(const std::string& path, const std::string& content, mode_t mode = 0644);
std::string ReadTextFile(const std::string& path);
bool PathExists(const std::string& path);
// Names in a directory, sorted, without "." and "..".
std::vector<std::string> ListDir(const std::string& path);

// A Poco properties log configuration that writes "%p|%t" lines (priority
// name, a bar, the text) to `logPath` at `level`. Returns the config's path.
std::string WriteLogConfig(const std::string& configPath, const std::string& logPath,
                           const std::string& level = "trace");

// One logged message: its priority name ("Error", "Warning", "Information",
// "Debug", "Trace") and its text without the "[thread id]:" prefix. A message
// that spans several lines is kept whole.
struct LogLine {
  std::string priority;
  std::string text;
};
std::vector<LogLine> ReadLog(const std::string& logPath);
// Whether any message's text equals `text` exactly (and, when given, at that priority).
bool HasLogLine(const std::vector<LogLine>& log, const std::string& text, const std::string& priority = "");
// Whether any message's text starts with `prefix`.
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

// A /bin/sh deployment script body. The script receives: package name ($1),
// output file ($2), window end ($3).
//   WriteDeploymentScript(path, "echo '{\"customExitCode\":0,\"exitCode\":0}' > \"$2\"");
void WriteDeploymentScript(const std::string& path, const std::string& body);

// Everything one end-to-end run of the tool needs, under one temporary
// directory: config dir with a trace-level log configuration, manifest,
// result, interim and health-status directories, a status database path, a
// deployment script that reports success, and valid arguments pointing at all
// of them (vendor "v1", job "job1", run 7, manifest id "manifest1",
// architecture "x86_64", interim results off with a 60 s period).
class ToolSandbox {
 public:
  ToolSandbox();

  TempDir root;
  std::string configDir;
  std::string logPath;
  std::string manifestDir;
  std::string resultDir;
  std::string interimDir;
  std::string ahsDir;
  std::string statusDbPath;
  std::string scriptPath;
  std::string cgroupDir;  // stands in for /sys/fs/cgroup/systemd when isolated
  pb::CommandlineArguments args;

  pb::PatchArguments& patchArgs() { return *args.mutable_patchargs(); }
  // Serialises `args` through the generated classes; returns the file's path.
  std::string WriteArgs(const std::string& name = "args.bin") const;
  // Writes the manifest as manifestDir/<manifestID>.json.
  void WriteManifest(const std::string& json) const;
  void WriteScript(const std::string& body) const { WriteDeploymentScript(scriptPath, body); }
  std::vector<LogLine> Log() const { return ReadLog(logPath); }
  // Name of the exit-code file (".<job>.<run>.<pid>.exit"); empty when there
  // is none.
  std::string ExitCodeFileName() const;
  // Its content, "<no exit-code file>" when there is none.
  std::string ExitCodeText() const;
};

// A manifest with one job "job1"/7 (INSTALL, 60 min timeout from now) whose
// patches are given as JSON text of the "patches" array.
std::string ManifestWithPatches(const std::string& patchesJson, const std::string& jobExtraJson = "");
// One patch object with packages for the given architecture.
std::string PatchJson(const std::string& id, const std::vector<std::string>& packages,
                      const std::string& arch = "x86_64", bool rebootRequire = false);
// Result time text (UTC, milliseconds) of now + `offsetSeconds`.
std::string ManifestTime(long offsetSeconds = 0);

// The built tool, started as the agent starts it: with its own pipes for
// stdout and stderr, ZELKOR_AGENT_CONFIG_DIR pointing at the sandbox, and,
// when the test runs as root, inside a private mount namespace whose
// /sys/fs/cgroup/systemd is the sandbox's cgroupDir. The test process is a
// child subreaper, so the detached child becomes its child and its exit status
// can be read.
class ToolProcess {
 public:
  // Starts PM_TOOL_PATH with `toolArgs` (argv[1..]).
  ToolProcess(const ToolSandbox& sandbox, const std::vector<std::string>& toolArgs);
  // Kills (by pid) whatever of the run is still alive.
  ~ToolProcess();

  pid_t parentPid() const { return parentPid_; }

  // Reads the parent's stdout and stderr to end-of-file, then reaps it.
  // Returns its exit status (128 + n for signal n), or -1 on time-out.
  int WaitParent(std::chrono::seconds timeout = std::chrono::seconds(30));
  const std::string& parentStdout() const { return stdout_; }
  const std::string& parentStderr() const { return stderr_; }

  // The detached child's pid, from its exit-code file; -1 when there is none.
  pid_t ChildPid();
  // Reaps the detached child; its exit status, or -1 on time-out or absence.
  int WaitChild(std::chrono::seconds timeout = std::chrono::seconds(120));

  // Whether the private mount namespace was set up (root and unshare work).
  static bool CanIsolateCgroup();

 private:
  const ToolSandbox& sandbox_;
  pid_t parentPid_ = -1;
  pid_t childPid_ = -1;
  bool parentReaped_ = false;
  bool childReaped_ = false;
  int stdoutFd_ = -1;
  int stderrFd_ = -1;
  std::string stdout_;
  std::string stderr_;
};

// Polls `condition` every 20 ms until it holds or `timeout` passes.
bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout);

}  // namespace pmtest
