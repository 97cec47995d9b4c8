#include "zelkor/command.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <unordered_map>

#include "zelkor/strerror.h"

namespace util {
namespace {

using Clock = std::chrono::steady_clock;

std::atomic<bool> gKillChildHierarchy{false};
std::atomic<bool> gReapExitedOrphans{false};
// While a command runs, ended orphans are looked for this often.
constexpr std::chrono::seconds kOrphanReapInterval{1};

// The children that a running command owns. The orphan reaper leaves them to
// their runs; holding the mutex from spawning to registering closes the gap in
// which a fast command could end before it is known as owned.
std::mutex gOwnedChildrenMutex;
std::set<pid_t> gOwnedChildren;

// Time limits beyond this many seconds are treated as this many. A deadline is
// a steady-clock instant in nanoseconds: a window end some centuries away
// would overflow it into the past and kill the command at once.
constexpr uint64_t kLongestTimeLimitSeconds = 100ULL * 365 * 24 * 3600;

// What the note on a cut stream takes.
constexpr size_t kCutNoteRoom = 64;
// One pipe's worth: a full pipe is emptied by a single read.
constexpr size_t kReadChunk = 64 * 1024;
// How often the child is looked at when the kernel offers no pidfd.
constexpr int kReapPollMs = 20;
// How long the runner waits for killed descendants to come back to it as
// zombies so that it can reap them.
constexpr std::chrono::milliseconds kOrphanReapBudget{500};
// A tree that keeps producing new processes faster than they can be stopped
// is cut off after this many walks; the process group is killed regardless.
constexpr int kMaxTreeWalks = 200;
#if !defined(__SANITIZE_THREAD__)
// Stack of the spawned child between clone and exec. It only makes system
// calls, but sanitizer builds run their interceptors on it.
constexpr size_t kChildStackSize = 256 * 1024;
#endif

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
      reset(other.fd_);
      other.fd_ = -1;
    }
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return fd_; }
  // Gives the descriptor up without closing it.
  int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }
  bool valid() const { return fd_ >= 0; }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

// The child moves its pipes onto 0, 1 and 2 with dup2, which leaves a
// descriptor that already sits there untouched and still close-on-exec. A
// caller that runs with a standard descriptor closed would hand the command
// a closed stream, so every descriptor meant for the child is kept above 2.
bool KeepAboveStandardStreams(UniqueFd& fd) {
  if (fd.get() > STDERR_FILENO) return true;
  int moved = ::fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (moved < 0) return false;
  fd.reset(moved);
  return true;
}

bool MakePipe(UniqueFd& readEnd, UniqueFd& writeEnd) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) return false;
  readEnd.reset(fds[0]);
  writeEnd.reset(fds[1]);
  return KeepAboveStandardStreams(readEnd) && KeepAboveStandardStreams(writeEnd);
}

// The read ends carry no other status flag, so one call sets the only one.
bool SetNonBlocking(int fd) { return ::fcntl(fd, F_SETFL, O_NONBLOCK) == 0; }

// /dev/null for every command's standard input, opened once for the process
// and kept above the standard streams; -1 when it cannot be opened.
int DevNull() {
  static const int fd = [] {
    UniqueFd devNull(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (!devNull.valid() || !KeepAboveStandardStreams(devNull)) return -1;
    return devNull.release();  // kept open for the life of the process
  }();
  return fd;
}

// The signals whose disposition is not the default one (caught or ignored),
// one bit per signal from bit 0 for signal 1, as the kernel lists them in
// /proc/self/status. All of them when the list cannot be read.
uint64_t SignalsNotAtDefault() {
  UniqueFd status(::open("/proc/self/status", O_RDONLY | O_CLOEXEC));
  char text[4096];
  const ssize_t n = status.valid() ? ::read(status.get(), text, sizeof text - 1) : -1;
  if (n <= 0) return ~uint64_t{0};
  text[n] = '\0';
  uint64_t signals = 0;
  for (const char* field : {"\nSigIgn:\t", "\nSigCgt:\t"}) {
    const char* at = std::strstr(text, field);
    if (at == nullptr) return ~uint64_t{0};
    signals |= std::strtoull(at + std::strlen(field), nullptr, 16);
  }
  return signals;
}

// What the child reports through its error pipe when it cannot become the
// command.
struct ChildFailure {
  int step;  // kStepRedirect or kStepExec
  int error;
};
constexpr int kStepRedirect = 1;
constexpr int kStepExec = 2;

// Everything the child needs, prepared before it exists: between spawning and
// exec it shares the caller's memory and may only make async-signal-safe
// system calls, no allocation, no locks.
struct ChildPlan {
  const char* program;
  char* const* argv;
  int stdinFd;
  int stdoutFd;
  int stderrFd;
  int errorFd;
  // The signals to put back to their default disposition (bit 0: signal 1).
  uint64_t signalsToReset;
};

// The highest descriptor number the process may have; only a child whose
// kernel lacks close_range asks.
__attribute__((no_sanitize("address", "undefined"))) int HighestPossibleFd() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return 65535;
  return static_cast<int>(std::min<rlim_t>(limit.rlim_cur, 1 << 20)) - 1;
}

