#include "support/packages.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <stdexcept>
#include <thread>

namespace pmtest {

namespace {

// Reaps `pid`; with `kill`, first ends it and the process group it leads.
int Reap(pid_t pid, bool kill) {
  if (kill) {
    ::kill(-pid, SIGKILL);
    ::kill(pid, SIGKILL);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

std::string SourcePath(const std::string& relative) { return std::string(PM_SOURCE_DIR) + "/" + relative; }

CommandOutput RunCommand(const std::vector<std::string>& argv, int timeoutSeconds,
                         const std::vector<BindMount>& binds) {
  std::vector<std::string> args = argv;
  std::vector<char*> pointers;
  for (auto& arg : args) pointers.push_back(arg.data());
  pointers.push_back(nullptr);
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) return {};
  const pid_t pid = fork();
  if (pid == 0) {
    setpgid(0, 0);
    dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), 0);
    dup2(out[1], 1);
    dup2(out[1], 2);
    if (!binds.empty() &&
        (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)) {
      _exit(120);
    }
    for (const auto& bind : binds) {
      if (mount(bind.source.c_str(), bind.target.c_str(), nullptr, MS_BIND, nullptr) != 0) _exit(121);
    }
    execvp(pointers[0], pointers.data());
    _exit(127);
  }
  close(out[1]);
  CommandOutput result;
  if (pid < 0) {
    close(out[0]);
    return result;
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSeconds);
  bool timedOut = false;
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      timedOut = true;
      break;
    }
    pollfd fd = {out[0], POLLIN, 0};
    const int ready = poll(&fd, 1, static_cast<int>(left.count()));
    if (ready < 0 && errno != EINTR) break;
    if (ready <= 0) continue;
    char buffer[4096];
    const ssize_t n = read(out[0], buffer, sizeof buffer);
    if (n > 0) {
      result.output.append(buffer, static_cast<size_t>(n));
    } else if (n == 0 || errno != EINTR) {
      break;
    }
  }
  close(out[0]);
  result.status = Reap(pid, timedOut);
  if (timedOut) result.output += "\n<killed after " + std::to_string(timeoutSeconds) + " s>";
  return result;
}

std::string Fixture(const std::vector<std::string>& args) {
  std::vector<std::string> argv = {SourcePath("tests/support/pkg-fixtures")};
  argv.insert(argv.end(), args.begin(), args.end());
  CommandOutput run = RunCommand(argv);
  if (run.status != 0) throw std::runtime_error("pkg-fixtures " + args.front() + " failed: " + run.output);
  while (!run.output.empty() && run.output.back() == '\n') run.output.pop_back();
  return run.output;
}

LockHolder::LockHolder(const std::string& path) {
  int ready[2];
  if (pipe2(ready, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  pid_ = fork();
  if (pid_ == 0) {
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0640);
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    const char answer = fd >= 0 && fcntl(fd, F_SETLK, &lock) == 0 ? 'y' : 'n';
    if (write(ready[1], &answer, 1) != 1 || answer != 'y') _exit(1);
    for (;;) pause();
  }
  close(ready[1]);
  char answer = 'n';
  const bool held = pid_ > 0 && read(ready[0], &answer, 1) == 1 && answer == 'y';
  close(ready[0]);
  if (!held) {
    Release();
    throw std::runtime_error("cannot lock " + path);
  }
}

void LockHolder::Release() {
  if (pid_ > 0) Reap(pid_, true);
  pid_ = -1;
}

ScriptRun::ScriptRun(const std::string& script, const std::string& package, const std::string& windowEnd,
                     int timeoutSeconds) {
  WriteTextFile(output, "stale output of an earlier run");
  // The script's own temporary files go beside its output, where a file left
  // behind shows.
  const char* tmpdir = getenv("TMPDIR");
  const std::string saved = tmpdir ? tmpdir : "";
  setenv("TMPDIR", results.path().c_str(), 1);
  run = RunCommand({script, package, output, windowEnd}, timeoutSeconds);
  if (tmpdir) {
    setenv("TMPDIR", saved.c_str(), 1);
  } else {
    unsetenv("TMPDIR");
  }
}

std::string ScriptResult(int customExitCode, int exitCode) {
  return "{\"customExitCode\":" + std::to_string(customExitCode) +
         ",\"exitCode\":" + std::to_string(exitCode) + "}";
}

std::string WindowEnd(const std::string& text) {
  if (text.empty() || (text[0] != '+' && text[0] != '-')) return text;
  return std::to_string(std::time(nullptr) + std::stoi(text));
}

void ExpectScriptRuns(const std::vector<LogLine>& log, const std::string& script,
                      const std::vector<std::pair<std::string, std::string>>& runs) {
  std::vector<std::string> logged;
  for (const auto& line : log) {
    if (line.text.rfind("Command: " + script + " ", 0) == 0) logged.push_back(line.text);
  }
  ASSERT_EQ(logged.size(), runs.size());
  for (size_t i = 0; i < logged.size(); ++i) {
    EXPECT_EQ(logged[i].rfind("Command: " + script + " " + runs[i].first + " ", 0), 0u) << logged[i];
    const std::string outcome = " exit code: " + runs[i].second;
    EXPECT_EQ(logged[i].substr(logged[i].size() - std::min(logged[i].size(), outcome.size())), outcome);
  }
}

pid_t DetachedPid(const ToolSandbox& sandbox) {
  // ".<job>.<run>.<pid>.exit"
  const std::string name = sandbox.ExitCodeFileName();
  if (name.empty()) return -1;
  const std::string stem = name.substr(0, name.size() - 5);
  return static_cast<pid_t>(std::atoi(stem.c_str() + stem.rfind('.') + 1));
}

rapidjson::Document ReadJson(const std::string& path) {
  rapidjson::Document document;
  document.Parse(ReadTextFile(path).c_str());
  return document;
}

std::vector<std::string> Strings(const rapidjson::Value& object, const char* member) {
  std::vector<std::string> values;
  if (!object.IsObject() || !object.HasMember(member) || !object[member].IsArray()) return values;
  for (const auto& value : object[member].GetArray())
    values.push_back(value.IsString() ? value.GetString() : "?");
  return values;
}

std::vector<FailedPackage> FailedPackages(const rapidjson::Value& deploymentResult) {
  std::vector<FailedPackage> packages;
  if (!deploymentResult.IsObject() || !deploymentResult.HasMember("failed")) return packages;
  for (const auto& patch : deploymentResult["failed"].GetArray()) {
    for (const auto& package : patch["failedPackages"].GetArray()) {
      packages.push_back({patch["id"].GetString(), package["name"].GetString(),
                          package["exitCode"].GetInt64(), package["errorMessage"].GetString()});
    }
  }
  return packages;
}

void ExpectFailedPackages(const rapidjson::Value& deploymentResult,
                          const std::vector<FailedPackage>& expected) {
  const auto packages = FailedPackages(deploymentResult);
  ASSERT_EQ(packages.size(), expected.size());
  for (size_t i = 0; i < packages.size(); ++i) {
    EXPECT_EQ(packages[i].patch, expected[i].patch);
    EXPECT_EQ(packages[i].name, expected[i].name) << expected[i].patch;
    EXPECT_EQ(packages[i].exitCode, expected[i].exitCode) << expected[i].patch;
    EXPECT_NE(packages[i].errorMessage.find(expected[i].errorMessage), std::string::npos)
        << expected[i].patch << ": " << packages[i].errorMessage;
  }
}

}  // namespace pmtest
