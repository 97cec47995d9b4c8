#pragma once

// Helpers of the suites that run real package managers on sandbox roots: a
// command runner, a package root of the test's own with packages built by
// tests/support/pkg-fixtures, a process that holds a package manager's lock,
// and the two checks that both deployment scripts go through.

#include <sys/types.h>
#include <unistd.h>

#include <functional>
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

struct CommandOutput {
  int status = -1;     // exit status, 128 + n for signal n, -1 when it did not run
  std::string output;  // standard output and standard error together
};
// A directory (first) mounted over another one (second) for a single command.
using BindMount = std::pair<std::string, std::string>;
// Runs `argv` (no shell) with the test's environment in a process group of its
// own, waiting at most `timeoutSeconds`; a command still running then is
// killed with its group. With `binds` (root only) the command runs in a
// private mount namespace where each source directory stands at its target.
CommandOutput RunCommand(std::vector<std::string> argv, int timeoutSeconds = 120,
                         const std::vector<BindMount>& binds = {});

// A dpkg/apt (`family` "deb") or rpm/dnf ("rpm") root of the test's own, which
// the family's deployment script reaches through ZELKOR_DPKG_ROOT or
// ZELKOR_RPM_ROOT (the tool passes its environment on), and a directory of
// packages built for the test.
struct PackageRoot {
  explicit PackageRoot(const std::string& family);
  // Builds a package from pkg-fixtures' NAME VERSION [ARCH] [OPTION...]; its path.
  std::string Build(std::vector<std::string> args) const;
  // Makes `files` the content of a repository that the root's apt or dnf uses.
  void Repo(std::vector<std::string> files) const;
  // Every package the root's database knows, sorted: "ii name version" (the
  // dpkg status letters first) or "name version-release".
  std::vector<std::string> Installed() const;

  const std::string family;
  const std::string script = std::string(PM_SOURCE_DIR) + "/scripts/deploy/deploy-" + family;
  const TempDir dir;
  const std::string root = dir.Join("root");
  const std::string packages = dir.Join("packages");
};

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

// One patch of a job and what its script run on each package ends with, as
// the tool logs "... exit code: EXIT, custom exit code: CUSTOM". A failed
// package (CUSTOM 3 or 4) carries `says` in its error message.
struct JobPatch {
  std::string id;
  std::vector<std::string> packages;
  int exitCode, customExitCode;
  std::string says = "";
  bool rebootRequire = false;
};
// Runs the built tool with the root's script over a job of `patches`, the
// first of which meets `lockFile` (under the root) held by another process;
// expects each script run in the tool's log, the final result document's
// arrays and failed packages, and the exit-code file.
void ExpectJob(const PackageRoot& root, const std::string& lockFile, const std::vector<JobPatch>& patches);

// A run of the deployment script on its own, as the tool runs it, with a stale
// output file of an earlier run in place.
struct ScriptCase {
  const char* what;
  std::function<std::string(const PackageRoot&)> package;  // prepares the root, returns the argument
  int customExitCode, exitCode;                            // what the output file must hold
  std::string says;                                        // in the script's standard error
  std::string windowEnd = "+600";  // "+N" and "-N" are N seconds from the run; any other text stays
  const char* lockFile = nullptr;  // under the root, held by another process during the run
  int killAfter = 0;               // seconds after which the script is killed, when not 0
};
// Runs each case on a fresh root of `family`: the script ends as the case
// says, leaves nothing but its whole output file behind, and the root's
// database unchanged.
void ExpectScriptCases(const std::string& family, const std::vector<ScriptCase>& cases);

}  // namespace pmtest
