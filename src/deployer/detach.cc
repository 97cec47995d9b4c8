#include "deployer/detach.h"

#include <Poco/File.h>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <vector>

#include "deployer/systemdscope.h"
#include "util/filewriter.h"
#include "util/log.h"
#include "zelkor/strerror.h"

namespace patchmgmt {

namespace {

constexpr int kNoPipe = 44;
constexpr int kNoDetach = 58;
// The agent is released at the latest after this long, acknowledged or not.
constexpr int kAcknowledgeWaitMilliseconds = 10000;

// Descriptors above standard error that the agent handed down, recorded
// before the tool opened anything of its own.
std::vector<int>& InheritedDescriptors() {
  static std::vector<int> descriptors;
  return descriptors;
}

std::vector<int> OpenDescriptorsAboveStderr() {
  std::vector<int> found;
  DIR* dir = opendir("/proc/self/fd");
  if (dir == nullptr) return found;
  const int own = dirfd(dir);
  while (dirent* entry = readdir(dir)) {
    char* end = nullptr;
    long fd = std::strtol(entry->d_name, &end, 10);
    if (end != entry->d_name && *end == '\0' && fd > 2 && fd != own) found.push_back(static_cast<int>(fd));
  }
  closedir(dir);
  return found;
}

// The agent may read the tool's output until end-of-file: once the child has
// acknowledged, it must hold nothing of the agent's, or the agent would wait
// for the whole job instead of the detach.
void ReleaseAgentDescriptors() {
  int devnull = open("/dev/null", O_RDWR);
  if (devnull >= 0) {
    for (int fd = 0; fd <= 2; ++fd) dup2(devnull, fd);
    if (devnull > 2) close(devnull);
  }
  for (int fd : InheritedDescriptors()) close(fd);
  InheritedDescriptors().clear();
}

void JoinOwnControlGroup(pid_t pid) {
  try {
    if (!Poco::File(kSystemdTasksPath).exists()) return;
    std::ofstream tasks;
    tasks.exceptions(std::ios::failbit | std::ios::badbit);
    tasks.open(kSystemdTasksPath, std::ios::app);
    tasks << pid;
    tasks.flush();
  } catch (const std::exception& e) {
    PM_ERROR("exception occurred at adding pid in /sys/fs/cgroup/systemd/tasks file, error: " << e.what());
  }
}

[[noreturn]] void EndParent(int readEnd) {
  // A signal that the handlers let through (SIGUSR1, SIGTERM while armed)
  // interrupts the wait without shortening or extending the ten seconds.
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::milliseconds(kAcknowledgeWaitMilliseconds);
  pollfd ack{readEnd, POLLIN, 0};
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 || poll(&ack, 1, static_cast<int>(left.count())) >= 0 || errno != EINTR) break;
  }
  close(readEnd);
  // The child owns the run from here: nothing of this process's exit work
  // (exit handlers, buffered output shared with the child) may run twice.
  _exit(0);
}

}  // namespace

void RecordInheritedDescriptors() {
  // An agent that started the tool with a standard stream closed would let
  // the next open() take its number, and the detach would later put
  // /dev/null over that file (the log file, say). Holding the numbers with
  // /dev/null from the start keeps the tool's own files above them.
  for (int fd = 0; fd <= 2; ++fd) {
    if (fcntl(fd, F_GETFD) == -1 && errno == EBADF) {
      const int devnull = open("/dev/null", O_RDWR);
      if (devnull >= 0 && devnull != fd) {
        dup2(devnull, fd);
        close(devnull);
      }
    }
  }
  InheritedDescriptors() = OpenDescriptorsAboveStderr();
}

void DetachPatchProcess(const std::string& resultDirectory, const std::string& jobId,
                        const std::string& runId) {
  int ack[2];
  if (pipe(ack) != 0) {
    PM_ERROR("Failed to create pipe for ipc between child and parent, " << util::strerror(errno));
    std::exit(kNoPipe);
  }
  std::cout.flush();
  std::cerr.flush();
  const pid_t pid = fork();
  if (pid < 0) {
    PM_ERROR("Failed to fork process for patching");
    close(ack[0]);
    close(ack[1]);
    std::exit(kNoDetach);
  }
  if (pid > 0) {
    close(ack[1]);
    EndParent(ack[0]);
  }

  close(ack[0]);
  // Nothing the run or its deployment script creates is writable by group or
  // others: result files that anyone can rewrite could fake an outcome. The
  // entry has normally set this mask already (and restores the agent's at
  // exit), so setting it again changes nothing.
  umask(kFileCreationMask);
  const pid_t self = getpid();
  ExitCodeFile::Create(resultDirectory, jobId, runId, static_cast<int>(self));
  // The exit-code file exists before the agent is let go, so that it always
  // finds one to read.
  ssize_t written = write(ack[1], "ack", 3);
  (void)written;
  close(ack[1]);
  ReleaseAgentDescriptors();

  const pid_t session = setsid();
  const int sessionError = errno;
  JoinOwnControlGroup(self);
  MoveToOwnSystemdScope(self, jobId, runId);
  if (session < 0) {
    PM_ERROR("setsid failed. errno: " << sessionError);
    ExitCodeFile::exitCode_ = kNoDetach;
    ExitCodeFile::Save();
    std::exit(kNoDetach);
  }
  if (chdir("/") != 0) PM_ERROR("Failed to change the working directory to /: " << util::strerror(errno));
}

void ExitCodeFile::Create(const std::string& resultDirectory, const std::string& jobId,
                          const std::string& runId, int pid) {
  try {
    file_ = resultDirectory + "/." + jobId + "." + runId + "." + std::to_string(pid) + ".exit";
    PM_INFO("Creating exit code file : " << file_ << " for pid: " << pid);
    // The space for the code is set aside now, so that saving it cannot fail
    // when the run has filled the result directory's file system: the exit
    // code is the one thing the agent must always get.
    if (FileWriteError failure = CreateReservedFile(file_, kReservedBytes)) {
      PM_ERROR("Failed to create exit code file : " << file_ << " error: " << failure.Text());
    }
  } catch (const std::exception& e) {
    PM_ERROR("Exception in creating exit code file " << e.what());
  }
}

void ExitCodeFile::Save() {
  try {
    PM_INFO("Saving the exit code of the patch process: " << exitCode_);
    const FileWriteError failure = OverwriteFile(file_, std::to_string(exitCode_));
    if (failure.step == FileWriteError::kOpen) {
      PM_ERROR("Failed to create exit code file : " << file_ << " error: " << failure.Text());
    } else if (failure) {
      PM_ERROR("Exception occurred in saving exit code " << failure.Text());
    }
  } catch (const std::exception& e) {
    PM_ERROR("Exception occurred in saving exit code " << e.what());
  }
}

}  // namespace patchmgmt
