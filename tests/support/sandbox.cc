#include "support/sandbox.h"

#include <Poco/DateTimeFormatter.h>
#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/Timestamp.h>
#include <fcntl.h>
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
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "zelkor/agent.h"
#include "zelkor/logger.h"

extern char** environ;

namespace pmtest {

namespace {

std::string JsonString(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
}

int DecodeStatus(int status) {
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

// Reaps `pid` within `timeout`; its decoded status, or -1.
int ReapWithin(pid_t pid, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    int status = 0;
    pid_t done = waitpid(pid, &status, WNOHANG);
    if (done == pid) return DecodeStatus(status);
    if (done < 0 && errno != EINTR) return -1;
    if (std::chrono::steady_clock::now() >= deadline) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

pid_t ParentOf(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string content((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  auto close = content.rfind(')');
  if (close == std::string::npos) return -1;
  std::istringstream rest(content.substr(close + 2));
  char state = 0;
  pid_t ppid = -1;
  rest >> state >> ppid;
  return ppid;
}

// Every live process below any of `roots`, found through parent links.
std::set<pid_t> DescendantsOf(const std::set<pid_t>& roots) {
  std::set<pid_t> found;
  bool grew = true;
  while (grew) {
    grew = false;
    for (const auto& name : ListDir("/proc")) {
      if (name.find_first_not_of("0123456789") != std::string::npos) continue;
      pid_t pid = std::stoi(name);
      if (found.count(pid) != 0 || roots.count(pid) != 0) continue;
      pid_t ppid = ParentOf(pid);
      if (roots.count(ppid) != 0 || found.count(ppid) != 0) {
        found.insert(pid);
        grew = true;
      }
    }
  }
  return found;
}

void BecomeSubreaper() {
  static const bool done = [] { return prctl(PR_SET_CHILD_SUBREAPER, 1) == 0; }();
  (void)done;
}

}  // namespace

void WriteTextFile(const std::string& path, const std::string& content, mode_t mode) {
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) throw std::runtime_error("cannot write " + path);
    out << content;
  }
  chmod(path.c_str(), mode);
}

std::string ReadTextFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

bool PathExists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

std::vector<std::string> ListDir(const std::string& path) {
  std::vector<std::string> names;
  try {
    Poco::File(path).list(names);
  } catch (const Poco::Exception&) {
  }
  std::sort(names.begin(), names.end());
  return names;
}

std::string WriteLogConfig(const std::string& configPath, const std::string& logPath,
                           const std::string& level) {
  WriteTextFile(configPath,
                "logging.formatters.plain.class = PatternFormatter\n"
                "logging.formatters.plain.pattern = %p|%t\n"
                "logging.channels.file.class = FileChannel\n"
                "logging.channels.file.path = " +
                    logPath +
                    "\n"
                    "logging.channels.file.formatter = plain\n"
                    "logging.loggers.tool.name = zelkor-patchmgmt-tool\n"
                    "logging.loggers.tool.channel = file\n"
                    "logging.loggers.tool.level = " +
                    level + "\n");
  return configPath;
}

std::vector<LogLine> ReadLog(const std::string& logPath) {
  static const std::set<std::string> kPriorities = {"Fatal",  "Critical",    "Error", "Warning",
                                                    "Notice", "Information", "Debug", "Trace"};
  std::vector<LogLine> lines;
  std::istringstream in(ReadTextFile(logPath));
  std::string raw;
  while (std::getline(in, raw)) {
    auto bar = raw.find('|');
    if (bar != std::string::npos && kPriorities.count(raw.substr(0, bar)) != 0 &&
        raw.compare(bar + 1, 1, "[") == 0) {
      std::string text = raw.substr(bar + 1);
      auto prefixEnd = text.find("]:");
      if (prefixEnd != std::string::npos) text = text.substr(prefixEnd + 2);
      lines.push_back({raw.substr(0, bar), text});
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

ToolSandbox::ToolSandbox()
    : configDir(root.Join("config")),
      logPath(root.Join("log/tool.log")),
      manifestDir(root.Join("manifests")),
      resultDir(root.Join("results")),
      interimDir(root.Join("interim")),
      ahsDir(root.Join("ahs")),
      statusDbPath(root.Join("status.db")),
      scriptPath(root.Join("deploy.sh")),
      cgroupDir(root.Join("cgroup")) {
  for (const auto& dir : {configDir, manifestDir, resultDir, interimDir, ahsDir, cgroupDir}) {
    Poco::File(dir).createDirectories();
  }
  WriteTextFile(cgroupDir + "/tasks", "");
  WriteLogConfig(configDir + "/zagent-patchmgmt-log.conf", logPath);
  WriteScript("echo '{\"customExitCode\":0,\"exitCode\":0}' > \"$2\"");

  auto& patch = patchArgs();
  patch.set_vendorid("v1");
  patch.set_jobid("job1");
  patch.set_runid(7);
  patch.set_manifestid("manifest1");
  patch.set_manifestdirectorypath(manifestDir);
  patch.set_statusdbpath(statusDbPath);
  patch.set_ahsmessagedir(ahsDir);
  auto* agent = patch.mutable_agentdetails();
  agent->set_osname("Debian GNU/Linux");
  agent->set_osversion("12");
  agent->set_architecture("x86_64");
  agent->set_agentversion("1.2.3");
  patch.set_resultdirectory(resultDir);
  auto* interim = patch.mutable_interimresultoption();
  interim->set_isinterimresultenable(false);
  interim->set_interimresultdir(interimDir);
  interim->set_interimresultgeneratetimeinseconds(60);
  patch.mutable_deploymentscriptspaths()->set_deploymentscriptpath(scriptPath);
  patch.set_jobrecvtime("2026-11-22T10:00:00.000Z");
}

std::string ToolSandbox::WriteArgs(const std::string& name) const {
  std::string path = root.Join(name);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!args.SerializeToOstream(&out)) throw std::runtime_error("cannot write " + path);
  return path;
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

std::string ManifestTime(long offsetSeconds) {
  Poco::Timestamp now;
  now += static_cast<Poco::Timestamp::TimeDiff>(offsetSeconds) * Poco::Timestamp::resolution();
  return Poco::DateTimeFormatter::format(now, "%Y-%m-%dT%H:%M:%S.%iZ");
}

std::string PatchJson(const std::string& id, const std::vector<std::string>& packages,
                      const std::string& arch, bool rebootRequire) {
  std::string list;
  for (const auto& package : packages) list += (list.empty() ? "" : ",") + JsonString(package);
  return "{\"zpatchid\":" + JsonString(id) + ",\"vendorpatchid\":" + JsonString("V-" + id) +
         ",\"downloadinfo\":[{\"packagesbyarch\":[{\"architecture\":" + JsonString(arch) + ",\"packages\":[" +
         list + "]}]}],\"rebootrequire\":" + (rebootRequire ? "true" : "false") + "}";
}

std::string ManifestWithPatches(const std::string& patchesJson, const std::string& jobExtraJson) {
  // Extra members come first: the parser takes the first of duplicate keys.
  std::string extra = jobExtraJson.empty() ? "" : jobExtraJson + ",";
  return "{\"schemaversion\":1,\"manifestinstanceid\":42,\"jobs\":[{" + extra +
         "\"id\":\"job1\",\"runid\":7,\"type\":\"INSTALL\",\"isimmediate\":true,\"datetime\":\"" +
         ManifestTime() + "\",\"timeout\":60,\"continueafterpackagefailedforpatch\":false,\"patches\":[" +
         patchesJson + "],\"postdeployment\":{\"suppressreboots\":true}}]}";
}

bool ToolProcess::CanIsolateCgroup() {
  static const bool possible = [] {
    if (geteuid() != 0) return false;
    TempDir probeDir;
    pid_t pid = fork();
    if (pid == 0) {
      bool ok = unshare(CLONE_NEWNS) == 0 &&
                mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                mount(probeDir.path().c_str(), "/sys/fs/cgroup/systemd", nullptr, MS_BIND, nullptr) == 0;
      _exit(ok ? 0 : 1);
    }
    return pid > 0 && ReapWithin(pid, std::chrono::seconds(10)) == 0;
  }();
  return possible;
}

ToolProcess::ToolProcess(const ToolSandbox& sandbox, const std::vector<std::string>& toolArgs)
    : sandbox_(sandbox) {
  BecomeSubreaper();
  const bool isolate = CanIsolateCgroup();
  if (geteuid() == 0 && !isolate) {
    throw std::runtime_error(
        "running as root without a private mount namespace would touch the host's cgroup");
  }

  // Everything the child needs is built before fork: after it, only system calls.
  std::vector<std::string> argvText = {PM_TOOL_PATH};
  argvText.insert(argvText.end(), toolArgs.begin(), toolArgs.end());
  std::vector<char*> argv;
  for (auto& arg : argvText) argv.push_back(arg.data());
  argv.push_back(nullptr);

  // The sandbox's settings replace the caller's.
  std::vector<std::string> envText = {"ZELKOR_AGENT_CONFIG_DIR=" + sandbox.configDir};
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string key = std::string(*entry).substr(0, std::string(*entry).find('='));
    if (key != "ZELKOR_AGENT_CPU_LIMIT" && key != "ZELKOR_AGENT_CONFIG_DIR") envText.push_back(*entry);
  }
  std::vector<char*> envp;
  for (auto& entry : envText) envp.push_back(entry.data());
  envp.push_back(nullptr);

  int out[2];
  int err[2];
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  const std::string cgroupDir = sandbox.cgroupDir;

  parentPid_ = fork();
  if (parentPid_ == 0) {
    int devnull = open("/dev/null", O_RDONLY);
    dup2(devnull, 0);
    dup2(out[1], 1);
    dup2(err[1], 2);
    if (isolate) {
      if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
          mount(cgroupDir.c_str(), "/sys/fs/cgroup/systemd", nullptr, MS_BIND, nullptr) != 0) {
        _exit(120);
      }
    }
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  close(out[1]);
  close(err[1]);
  if (parentPid_ < 0) {
    close(out[0]);
    close(err[0]);
    throw std::runtime_error("fork failed");
  }
  stdoutFd_ = out[0];
  stderrFd_ = err[0];
}

ToolProcess::~ToolProcess() {
  std::set<pid_t> roots;
  if (!parentReaped_ && parentPid_ > 0) roots.insert(parentPid_);
  if (!childReaped_ && ChildPid() > 0) roots.insert(childPid_);
  if (!roots.empty()) {
    std::set<pid_t> all = DescendantsOf(roots);
    all.insert(roots.begin(), roots.end());
    for (pid_t pid : all) kill(pid, SIGKILL);
    for (pid_t pid : all) ReapWithin(pid, std::chrono::milliseconds(500));
  }
  if (stdoutFd_ >= 0) close(stdoutFd_);
  if (stderrFd_ >= 0) close(stderrFd_);
}

int ToolProcess::WaitParent(std::chrono::seconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (stdoutFd_ >= 0 || stderrFd_ >= 0) {
    auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return -1;
    pollfd fds[2] = {{stdoutFd_, POLLIN, 0}, {stderrFd_, POLLIN, 0}};
    if (poll(fds, 2, static_cast<int>(left.count())) < 0 && errno != EINTR) return -1;
    for (int i = 0; i < 2; ++i) {
      int& fd = i == 0 ? stdoutFd_ : stderrFd_;
      if (fd < 0 || (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;
      char buffer[4096];
      ssize_t n = read(fd, buffer, sizeof buffer);
      if (n > 0) {
        (i == 0 ? stdout_ : stderr_).append(buffer, static_cast<size_t>(n));
      } else if (n == 0 || errno != EINTR) {
        close(fd);
        fd = -1;
      }
    }
  }
  auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  int status = ReapWithin(parentPid_, std::max(left, std::chrono::milliseconds(0)));
  if (status >= 0) parentReaped_ = true;
  return status;
}

pid_t ToolProcess::ChildPid() {
  if (childPid_ > 0) return childPid_;
  // ".<job>.<run>.<pid>.exit": the pid is the last field before ".exit".
  std::string name = sandbox_.ExitCodeFileName();
  if (name.empty()) return -1;
  std::string stem = name.substr(0, name.size() - 5);
  auto dot = stem.rfind('.');
  if (dot == std::string::npos) return -1;
  childPid_ = static_cast<pid_t>(std::atoi(stem.c_str() + dot + 1));
  return childPid_;
}

int ToolProcess::WaitChild(std::chrono::seconds timeout) {
  if (ChildPid() <= 0) return -1;
  int status = ReapWithin(childPid_, timeout);
  if (status >= 0) childReaped_ = true;
  return status;
}

bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

}  // namespace pmtest