[[noreturn]] __attribute__((no_sanitize("address", "undefined"))) void BecomeCommand(const ChildPlan& plan) {
  // The caller's handlers must never run here, and a command must not
  // inherit ignored signals (the tool ignores SIGPIPE) or a blocked mask.
  // Only the signals the caller caught or ignored when it spawned are reset:
  // asking the kernel about all 64 cost as many system calls per command.
  struct sigaction defaultAction {};
  defaultAction.sa_handler = SIG_DFL;
  sigemptyset(&defaultAction.sa_mask);
  for (int sig = 1; sig < NSIG && sig <= 64; ++sig) {
    if (sig == SIGKILL || sig == SIGSTOP || (plan.signalsToReset & (uint64_t{1} << (sig - 1))) == 0) continue;
    ::sigaction(sig, &defaultAction, nullptr);
  }
  // A group of its own, so that a time-out can kill everything that stayed
  // in it with one signal.
  ::setpgid(0, 0);
  // Orphans of the command's tree come back to the command itself rather
  // than to the caller, so they stay findable as its descendants.
  ::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);

  ChildFailure failure{kStepRedirect, 0};
  if (::dup2(plan.stdinFd, STDIN_FILENO) < 0 || ::dup2(plan.stdoutFd, STDOUT_FILENO) < 0 ||
      ::dup2(plan.stderrFd, STDERR_FILENO) < 0) {
    failure.error = errno;
  } else {
    // Descriptors the caller opened without O_CLOEXEC (other threads, other
    // libraries) must not leak into the command.
    if (::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC) != 0) {
      const int highestFd = HighestPossibleFd();
      for (int fd = STDERR_FILENO + 1; fd <= highestFd; ++fd) ::fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    ::execv(plan.program, plan.argv);
    failure = ChildFailure{kStepExec, errno};
  }
  [[maybe_unused]] ssize_t written = ::write(plan.errorFd, &failure, sizeof failure);
  ::_exit(127);
}

#if !defined(__SANITIZE_THREAD__)
// The stack the spawned child runs on until exec, one per thread, mapped once:
// CLONE_VFORK holds the thread until the child has exec'd or died, so the
// next command of the thread finds it free again. Mapping it afresh for every
// command cost page faults and an unmap each time. Null when it cannot be
// mapped.
void* ChildStack() {
  struct Mapping {
    void* base = ::mmap(nullptr, kChildStackSize, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK | MAP_NORESERVE, -1, 0);
    ~Mapping() {
      if (base != MAP_FAILED) ::munmap(base, kChildStackSize);
    }
  };
  thread_local Mapping mapping;
  return mapping.base != MAP_FAILED ? mapping.base : nullptr;
}

__attribute__((no_sanitize("address", "undefined"))) int CloneEntry(void* plan) {
  BecomeCommand(*static_cast<const ChildPlan*>(plan));
}
#endif

