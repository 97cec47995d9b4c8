#include "support/sandbox.h"

#include <Poco/File.h>
#include <Poco/Path.h>
#include <fcntl.h>
#include <google/protobuf/text_format.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "util/timestamps.h"
#include "zelkor/agent.h"
#include "zelkor/logger.h"

namespace pmtest {

namespace {

using Clock = std::chrono::steady_clock;

// Reaps `pid` within `timeout`; its exit status (128 + n for signal n), or -1.
int ReapWithin(pid_t pid, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  for (int status = 0;; std::this_thread::sleep_for(std::chrono::milliseconds(10))) {
    const pid_t done = waitpid(pid, &status, WNOHANG);
    if (done == pid) return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    if ((done < 0 && errno != EINTR) || Clock::now() >= deadline) return -1;
  }
}

// `pid` and every process below it.
void CollectTree(pid_t pid, std::set<pid_t>& tree) {
  if (!tree.insert(pid).second) return;
  for (pid_t child : ChildrenOf(pid)) CollectTree(child, tree);
}

std::chrono::milliseconds Left(Clock::time_point deadline) {
  return std::max(std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()),
                  std::chrono::milliseconds(0));
}

}  // namespace

std::vector<pid_t> ChildrenOf(pid_t pid) {
  std::vector<pid_t> children;
  const std::string proc = "/proc/" + std::to_string(pid) + "/task/";
  for (const auto& task : ListDir(proc)) {
    std::istringstream listed(ReadTextFile(proc + task + "/children"));
    for (pid_t child; listed >> child;) children.push_back(child);
  }
  return children;
}

char ProcessState(pid_t pid) {
  const std::string stat = ReadTextFile("/proc/" + std::to_string(pid) + "/stat");
  const auto nameEnd = stat.rfind(')');
  return nameEnd != std::string::npos && stat.size() > nameEnd + 2 ? stat[nameEnd + 2] : '\0';
}

std::set<pid_t> ProcessesBelowThisOne() {
  std::set<pid_t> tree;
  CollectTree(getpid(), tree);
  tree.erase(getpid());
  return tree;
}

TempDir::TempDir() {
  std::string name = Poco::Path::temp() + "zelkor-test-XXXXXX";
  if (::mkdtemp(name.data()) == nullptr) {
    throw std::runtime_error("cannot create a directory under " + Poco::Path::temp() + ": " +
                             std::strerror(errno));
  }
  path_ = name;
}

TempDir::~TempDir() {
  try {
    Poco::File(path_).remove(true);
  } catch (const std::exception&) {
    // What a test left unremovable stays behind; the test itself has passed
    // or failed on its own checks already.
  }
}

void WriteTextFile(const std::string& path, const std::string& content, mode_t mode) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
  if (chmod(path.c_str(), mode) != 0) throw std::runtime_error("cannot write " + path);
}

std::string ReadTextFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

