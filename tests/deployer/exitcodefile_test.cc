// Failures around the exit-code file (its name and content are checked end to
// end), and the start-of-process guard that keeps the tool's files off the
// standard stream numbers.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

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

TEST(InheritedDescriptorsDeathTest, ClosedStandardStreamsAreNeverTakenByTheToolsOwnFiles) {
  pmtest::TempDir dir;
  // Started with stdin and stdout closed, the first file the tool opens
  // would otherwise become its stdin.
  EXPECT_EXIT(
      {
        close(0);
        close(1);
        RecordInheritedDescriptors();
        std::_Exit(open(dir.Join("own.log").c_str(), O_WRONLY | O_CREAT, 0600) > 2 ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace patchmgmt