// Starts the child. It shares the caller's memory until exec (CLONE_VM |
// CLONE_VFORK, as posix_spawn does), so starting a command costs the same
// whatever the caller's size; fork() copies the page tables and made a round
// trip of /bin/true take about 1.7 times as long. All signals stay blocked
// meanwhile so that no handler of the caller runs on the shared memory.
// ThreadSanitizer cannot follow a child that shares its memory, so its builds
// fork.
pid_t SpawnChild(const ChildPlan& plan) {
  sigset_t all, previous;
  sigfillset(&all);
  ::pthread_sigmask(SIG_BLOCK, &all, &previous);
  pid_t pid = -1;
#if defined(__SANITIZE_THREAD__)
  pid = ::fork();
  if (pid == 0) BecomeCommand(plan);
#else
  void* stack = ChildStack();
  if (stack != nullptr) {
    pid = ::clone(CloneEntry, static_cast<char*>(stack) + kChildStackSize, CLONE_VM | CLONE_VFORK | SIGCHLD,
                  const_cast<ChildPlan*>(&plan));
  }
#endif
  int spawnError = errno;
  ::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  errno = spawnError;
  return pid;
}

// One output stream of the child, kept up to the cap and dropped beyond it.
class CappedStream {
 public:
  CappedStream(std::string& text, uint64_t capKiB) : text_(text) {
    capBytes_ = capKiB == 0 || capKiB > SIZE_MAX / 1024 ? SIZE_MAX : static_cast<size_t>(capKiB) * 1024;
    capKiB_ = capKiB;
  }

  UniqueFd fd;

  bool truncated() const { return truncated_; }

  // One read of what the pipe holds; closes the stream at its end.
  void ReadOnce(char* buffer) {
    ssize_t n = ::read(fd.get(), buffer, kReadChunk);
    if (n > 0) {
      Append(buffer, static_cast<size_t>(n));
    } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
      fd.reset();
    }
  }

  // Takes only what already sits in the pipe: a descendant that still holds
  // the write end may keep writing forever.
  void DrainAvailable(char* buffer) {
    if (!fd.valid()) return;
    int available = 0;
    if (::ioctl(fd.get(), FIONREAD, &available) != 0) return;
    while (available > 0) {
      ssize_t n = ::read(fd.get(), buffer, std::min<size_t>(kReadChunk, static_cast<size_t>(available)));
      if (n <= 0) break;
      Append(buffer, static_cast<size_t>(n));
      available -= static_cast<int>(n);
    }
  }

  void AddCutNote() {
    if (truncated_) text_ += "\n[output cut: only the first " + std::to_string(capKiB_) + " KiB are kept]\n";
  }

 private:
  void Append(const char* data, size_t length) {
    size_t room = capBytes_ - std::min(capBytes_, text_.size());
    if (length > room) truncated_ = true;
    const size_t taken = std::min(length, room);
    // Doubling would give a 5 MiB text the room of 8; near the cap, the text
    // grows to the cap and the note that may follow it, no further.
    if (capBytes_ != SIZE_MAX && text_.size() + taken > text_.capacity() &&
        text_.capacity() >= capBytes_ / 2) {
      text_.reserve(capBytes_ + kCutNoteRoom);
    }
    text_.append(data, taken);
  }

  std::string& text_;
  size_t capBytes_ = SIZE_MAX;
  uint64_t capKiB_ = 0;
  bool truncated_ = false;
};

struct ProcessEntry {
  pid_t pid;
  pid_t parent;
  pid_t group;
};

bool ReadProcessEntry(pid_t pid, ProcessEntry& entry) {
  char path[32];
  std::snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
  UniqueFd fd(::open(path, O_RDONLY | O_CLOEXEC));
  if (!fd.valid()) return false;
  char line[512];
  ssize_t n = ::read(fd.get(), line, sizeof line - 1);
  if (n <= 0) return false;
  line[n] = '\0';
  // The command name in parentheses may itself hold blanks and parentheses.
  const char* afterName = std::strrchr(line, ')');
  char state = 0;
  int parent = 0;
  int group = 0;
  if (afterName == nullptr || std::sscanf(afterName + 1, " %c %d %d", &state, &parent, &group) != 3) {
    return false;
  }
  entry = ProcessEntry{pid, parent, group};
  return true;
}

std::vector<ProcessEntry> ListProcesses() {
  std::vector<ProcessEntry> processes;
  std::unique_ptr<DIR, int (*)(DIR*)> proc(::opendir("/proc"), ::closedir);
  if (!proc) return processes;
  while (const dirent* item = ::readdir(proc.get())) {
    char* end = nullptr;
    long pid = std::strtol(item->d_name, &end, 10);
    ProcessEntry entry{};
    if (*end == '\0' && pid > 0 && ReadProcessEntry(static_cast<pid_t>(pid), entry))
      processes.push_back(entry);
  }
  return processes;
}