bool PathExists(const std::string& path) {
  return std::filesystem::exists(std::filesystem::symlink_status(path));
}

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::vector<std::string> ListDir(const std::string& path) {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(path, error))
    names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  while (!condition()) {
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

std::string WriteLogConfig(const std::string& configPath, const std::string& logPath,
                           const std::string& level) {
  WriteTextFile(configPath,
                "logging.formatters.plain.class = PatternFormatter\n"
                "logging.formatters.plain.pattern = %p|%t\n"
                "logging.channels.file.class = FileChannel\n"
                "logging.channels.file.formatter = plain\n"
                "logging.channels.file.path = " +
                    logPath +
                    "\nlogging.loggers.tool.name = zelkor-patchmgmt-tool\n"
                    "logging.loggers.tool.channel = file\n"
                    "logging.loggers.tool.level = " +
                    level + "\n");
  return configPath;
}

std::vector<LogLine> ReadLog(const std::string& logPath) {
  static const std::set<std::string> kPriorities = {"Fatal",  "Critical",    "Error", "Warning",
                                                    "Notice", "Information", "Debug", "Trace"};
  std::vector<LogLine> lines;
  for (const std::string& raw : SplitLines(ReadTextFile(logPath))) {
    const auto bar = raw.find('|');
    const auto prefixEnd = raw.find("]:");
    if (bar != std::string::npos && kPriorities.count(raw.substr(0, bar)) != 0 &&
        raw.compare(bar + 1, 1, "[") == 0 && prefixEnd != std::string::npos) {
      lines.push_back({raw.substr(0, bar), raw.substr(prefixEnd + 2)});
    } else if (!lines.empty()) {
      lines.back().text += "\n" + raw;
    }
  }
  return lines;
}

bool HasLogLine(const std::vector<LogLine>& log, const std::string& text, const std::string& priority) {
  return std::any_of(log.begin(), log.end(), [&](const LogLine& line) {
    return line.text == text && (priority.empty() || line.priority == priority);
  });
}

bool HasLogPrefix(const std::vector<LogLine>& log, const std::string& prefix) {
  return std::any_of(log.begin(), log.end(),
                     [&](const LogLine& line) { return line.text.compare(0, prefix.size(), prefix) == 0; });
}

void LogCaptureTest::CaptureLog(const std::string& level) {
  zagent::LOGGER_NAME = "zelkor-patchmgmt-tool";
  logPath_ = dir_.Join("tool-" + std::to_string(++logs_) + ".log");
  ASSERT_TRUE(util::logger::InitializeLogger(WriteLogConfig(dir_.Join("log.conf"), logPath_, level),
                                             dir_.path() + "/"));
}

void WriteDeploymentScript(const std::string& path, const std::string& body) {
  WriteTextFile(path, "#!/bin/sh\n" + body + "\n", 0755);
}

ToolSandbox::ToolSandbox() {
  for (const auto& dir : {configDir, manifestDir, resultDir, interimDir, cgroupDir})
    Poco::File(dir).createDirectories();
  WriteTextFile(cgroupDir + "/tasks", "");
  WriteLogConfig(configDir + "/zagent-patchmgmt-log.conf", logPath);
  WriteScript("echo '{\"customExitCode\":0,\"exitCode\":0}' > \"$2\"");

  google::protobuf::TextFormat::ParseFromString(
      "patchArgs { vendorID: 'v1' jobID: 'job1' runID: 7 manifestID: 'manifest1'"
      " agentDetails { architecture: 'x86_64' agentVersion: '1.2.3' } jobRecvTime: '2026-11-22T10:00:00.000Z'"
      " interimResultOption { interimResultGenerateTimeInSeconds: 60 } }",
      &args);
  auto& patch = patchArgs();
  patch.set_manifestdirectorypath(manifestDir);
  patch.set_statusdbpath(root.Join("status.db"));
  patch.set_ahsmessagedir(root.Join("ahs"));
  patch.set_resultdirectory(resultDir);
  patch.mutable_interimresultoption()->set_interimresultdir(interimDir);
  patch.mutable_deploymentscriptspaths()->set_deploymentscriptpath(scriptPath);
}

std::string ToolSandbox::WriteArgs(const std::string& name) const {
  WriteTextFile(root.Join(name), args.SerializeAsString());
  return root.Join(name);
}

void ToolSandbox::WriteManifest(const std::string& json) const {
  WriteTextFile(manifestDir + "/" + args.patchargs().manifestid() + ".json", json);
}

std::string ToolSandbox::ExitCodeFileName() const {
  for (const auto& name : ListDir(resultDir)) {
    if (name.size() > 6 && name[0] == '.' && name.compare(name.size() - 5, 5, ".exit") == 0) return name;
  }
  return "";
}

std::string ToolSandbox::ExitCodeText() const {
  const std::string name = ExitCodeFileName();
  return name.empty() ? "<no exit-code file>" : ReadTextFile(resultDir + "/" + name);
}

std::string PatchJson(const std::string& id, const std::vector<std::string>& packages,
                      const std::string& arch, bool rebootRequire) {
  std::string list;
  for (const auto& package : packages) list += (list.empty() ? "\"" : ",\"") + package + "\"";
  return "{\"zpatchid\":\"" + id + "\",\"vendorpatchid\":\"V-" + id +
         "\",\"downloadinfo\":[{\"packagesbyarch\":[{\"architecture\":\"" + arch + "\",\"packages\":[" +
         list + "]}]}],\"rebootrequire\":" + (rebootRequire ? "true" : "false") + "}";
}

std::string ManifestWithPatches(const std::string& patchesJson, int runId) {
  return "{\"schemaversion\":1,\"manifestinstanceid\":42,\"jobs\":[{\"id\":\"job1\",\"runid\":" +
         std::to_string(runId) + ",\"type\":\"INSTALL\",\"isimmediate\":true,\"datetime\":\"" +
         patchmgmt::FormatUtcSeconds(std::time(nullptr)) +
         "\",\"timeout\":60,\"continueafterpackagefailedforpatch\":false,\"patches\":[" + patchesJson +
         "],\"postdeployment\":{\"suppressreboots\":true}}]}";
}

ToolProcess::ToolProcess(const ToolSandbox& sandbox, const std::vector<std::string>& toolArgs)
    : sandbox_(sandbox) {
  static const bool subreaper = prctl(PR_SET_CHILD_SUBREAPER, 1) == 0;
  const bool isolate = CanIsolateCgroup();
  if (!subreaper || (sandbox.systemdHost && !isolate)) {
    throw std::runtime_error(
        "no subreaper, or a systemd host without a private mount namespace (needs root)");
  }
  // The test process's own environment is the tool's: each test runs in a
  // process of its own.
  setenv("ZELKOR_AGENT_CONFIG_DIR", sandbox.configDir.c_str(), 1);
  setenv("DBUS_SYSTEM_BUS_ADDRESS", sandbox.systemBus.c_str(), 1);
  unsetenv("ZELKOR_AGENT_CPU_LIMIT");
  // Everything the child needs is built before fork: after it, only system calls.
  std::vector<char*> argv = {const_cast<char*>(PM_TOOL_PATH)};
  for (const auto& arg : toolArgs) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  // The sandbox's stand-in for the host's /run/systemd (or, on a host that
  // has none, for /run), with system/ in it only for a systemd host. A host's
  // own /run/systemd/system thus never shows.
  const bool hostRunSystemd = PathExists("/run/systemd");
  const bool hideRun = isolate && (sandbox.systemdHost || PathExists("/run/systemd/system"));
  const std::string run = sandbox.root.Join("run");
  const std::string runSource = hostRunSystemd ? run + "/systemd" : run;
  const char* runTarget = hostRunSystemd ? "/run/systemd" : "/run";
  if (hideRun) Poco::File(run + (sandbox.systemdHost ? "/systemd/system" : "/systemd")).createDirectories();
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");

  parentPid_ = fork();
  if (parentPid_ == 0) {
    dup2(open("/dev/null", O_RDONLY | O_CLOEXEC), 0);
    dup2(out[1], 1);
    dup2(out[1], 2);
    if (isolate &&
        (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
         mount(sandbox.cgroupDir.c_str(), "/sys/fs/cgroup/systemd", nullptr, MS_BIND, nullptr) != 0 ||
         (hideRun && mount(runSource.c_str(), runTarget, nullptr, MS_BIND, nullptr) != 0))) {
      _exit(120);
    }
    execv(argv[0], argv.data());
    _exit(127);
  }
  close(out[1]);
  outputFd_ = out[0];
  if (parentPid_ < 0) throw std::runtime_error("fork failed");
}

ToolProcess::~ToolProcess() {
  // As a subreaper this process inherits every orphan of the run, so all that
  // is left of it lives below this process.
  const std::set<pid_t> tree = ProcessesBelowThisOne();
  for (pid_t pid : tree) kill(pid, SIGKILL);
  for (pid_t pid : tree) ReapWithin(pid, std::chrono::milliseconds(500));
  if (outputFd_ >= 0) close(outputFd_);
}

int ToolProcess::WaitParent(std::chrono::seconds timeout) {
  const auto deadline = Clock::now() + timeout;
  for (char buffer[4096]; outputFd_ >= 0;) {
    pollfd fd = {outputFd_, POLLIN, 0};
    const int ready = poll(&fd, 1, static_cast<int>(Left(deadline).count()));
    if (ready == 0) return -1;
    const ssize_t n = ready < 0 ? -1 : read(outputFd_, buffer, sizeof buffer);
    if (n > 0) {
      output_.append(buffer, static_cast<size_t>(n));
    } else if (n == 0 || errno != EINTR) {
      close(outputFd_);
      outputFd_ = -1;
    }
  }
  return ReapWithin(parentPid_, Left(deadline));
}

pid_t ToolProcess::ChildPid() const {
  // ".<job>.<run>.<pid>.exit": the pid is the last field before ".exit".
  const std::string name = sandbox_.ExitCodeFileName();
  return name.empty() ? -1
                      : static_cast<pid_t>(std::atoi(name.c_str() + name.rfind('.', name.size() - 6) + 1));
}

int ToolProcess::WaitChild(std::chrono::seconds timeout) {
  const pid_t child = ChildPid();
  return child > 0 ? ReapWithin(child, timeout) : -1;
}

}  // namespace pmtest
