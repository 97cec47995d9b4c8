#include "zelkor/command.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>

#include "support/sandbox.h"

namespace {

using Clock = std::chrono::steady_clock;

util::CommandResult RunCommand(const std::vector<std::string>& argv, uint64_t limitSeconds = 0,
                               uint64_t capKiB = 5120) {
  util::CommandDetails details{argv.back(), argv};
  util::CommandResult result{"", "", 0, 0, limitSeconds, 0, capKiB, 0};
  EXPECT_TRUE(util::ExecuteCommand(details, result));
  return result;
}

std::vector<std::string> Shell(const std::string& script) { return {"/bin/sh", "-c", script}; }

bool IsAlive(pid_t pid) { return pmtest::ProcessState(pid) != '\0' && pmtest::ProcessState(pid) != 'Z'; }

// Test cleanup: whatever a run left behind is killed and, if it came back to
// this process, reaped.
void KillAndReap(pid_t pid) {
  if (pid <= 1) return;
  kill(pid, SIGKILL);
  waitpid(pid, nullptr, 0);
}

TEST(CommandRunner, ReportsHowTheCommandEndedAndPassesArgumentsLiterally) {
  pmtest::TempDir dir;
  const std::string notExecutable = dir.Join("script.sh");
  pmtest::WriteTextFile(notExecutable, "#!/bin/sh\nexit 0\n", 0644);
  // Shell syntax in an argument must reach the program as it stands.
  const std::string literal = "pkg-1.0; touch " + dir.Join("semicolon") + " $(touch " + dir.Join("subst") +
                              ") `touch " + dir.Join("backtick") + "` && name with  spaces";
  const struct {
    std::vector<std::string> argv;
    int exitCode, signal;
    std::string out, err;
  } cases[] = {
      {Shell("echo out; echo err >&2; exit 7"), 7, 0, "out\n", "err\n"},
      {Shell("kill -TERM $$"), 128 + SIGTERM, SIGTERM, "", ""},
      {{"/no/such/program", "arg"}, 127, 0, "", "execv(/no/such/program): No such file or directory"},
      {{notExecutable}, 127, 0, "", "execv(" + notExecutable + "): Permission denied"},
      {{"/usr/bin/printf", "%s\\n", literal}, 0, 0, literal + "\n", ""},
  };
  for (const auto& c : cases) {
    const auto result = RunCommand(c.argv);
    EXPECT_EQ(result.exitCode, c.exitCode) << c.argv.back();
    EXPECT_EQ(result.signalNumber, c.signal) << c.argv.back();
    EXPECT_EQ(result.stdOut, c.out);
    EXPECT_EQ(result.stdErr, c.err);
  }
  EXPECT_EQ(pmtest::ListDir(dir.path()), std::vector<std::string>{"script.sh"});
}

// Started with /dev/null as stdin, leading its own process group, and without
// a descriptor this process opened without close-on-exec.
TEST(CommandRunner, StartsTheCommandCleanly) {
  const int leaked = dup2(STDERR_FILENO, 40);
  ASSERT_EQ(leaked, 40);
  // The tool ignores SIGPIPE and blocks signals around the spawn; the
  // command gets neither.
  signal(SIGPIPE, SIG_IGN);
  const auto result =
      RunCommand(Shell("readlink /proc/$$/fd/0; cut -d' ' -f5 /proc/$$/stat; echo $$; "
                       "grep -E '^Sig(Ign|Blk)' /proc/self/status; ls /proc/$$/fd/40"));
  signal(SIGPIPE, SIG_DFL);
  close(leaked);
  auto lines = pmtest::SplitLines(result.stdOut);
  ASSERT_EQ(lines.size(), 5u) << result.stdOut << result.stdErr;
  EXPECT_EQ(lines[0], "/dev/null");
  EXPECT_EQ(lines[1], lines[2]) << "the command leads its own process group";
  EXPECT_EQ(lines[3], "SigBlk:\t0000000000000000");
  // Signals 32 and 33 belong to the C library, which claims them in every
  // program it starts; the test's own parent may have handed them down
  // ignored, and no library call changes them.
  const uint64_t ignored = std::strtoull(lines[4].c_str() + lines[4].find('\t'), nullptr, 16);
  EXPECT_EQ(ignored & ~(uint64_t{3} << 31), 0u) << lines[4];
  EXPECT_NE(result.exitCode, 0) << "descriptor 40 reached the command";
}

TEST(CommandRunner, ReadsBothStreamsAtOnceAndCapsEach) {
  // 50 MB on each stream at the same time: a runner that drains one pipe
  // while the other is full would wait forever.
  auto result =
      RunCommand(Shell("head -c 52428800 /dev/zero & head -c 52428800 /dev/zero >&2; wait"), 0, 1024);
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.outputTruncated, 1);
  constexpr size_t kCap = 1024 * 1024;
  for (const std::string* text : {&result.stdOut, &result.stdErr}) {
    ASSERT_GT(text->size(), kCap);
    EXPECT_LT(text->size(), kCap + 200);
    EXPECT_EQ(text->substr(0, kCap), std::string(kCap, '\0'));
    EXPECT_NE(text->find("1024 KiB", kCap), std::string::npos) << "the kept text says that it was cut";
  }
}