// The command's process, the members of its process group and, for the
// whole hierarchy, every process whose parent chain leads to the command.
std::set<pid_t> FindCommandTree(pid_t command, bool wholeHierarchy) {
  std::set<pid_t> tree{command};
  std::unordered_map<pid_t, std::vector<pid_t>> children;
  for (const auto& process : ListProcesses()) {
    if (process.group == command) tree.insert(process.pid);
    if (wholeHierarchy) children[process.parent].push_back(process.pid);
  }
  if (!wholeHierarchy) return tree;
  std::vector<pid_t> pending{command};
  std::set<pid_t> visited{command};
  while (!pending.empty()) {
    pid_t parent = pending.back();
    pending.pop_back();
    for (pid_t child : children[parent]) {
      if (!visited.insert(child).second) continue;
      tree.insert(child);
      pending.push_back(child);
    }
  }
  return tree;
}

// Kills the command's tree. Everything found is stopped first: a stopped
// process can neither fork nor die, so parent links hold still while the walk
// repeats until it finds nobody new, and no orphan slips out to a parent
// outside the tree before the kill. Returns the killed pids besides the
// command.
std::set<pid_t> KillCommandTree(pid_t command, bool wholeHierarchy) {
  std::set<pid_t> stopped;
  for (int walk = 0; walk < kMaxTreeWalks; ++walk) {
    bool grew = false;
    for (pid_t pid : FindCommandTree(command, wholeHierarchy)) {
      if (!stopped.insert(pid).second) continue;
      ::kill(pid, SIGSTOP);
      grew = true;
    }
    if (!grew) break;
  }
  ::kill(-command, SIGKILL);
  for (pid_t pid : stopped) ::kill(pid, SIGKILL);
  stopped.erase(command);
  return stopped;
}

