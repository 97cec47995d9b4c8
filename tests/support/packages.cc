#include "support/packages.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <rapidjson/document.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <regex>
#include <stdexcept>

namespace pmtest {

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

// Runs tests/support/pkg-fixtures with `args`; its standard output without
// the final line end. Throws when it fails, with the fixture's own words.
std::string Fixture(std::vector<std::string> args) {
  args.insert(args.begin(), std::string(PM_SOURCE_DIR) + "/tests/support/pkg-fixtures");
  CommandOutput run = RunCommand(args);
  if (run.status != 0) throw std::runtime_error("pkg-fixtures " + args[1] + " failed: " + run.output);
  return run.output.substr(0, run.output.find_last_not_of('\n') + 1);
}

}  // namespace

CommandOutput RunCommand(std::vector<std::string> argv, int timeoutSeconds,
                         const std::vector<BindMount>& binds) {
  std::vector<char*> pointers;
  for (auto& arg : argv) pointers.push_back(arg.data());
  pointers.push_back(nullptr);
  // A file rather than a pipe: a background process that keeps the command's
  // output open cannot hold up the wait.
  const TempDir dir;
  const std::string outputPath = dir.Join("output");
  const int out = open(outputPath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  const pid_t pid = out < 0 ? -1 : fork();
  if (pid == 0) {
    setpgid(0, 0);
    dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), 0);
    dup2(out, 1);
    dup2(out, 2);
    if (!binds.empty() &&
        (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)) {
      _exit(120);
    }
    for (const auto& bind : binds) {
      if (mount(bind.first.c_str(), bind.second.c_str(), nullptr, MS_BIND, nullptr) != 0) _exit(121);
    }
    execvp(pointers[0], pointers.data());
    _exit(127);
  }
  if (out >= 0) close(out);
  if (pid < 0) return {};
  int status = 0;
  const bool ended =
      WaitFor([&] { return waitpid(pid, &status, WNOHANG) == pid; }, std::chrono::seconds(timeoutSeconds));
  if (!ended) {
    kill(-pid, SIGKILL);
    waitpid(pid, &status, 0);
  }
  return {
      WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status),
      ReadTextFile(outputPath) + (ended ? "" : "\n<killed after " + std::to_string(timeoutSeconds) + " s>")};
}

PackageRoot::PackageRoot(const std::string& family) : family(family) {
  Fixture({family + "-root", root});
  std::filesystem::create_directories(packages);
  setenv(family == "deb" ? "ZELKOR_DPKG_ROOT" : "ZELKOR_RPM_ROOT", root.c_str(), 1);
}

std::string PackageRoot::Build(std::vector<std::string> args) const {
  args.insert(args.begin(), {family, packages});
  return Fixture(args);
}

void PackageRoot::Repo(std::vector<std::string> files) const {
  files.insert(files.begin(), {family + "-repo", root, dir.Join("repo")});
  Fixture(files);
}

std::vector<std::string> PackageRoot::Installed() const {
  auto lines =
      SplitLines(family == "deb" ? RunCommand({"dpkg-query", "--admindir=" + root + "/var/lib/dpkg", "-W",
                                               "-f=${db:Status-Abbrev}${Package} ${Version}\n"})
                                       .output
                                 : RunCommand({"rpm", "--root", root, "--dbpath", "/var/lib/rpm", "-qa",
                                               "--qf", "%{NAME} %{VERSION}-%{RELEASE}\n"})
                                       .output);
  std::sort(lines.begin(), lines.end());
  return lines;
}

LockHolder::LockHolder(const std::string& path) {
  int ready[2];
  if (pipe2(ready, O_CLOEXEC) != 0 || (pid_ = fork()) < 0) throw std::runtime_error("cannot fork");
  if (pid_ == 0) {
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640);
    if (fd < 0 || fcntl(fd, F_SETLK, &lock) != 0 || write(ready[1], "y", 1) != 1) _exit(1);
    for (;;) pause();
  }
  close(ready[1]);
  char answer = 0;
  const bool held = read(ready[0], &answer, 1) == 1;
  close(ready[0]);
  if (!held) {
    Release();
    throw std::runtime_error("cannot lock " + path);
  }
}

