#include "driver/toolstopper.h"

#include <signal.h>
#include <unistd.h>

namespace patchmgmt {

namespace {

// The stop ends the process with _exit, not exit. A handler may interrupt the
// main thread in the middle of a log call or an allocation, with the interim
// generator thread still running; exit() would then run static destructors
// and atexit handlers under their feet (a deadlock on a lock the interrupted
// code holds, or a crash that turns status 57 into a signal death). The only
// exit handler the tool registers puts back the file-creation mask, which is
// state of this process and ends with it, and the logger flushes every
// message as it is written, so nothing observable is lost by skipping them.
[[noreturn]] void EndStopped() { _exit(kStoppedExitCode); }

void Install(int signalNumber, void (*handler)(int), int blockedMeanwhile = 0) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  if (blockedMeanwhile != 0) sigaddset(&action.sa_mask, blockedMeanwhile);
  // Interrupted system calls resume, as they do under signal(): a stop
  // request that is not honoured must not make a read or a wait fail.
  action.sa_flags = SA_RESTART;
  sigaction(signalNumber, &action, nullptr);
}

}  // namespace

void handleSigUsr1(int) { ToolStopper::Set(ToolStopper::sigUsr1Recv_, true); }

void handleSigTerm(int) {
  if (!ToolStopper::isPatchingOn_ || ToolStopper::sigUsr1Recv_) EndStopped();
}

// Between patches the process ends as the SIGTERM handler ends it: the
// interim generator may be running, and exit handlers or static destructors
// must not pull its state away under it. Every log line is already written.
void EndIfStopRequested() {
  if (!ToolStopper::isPatchingOn_ || ToolStopper::sigUsr1Recv_) EndStopped();
}

void InstallSignalHandlers() {
  Install(SIGTERM, handleSigTerm);
  Install(SIGPIPE, SIG_IGN);
  // The agent sends SIGUSR1 and then SIGTERM. When both are pending at once
  // the kernel would start the SIGTERM handler on top of the SIGUSR1 one,
  // before the flag is set; holding SIGTERM back until the flag is stored
  // makes the pair end the run as the agent meant.
  Install(SIGUSR1, handleSigUsr1, SIGTERM);
}

}  // namespace patchmgmt
