#pragma once

// Helpers of the suites that run real package managers on sandbox roots: a
// command runner, the fixture builder (tests/support/pkg-fixtures), a process
// that holds a package manager's lock, and a reader of result documents.

#include <rapidjson/document.h>
#include <sys/types.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "support/sandbox.h"

// Package managers keep file ownership and run install scripts chrooted into
// the sandbox root, and an installed tool runs in a private mount namespace:
// all of it needs root.
#define PM_SKIP_UNLESS_ROOT() \
  if (geteuid() != 0) GTEST_SKIP() << "needs root to install packages into a sandbox root"

namespace pmtest {

// The source tree's deployment scripts and fixture builder.
std::string SourcePath(const std::string& relative);

struct CommandOutput {
  int status = -1;     // exit status, 128 + n for signal n, -1 when it did not run
  std::string output;  // standard output and standard error together
};
// A directory mounted over another one for a single command.
struct BindMount {
  std::string source;
  std::string target;
};
// Runs `argv` (no shell) with the test's environment in a process group of its
// own, waiting at most `timeoutSeconds`; a command still running then is
// killed with its group. With `binds` (root only) the command runs in a
// private mount namespace where each source directory stands at its target.
CommandOutput RunCommand(const std::vector<std::string>& argv, int timeoutSeconds = 120,
                         const std::vector<BindMount>& binds = {});

// Runs tests/support/pkg-fixtures with `args`; its standard output without the
// final line end. Throws when it fails, with the fixture's own words.
std::string Fixture(const std::vector<std::string>& args);

// A child process that holds a POSIX (fcntl) write lock on a file, as dpkg,
// apt and rpm take theirs, from construction until Release() or destruction.
class LockHolder {
 public:
  explicit LockHolder(const std::string& path);
  ~LockHolder() { Release(); }
  LockHolder(const LockHolder&) = delete;
  LockHolder& operator=(const LockHolder&) = delete;
  void Release();
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
};

// A deployment script run directly, as the tool runs it, on one package with
// a stale output file from an earlier run in place; its temporary directory
// is the one that holds the output file.
struct ScriptRun {
  ScriptRun(const std::string& script, const std::string& package, const std::string& windowEnd,
            int timeoutSeconds = 60);
  std::string Written() const { return ReadTextFile(output); }

  TempDir results;
  std::string output = results.Join("scriptOutput.json");
  CommandOutput run;
};
// The output file's content for an outcome and an exit status.
std::string ScriptResult(int customExitCode, int exitCode);
// A window end: "+N" and "-N" are N seconds from now; any other text stays.
std::string WindowEnd(const std::string& text);

// Expects the tool's log to show `script` run once per entry of `runs`, in
// order, each on the package (first) ending as "EXIT, custom exit code: C"
// (second), as the tool logs "Command: ... exit code: EXIT, ...".
void ExpectScriptRuns(const std::vector<LogLine>& log, const std::string& script,
                      const std::vector<std::pair<std::string, std::string>>& runs);

// The pid in the name of the sandbox's exit-code file: the detached run's;
// -1 when there is no such file.
pid_t DetachedPid(const ToolSandbox& sandbox);

// The result document at `path`, parsed; a document holding an error when the
// file is missing or not JSON.
rapidjson::Document ReadJson(const std::string& path);
// The strings of an array member of `object` ("success", "alreadyInstalled",
// ...); empty when absent.
std::vector<std::string> Strings(const rapidjson::Value& object, const char* member);

// One failed package of a result document's "failed" entries.
struct FailedPackage {
  std::string patch;
  std::string name;
  int64_t exitCode;
  std::string errorMessage;
};
std::vector<FailedPackage> FailedPackages(const rapidjson::Value& deploymentResult);
// Expects exactly the failed packages in `expected`, in order, each one's
// error message holding its `errorMessage` text.
void ExpectFailedPackages(const rapidjson::Value& deploymentResult,
                          const std::vector<FailedPackage>& expected);

}  // namespace pmtest
