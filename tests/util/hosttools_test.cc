#include "util/hosttools.h"

#include <unistd.h>

#include <algorithm>

#include "support/sandbox.h"

namespace {

using HostToolsTest = pmtest::LogCaptureTest;

TEST_F(HostToolsTest, OsFilterIsCaseInsensitiveAndUnanchored) {
  EXPECT_TRUE(patchmgmt::CheckOSFilter("Debian GNU/Linux 12", "debian"));
  EXPECT_TRUE(patchmgmt::CheckOSFilter("Ubuntu 22.04 LTS", "22\\.04"));
  EXPECT_FALSE(patchmgmt::CheckOSFilter("Debian GNU/Linux 12", "^linux"));
  EXPECT_FALSE(patchmgmt::CheckOSFilter("Debian GNU/Linux 12", "(debian"));
  EXPECT_TRUE(pmtest::HasLogPrefix(Log(), "[Patch]: CheckOSFilter caught exception: "));
}

TEST_F(HostToolsTest, FindsProcessesByCommandLineAndLogsAStopThatFindsNone) {
  const std::string self = pmtest::ReadTextFile("/proc/self/cmdline").c_str();
  const std::vector<int> found = patchmgmt::FindProcessIds(self);
  EXPECT_NE(std::find(found.begin(), found.end(), getpid()), found.end()) << self;

  const std::string nobody = "no-such-command-" + std::to_string(getpid());
  patchmgmt::SendStopSignal(nobody);
  EXPECT_TRUE(pmtest::HasLogPrefix(Log(), "[Patch]:command failed. Cmd: [pkill -SIGUSR1 -f " + nobody));
}

}  // namespace
