// Failures around the exit-code file (its name and content are checked end to
// end), and the start-of-process guard that keeps the tool's files off the
// standard stream numbers.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "deployer/detach.h"
#include "scripttest.h"

namespace patchmgmt {
namespace {

class ExitCodeFileTest : public deployer::ScriptTest {};

TEST_F(ExitCodeFileTest, UnwritableLocationIsLoggedAndTheRunGoesOn) {
  const std::string missing = dir_.Join("gone");
  ExitCodeFile::Create(missing, "j1", "7", 42);
  ExitCodeFile::exitCode_ = 3;
  ExitCodeFile::Save();

  const std::string path = missing + "/.j1.7.42.exit";
  EXPECT_FALSE(pmtest::PathExists(path));
  int failures = 0;
  for (const pmtest::LogLine& line : Log()) {
    if (line.priority == "Error" &&
        line.text == "Failed to create exit code file : " + path + " error: No such file or directory") {
      ++failures;
    }
  }
  EXPECT_EQ(failures, 2) << "one for the creation, one for the save";
}

// Runs `body` in a forked child and returns its exit status.
template <typename Body>
int InChild(Body body) {
  const pid_t pid = fork();
  if (pid == 0) _exit(body());
  int status = 0;
  if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

TEST(InheritedDescriptors, ClosedStandardStreamsAreNeverTakenByTheToolsOwnFiles) {
  pmtest::TempDir dir;
  const std::string file = dir.Join("own.log");
  // Started with stdin and stdout closed, the first file the tool opens
  // would otherwise become its stdin.
  const int fd = InChild([&] {
    close(0);
    close(1);
    RecordInheritedDescriptors();
    return open(file.c_str(), O_WRONLY | O_CREAT, 0600);
  });
  EXPECT_GT(fd, 2);
  // Open streams are left as they are.
  const std::string kept = dir.Join("stdout");
  EXPECT_EQ(InChild([&] {
              const int out = open(kept.c_str(), O_WRONLY | O_CREAT, 0600);
              dup2(out, 1);
              close(out);
              struct stat before {
              }, after{};
              fstat(1, &before);
              RecordInheritedDescriptors();
              fstat(1, &after);
              return before.st_ino == after.st_ino && before.st_dev == after.st_dev ? 0 : 1;
            }),
            0);
}

}  // namespace
}  // namespace patchmgmt
