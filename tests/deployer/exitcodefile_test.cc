// Failures around the exit-code file (its name and content are checked end to
// end), and the start-of-process guard that keeps the tool's files off the
// standard stream numbers.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

#include "deployer/detach.h"
#include "support/sandbox.h"

namespace patchmgmt {
namespace {

using ExitCodeFileTest = pmtest::LogCaptureTest;

TEST_F(ExitCodeFileTest, UnwritableLocationIsLoggedAndTheRunGoesOn) {
  const std::string missing = dir_.Join("gone");
  ExitCodeFile::Create(missing, "j1", "7", 42);
  ExitCodeFile::exitCode_ = 3;
  ExitCodeFile::Save();

  const std::string path = missing + "/.j1.7.42.exit";
  const std::string failure =
      "Failed to create exit code file : " + path + " error: No such file or directory";
  const auto log = Log();
  EXPECT_EQ(std::count_if(log.begin(), log.end(), [&](const auto& line) { return line.text == failure; }), 2)
      << "one for the creation, one for the save";
}

TEST(InheritedDescriptors, ClosedStandardStreamsAreNeverTakenByTheToolsOwnFiles) {
  pmtest::TempDir dir;
  const std::string file = dir.Join("own.log");
  // Started with stdin and stdout closed, the first file the tool opens
  // would otherwise become its stdin; the child exits with that number.
  const pid_t pid = fork();
  if (pid == 0) {
    close(0);
    close(1);
    RecordInheritedDescriptors();
    _exit(open(file.c_str(), O_WRONLY | O_CREAT, 0600));
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_GT(WEXITSTATUS(status), 2);
}

}  // namespace
}  // namespace patchmgmt