// Killed descendants whose parents died with them come back to this process
// (a child subreaper) as zombies; reaping them by pid leaves the caller's
// other children alone.
void ReapKilledDescendants(std::set<pid_t> pids) {
  const auto giveUp = Clock::now() + kOrphanReapBudget;
  while (!pids.empty() && Clock::now() < giveUp) {
    for (auto it = pids.begin(); it != pids.end();) {
      pid_t reaped = ::waitpid(*it, nullptr, WNOHANG);
      bool gone = reaped == *it || (reaped < 0 && errno == ECHILD && ::kill(*it, 0) != 0 && errno == ESRCH);
      it = gone ? pids.erase(it) : std::next(it);
    }
    if (!pids.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

// One started command, from spawning to its result. Owns the child until it
// is reaped: an early exit kills and reaps it.
class CommandRun {
 public:
  CommandRun(const CommandDetails& details, CommandResult& result)
      : details_(details),
        result_(result),
        stdout_(result.stdOut, result.outputCapKiB),
        stderr_(result.stdErr, result.outputCapKiB) {}

  ~CommandRun() {
    if (pid_ > 0 && !reaped_) {
      ::kill(-pid_, SIGKILL);
      ::kill(pid_, SIGKILL);
      while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
      }
    }
    if (pid_ > 0) {
      std::lock_guard<std::mutex> owned(gOwnedChildrenMutex);
      gOwnedChildren.erase(pid_);
    }
  }

  CommandRun(const CommandRun&) = delete;
  CommandRun& operator=(const CommandRun&) = delete;

  bool Run() {
    if (!Start()) return false;
    buffer_.reset(new char[kReadChunk]);
    const bool timedOut = !WaitForChild();
    std::set<pid_t> killed;
    if (timedOut) {
      killed = KillCommandTree(pid_, gKillChildHierarchy.load());
      Reap(0);
    }
    stdout_.DrainAvailable(buffer_.get());
    stderr_.DrainAvailable(buffer_.get());
    if (!killed.empty()) ReapKilledDescendants(std::move(killed));
    Finish(timedOut);
    if (gReapExitedOrphans.load()) ReapExitedOrphans();
    return true;
  }

 private:
  bool Start() {
    const int devNull = DevNull();
    UniqueFd stdoutWrite, stderrWrite, errorWrite;
    if (devNull < 0 || !MakePipe(stdout_.fd, stdoutWrite) || !MakePipe(stderr_.fd, stderrWrite) ||
        !MakePipe(errorRead_, errorWrite) || !SetNonBlocking(stdout_.fd.get()) ||
        !SetNonBlocking(stderr_.fd.get()) || !SetNonBlocking(errorRead_.get())) {
      result_.stdErr = "cannot prepare the command's descriptors: " + util::strerror(errno);
      return false;
    }
    std::vector<char*> argv;
    argv.reserve(details_.argv.size() + 1);
    for (const auto& argument : details_.argv) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    const ChildPlan plan{
        argv[0],          argv.data(),          devNull, stdoutWrite.get(), stderrWrite.get(),
        errorWrite.get(), SignalsNotAtDefault()};

    {
      std::lock_guard<std::mutex> owned(gOwnedChildrenMutex);
      pid_ = SpawnChild(plan);
      if (pid_ > 0) gOwnedChildren.insert(pid_);
    }
    if (pid_ < 0) {
      result_.stdErr = "cannot start " + details_.argv[0] + ": " + util::strerror(errno);
      return false;
    }
    started_ = Clock::now();
    // Settles the group even before the child got to it (fork builds); fails
    // harmlessly once the child has exec'd.
    ::setpgid(pid_, pid_);
    // Through syscall(): glibc 2.36 declares pidfd_open without C linkage.
    pidFd_.reset(static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0)));
    return true;
  }

  // Reads both streams until the child has ended; false when the time limit
  // ran out first.
  bool WaitForChild() {
    std::optional<Clock::time_point> deadline;
    if (result_.timeLimitSeconds > 0) {
      deadline =
          started_ + std::chrono::seconds(std::min(result_.timeLimitSeconds, kLongestTimeLimitSeconds));
    }
    const bool reapOrphans = gReapExitedOrphans.load();
    Clock::time_point nextOrphanReap = started_ + kOrphanReapInterval;
    while (!reaped_) {
      int timeoutMs = -1;
      if (deadline) {
        auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now()).count();
        if (left <= 0) return false;
        timeoutMs = static_cast<int>(std::min<long long>(left, INT_MAX));
      }
      if (reapOrphans) {
        if (Clock::now() >= nextOrphanReap) {
          ReapExitedOrphans();
          nextOrphanReap = Clock::now() + kOrphanReapInterval;
        }
        const int untilReap = static_cast<int>(
            std::chrono::ceil<std::chrono::milliseconds>(nextOrphanReap - Clock::now()).count());
        timeoutMs = timeoutMs < 0 ? untilReap : std::min(timeoutMs, untilReap);
      }
      if (!pidFd_.valid()) timeoutMs = timeoutMs < 0 ? kReapPollMs : std::min(timeoutMs, kReapPollMs);

      pollfd fds[3];
      nfds_t count = 0;
      CappedStream* streams[2] = {nullptr, nullptr};
      for (CappedStream* stream : {&stdout_, &stderr_}) {
        if (!stream->fd.valid()) continue;
        streams[count] = stream;
        fds[count++] = pollfd{stream->fd.get(), POLLIN, 0};
      }
      const nfds_t streamCount = count;
      if (pidFd_.valid()) fds[count++] = pollfd{pidFd_.get(), POLLIN, 0};

      int ready = ::poll(fds, count, timeoutMs);
      if (ready < 0) {
        if (errno != EINTR) std::this_thread::sleep_for(std::chrono::milliseconds(kReapPollMs));
        continue;
      }
      for (nfds_t i = 0; i < streamCount; ++i) {
        if (fds[i].revents != 0) streams[i]->ReadOnce(buffer_.get());
      }
      if (!pidFd_.valid() || fds[streamCount].revents != 0) Reap(WNOHANG);
    }
    return true;
  }

  void Reap(int options) {
    for (;;) {
      pid_t reaped = ::waitpid(pid_, &status_, options);
      if (reaped == pid_) {
        reaped_ = true;
      } else if (reaped < 0 && errno == EINTR) {
        continue;
      } else if (reaped < 0) {
        // Someone else in this process collected the child's status.
        reaped_ = true;
        statusLost_ = true;
      }
      return;
    }
  }

  void Finish(bool timedOut) {
    stdout_.AddCutNote();
    stderr_.AddCutNote();
    result_.outputTruncated = stdout_.truncated() || stderr_.truncated() ? 1 : 0;

    ChildFailure failure{};
    if (::read(errorRead_.get(), &failure, sizeof failure) == static_cast<ssize_t>(sizeof failure)) {
      const char* step = failure.step == kStepExec ? "execv(" : "dup2 for (";
      result_.stdErr += step + details_.argv[0] + "): " + util::strerror(failure.error);
      result_.exitCode = 127;
    } else if (timedOut) {
      if (!result_.stdErr.empty() && result_.stdErr.back() != '\n') result_.stdErr += '\n';
      result_.stdErr += "timed out after " + std::to_string(result_.timeLimitSeconds) + " s";
      result_.timedOut = 1;
      result_.signalNumber = SIGKILL;
      result_.exitCode = 128 + SIGKILL;
    } else if (statusLost_) {
      result_.exitCode = -1;
    } else if (WIFSIGNALED(status_)) {
      result_.signalNumber = WTERMSIG(status_);
      result_.exitCode = 128 + result_.signalNumber;
    } else {
      result_.exitCode = WEXITSTATUS(status_);
    }
  }

  const CommandDetails& details_;
  CommandResult& result_;
  CappedStream stdout_;
  CappedStream stderr_;
  UniqueFd errorRead_;
  UniqueFd pidFd_;
  std::unique_ptr<char[]> buffer_;
  pid_t pid_ = -1;
  Clock::time_point started_;
  bool reaped_ = false;
  bool statusLost_ = false;
  int status_ = 0;
};

}  // namespace

