#include "driver/toolstopper.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace {

// Runs in a forked child, so that a stop would end that child, never the
// test. The other stop signals are covered end to end.
TEST(ToolStopperDeathTest, BrokenPipeNeverEndsTheTool) {
  EXPECT_EXIT(
      {
        // The logging library blocks SIGPIPE in the threads it knows; with
        // it unblocked only the tool's own disposition stands between a
        // broken pipe and the end of the process.
        sigset_t pipeSignal;
        sigemptyset(&pipeSignal);
        sigaddset(&pipeSignal, SIGPIPE);
        sigprocmask(SIG_UNBLOCK, &pipeSignal, nullptr);
        patchmgmt::InstallSignalHandlers();
        int fds[2];
        if (pipe(fds) != 0) std::_Exit(1);
        close(fds[0]);
        const bool failed = write(fds[1], "x", 1) < 0 && errno == EPIPE;
        raise(SIGPIPE);
        std::_Exit(failed ? 4 : 2);
      },
      ::testing::ExitedWithCode(4), "");
}

}  // namespace