void LockHolder::Release() {
  if (pid_ > 0 && kill(pid_, SIGKILL) == 0) waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

void ExpectJob(const PackageRoot& root, const std::string& lockFile, const std::vector<JobPatch>& patches) {
  setenv("ZELKOR_DEPLOY_LOCK_WAIT", "3", 1);
  // What each array of the result document holds, and the script runs.
  const char* arrays[] = {"success", "alreadyInstalled", "notApplicable", "failed"};
  std::vector<testing::Matcher<std::string>> outcomes[4];
  std::vector<std::string> runs;
  std::string patchesJson;
  int exitCode = 0;
  for (const auto& patch : patches) {
    patchesJson +=
        (patchesJson.empty() ? "" : ",") + PatchJson(patch.id, patch.packages, "x86_64", patch.rebootRequire);
    const int kind = std::min(patch.customExitCode, 3);
    if (kind < 3) outcomes[kind].push_back(patch.id);
    const std::string exit = std::to_string(patch.exitCode);
    for (const auto& package : patch.packages) {
      runs.push_back(package + " exit code: " + exit +
                     ", custom exit code: " + std::to_string(patch.customExitCode));
      if (kind == 3)
        outcomes[3].push_back(
            AllOf(StartsWith(patch.id + " " + package + " " + exit + ": "), HasSubstr(patch.says)));
    }
    // An installed patch that requires a reboot.
    if (kind == 0 && patch.rebootRequire) exitCode = 55;
  }
  ToolSandbox sandbox;
  sandbox.patchArgs().mutable_deploymentscriptspaths()->set_deploymentscriptpath(root.script);
  sandbox.WriteManifest(ManifestWithPatches(patchesJson));

  // The lock is let go once the first patch's script has given up; the next
  // script waits for it to go.
  LockHolder lock(root.root + "/" + lockFile);
  ToolProcess tool(sandbox, {sandbox.WriteArgs()});
  ASSERT_EQ(tool.WaitParent(), 0) << tool.parentOutput();
  const std::string command = "Command: " + root.script + " ";
  ASSERT_TRUE(WaitFor([&] { return HasLogPrefix(sandbox.Log(), command + patches[0].packages[0] + " "); },
                      std::chrono::seconds(60)));
  lock.Release();
  ASSERT_EQ(tool.WaitChild(), exitCode) << ReadTextFile(sandbox.logPath);
  EXPECT_EQ(sandbox.ExitCodeText(), std::to_string(exitCode));

  // "Command: SCRIPT PACKAGE OUTPUT WINDOW exit code: ...", without the
  // script, the output file and the window end.
  std::vector<std::string> logged;
  for (const auto& line : sandbox.Log()) {
    if (line.text.rfind(command, 0) != 0) continue;
    logged.push_back(std::regex_replace(line.text.substr(command.size()),
                                        std::regex(" \\S+ \\d+ exit code: "), " exit code: "));
  }
  EXPECT_EQ(logged, runs);

  rapidjson::Document document;
  document.Parse(ReadTextFile(sandbox.resultDir + "/job1_7_status.json").c_str());
  ASSERT_TRUE(document.IsObject() && document.HasMember("deploymentResult"));
  const auto& result = document["deploymentResult"];
  for (int i = 0; i < 4; ++i) {
    std::vector<std::string> found;
    for (const auto& entry : result[arrays[i]].GetArray()) {
      if (entry.IsString()) found.push_back(entry.GetString());
      if (!entry.IsObject()) continue;
      for (const auto& package : entry["failedPackages"].GetArray()) {
        found.push_back(std::string(entry["id"].GetString()) + " " + package["name"].GetString() + " " +
                        std::to_string(package["exitCode"].GetInt64()) + ": " +
                        package["errorMessage"].GetString());
      }
    }
    EXPECT_THAT(found, testing::ElementsAreArray(outcomes[i])) << arrays[i];
  }
}

void ExpectScriptCases(const std::string& family, const std::vector<ScriptCase>& cases) {
  setenv("ZELKOR_DEPLOY_LOCK_WAIT", "600", 1);
  for (const auto& c : cases) {
    const PackageRoot root(family);
    std::unique_ptr<LockHolder> lock;
    if (c.lockFile) lock = std::make_unique<LockHolder>(root.root + "/" + c.lockFile);
    const std::string package = c.package(root);
    const auto before = root.Installed();
    const TempDir results;
    const std::string output = results.Join("scriptOutput.json");
    WriteTextFile(output, "stale output of an earlier run");
    const bool relative = c.windowEnd[0] == '+' || c.windowEnd[0] == '-';
    const std::string windowEnd =
        relative ? std::to_string(std::time(nullptr) + std::stoi(c.windowEnd)) : c.windowEnd;
    // The script's own temporary files go beside its output, where one left
    // behind shows.
    const auto run = RunCommand({"env", "TMPDIR=" + results.path(), root.script, package, output, windowEnd},
                                c.killAfter ? c.killAfter : 30);
    const std::string context = std::string(c.what) + ": " + run.output;
    EXPECT_EQ(run.status, c.killAfter ? 128 + SIGKILL : 0) << context;
    EXPECT_EQ(ReadTextFile(output), "{\"customExitCode\":" + std::to_string(c.customExitCode) +
                                        ",\"exitCode\":" + std::to_string(c.exitCode) + "}")
        << context;
    EXPECT_NE(run.output.find(c.says), std::string::npos) << context;
    EXPECT_TRUE(!lock || run.output.find("locked by pid " + std::to_string(lock->pid())) != std::string::npos)
        << context;
    EXPECT_EQ(ListDir(results.path()), std::vector<std::string>{"scriptOutput.json"}) << c.what;
    EXPECT_EQ(root.Installed(), before) << c.what;
  }
}

}  // namespace pmtest