// A script's background children come back to the caller once the script
// has ended; those that ended too are reaped, those still running (a service
// the package started) are left alone. The runner returns although the one
// still running holds the output pipe open: it has not yet slept its minute.
TEST(CommandRunner, FarFutureLimitLetsTheCommandRunAndEndedOrphansAreReaped) {
  pmtest::TempDir dir;
  const std::string slept = dir.Join("slept");
  // A deadline this far out does not fit a steady-clock instant. The first
  // child ends only after the script, so it cannot be reaped by the script.
  auto result = RunCommand(Shell("sh -c 'while kill -0 '$$' 2>/dev/null; do sleep 0.01; done' & echo $!; "
                                 "sh -c 'sleep 60; touch \"$0\"' '" +
                                 slept + "' & echo $!"),
                           UINT64_MAX / 2);
  EXPECT_FALSE(pmtest::PathExists(slept)) << "the runner waited for the child that holds its pipe";
  EXPECT_EQ(result.exitCode, 0) << result.stdErr;
  EXPECT_EQ(result.timedOut, 0);
  const auto lines = pmtest::SplitLines(result.stdOut);
  ASSERT_EQ(lines.size(), 2u) << result.stdOut;
  const pid_t ended = std::atoi(lines[0].c_str());
  const pid_t running = std::atoi(lines[1].c_str());
  ASSERT_TRUE(pmtest::WaitFor([&] { return !IsAlive(ended); }, std::chrono::seconds(10)));
  EXPECT_EQ(util::ReapExitedOrphans(), 1);
  EXPECT_NE(kill(ended, 0), 0) << "still a zombie of this process";
  EXPECT_TRUE(IsAlive(running));
  for (pid_t child : pmtest::ChildrenOf(running)) KillAndReap(child);
  KillAndReap(running);
}

TEST(CommandRunner, TimeLimitKillsTheWholeTreeIncludingEscapedProcesses) {
  pmtest::TempDir dir;
  const std::string pids = dir.Join("pids");
  // The tree: the script itself; a child that left for a session of its own
  // (with a child of its own); a process that setsid'd and was orphaned when
  // its parent exited; and an orphan that stayed in the group.
  const std::string script = "echo $$ >> " + pids + "\n" + "setsid /bin/sh -c 'echo $$ >> " + pids +
                             "; sleep 300 & echo $! >> " + pids + "; wait' &\n" +
                             "/bin/sh -c 'setsid sleep 301 & echo $! >> " + pids + "'\n" +
                             "/bin/sh -c 'sleep 302 & echo $! >> " + pids + "'\n" + "sleep 303\n";
  util::SetKillChildHierarchy(true);
  const auto start = Clock::now();
  auto result = RunCommand(Shell(script), 3);
  const auto elapsed = Clock::now() - start;
  util::SetKillChildHierarchy(false);

  std::vector<pid_t> tree;
  std::string survivors;
  for (const auto& line : pmtest::SplitLines(pmtest::ReadTextFile(pids))) {
    tree.push_back(std::atoi(line.c_str()));
    if (IsAlive(tree.back())) survivors += line + " ";
  }
  for (pid_t pid : tree) KillAndReap(pid);

  EXPECT_EQ(tree.size(), 5u) << "the whole tree was up before the limit";
  EXPECT_EQ(survivors, "") << "still alive";
  EXPECT_EQ(result.exitCode, 137);
  EXPECT_EQ(result.timedOut, 1);
  EXPECT_NE(result.stdErr.find("timed out after 3 s"), std::string::npos) << result.stdErr;
  EXPECT_LT(elapsed, std::chrono::seconds(60)) << "the limit, not the tree's 300 s";
}

}  // namespace