bool ExecuteCommand(const CommandDetails& details, CommandResult& result) {
  result.stdOut.clear();
  result.stdErr.clear();
  result.exitCode = 0;
  result.signalNumber = 0;
  result.timedOut = 0;
  result.outputTruncated = 0;
  if (details.argv.empty() || details.argv[0].empty()) {
    result.exitCode = 127;
    result.stdErr = "no program given for: " + details.commandLine;
    return false;
  }
  // Orphans of a command whose own process is already gone come back here
  // instead of to init, so a time-out can still find and reap them.
  ::prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0);
  try {
    CommandRun run(details, result);
    return run.Run();
  } catch (const std::exception& error) {
    result.exitCode = -1;
    result.stdErr += std::string("command runner failed: ") + error.what();
    return false;
  }
}

void SetKillChildHierarchy(bool enable) { gKillChildHierarchy.store(enable); }

void SetReapExitedOrphans(bool enable) { gReapExitedOrphans.store(enable); }

int ReapExitedOrphans() {
  std::lock_guard<std::mutex> owned(gOwnedChildrenMutex);
  // Most of the time no child has ended at all: one call says so, and the
  // look through /proc is spared. The child stays unreaped (WNOWAIT) here.
  siginfo_t ended{};
  if (::waitid(P_ALL, 0, &ended, WEXITED | WNOHANG | WNOWAIT) != 0 || ended.si_pid == 0) return 0;
  // Orphans come back to whichever thread of this process the kernel picks,
  // so every thread's children are looked at.
  std::set<pid_t> children;
  std::unique_ptr<DIR, int (*)(DIR*)> tasks(::opendir("/proc/self/task"), ::closedir);
  if (!tasks) return 0;
  while (const dirent* task = ::readdir(tasks.get())) {
    if (task->d_name[0] == '.') continue;
    const std::string path = std::string("/proc/self/task/") + task->d_name + "/children";
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) continue;
    std::string text;
    char chunk[4096];
    for (ssize_t n; (n = ::read(fd.get(), chunk, sizeof chunk)) > 0;)
      text.append(chunk, static_cast<size_t>(n));
    const char* at = text.c_str();
    for (char* end = nullptr;; at = end) {
      const long pid = std::strtol(at, &end, 10);
      if (end == at) break;
      children.insert(static_cast<pid_t>(pid));
    }
  }
  int reaped = 0;
  for (pid_t child : children) {
    if (gOwnedChildren.count(child) != 0) continue;
    if (::waitpid(child, nullptr, WNOHANG) == child) ++reaped;
  }
  return reaped;
}

}  // namespace util
