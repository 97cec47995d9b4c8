// Whole job runs of the built tool: detach, stop signals, exit-code file.

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <memory>

#include "support/sandbox.h"

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using pmtest::ToolProcess;
using pmtest::ToolSandbox;

// A deployment script that announces each package and then waits for the
// test to release it, so that signals land while a package is running.
void WriteGatedScript(const ToolSandbox& sandbox) {
  const std::string marks = sandbox.root.path();
  sandbox.WriteScript("touch \"" + marks + "/$1.started\"\ni=0\nwhile [ ! -e \"" + marks +
                      "/release\" ] && [ $i -lt 600 ]; do sleep 0.05; i=$((i+1)); done\n"
                      "echo '{\"customExitCode\":0,\"exitCode\":0}' > \"$2\"");
}

bool Started(const ToolSandbox& sandbox, const std::string& package) {
  return pmtest::PathExists(sandbox.root.Join(package + ".started"));
}

void Release(const ToolSandbox& sandbox) { pmtest::WriteTextFile(sandbox.root.Join("release"), ""); }

// A three-patch job whose first package is running and held.
struct HeldRun {
  HeldRun() {
    sandbox.WriteManifest(pmtest::ManifestWithPatches(pmtest::PatchJson("P1", {"p1a", "p1b"}) + "," +
                                                      pmtest::PatchJson("P2", {"p2a"}) + "," +
                                                      pmtest::PatchJson("P3", {"p3a"})));
    WriteGatedScript(sandbox);
    tool = std::make_unique<ToolProcess>(sandbox, std::vector<std::string>{sandbox.WriteArgs()});
    EXPECT_EQ(tool->WaitParent(), 0);
    EXPECT_TRUE(pmtest::WaitFor([&] { return Started(sandbox, "p1a"); }, 20s));
  }
  ~HeldRun() { Release(sandbox); }

  void Signal(int signalNumber) { ASSERT_EQ(kill(tool->ChildPid(), signalNumber), 0); }

  ToolSandbox sandbox;
  std::unique_ptr<ToolProcess> tool;
};

TEST(DeployE2E, Sigusr1DuringTheFirstPatchLetsThePackageFinishAndStopsWith57) {
  HeldRun run;
  run.Signal(SIGUSR1);
  Release(run.sandbox);
  EXPECT_EQ(run.tool->WaitChild(), 57);

  // The tool itself saw the held package to its end before it stopped.
  EXPECT_TRUE(pmtest::HasLogPrefix(run.sandbox.Log(), "Command: " + run.sandbox.scriptPath + " p1a "));
  EXPECT_TRUE(pmtest::HasLogLine(run.sandbox.Log(), "[SUCCESS]: P1"));
  for (const char* package : {"p1b", "p2a", "p3a"}) EXPECT_FALSE(Started(run.sandbox, package)) << package;
  EXPECT_EQ(run.sandbox.ExitCodeText(), "");
  EXPECT_FALSE(pmtest::PathExists(run.sandbox.resultDir + "/job1_7_status.json"));
}

TEST(DeployE2E, SigtermDuringPatchingIsIgnoredUnlessSigusr1CameFirst) {
  {
    HeldRun run;
    run.Signal(SIGTERM);
    Release(run.sandbox);
    EXPECT_EQ(run.tool->WaitChild(), 0);
    EXPECT_TRUE(Started(run.sandbox, "p3a"));
    EXPECT_EQ(run.sandbox.ExitCodeText(), "0");
  }
  HeldRun run;
  run.Signal(SIGUSR1);
  run.Signal(SIGTERM);
  // Ends while the package is still held: the SIGTERM itself ended it.
  EXPECT_EQ(run.tool->WaitChild(20s), 57);
  EXPECT_FALSE(pmtest::PathExists(run.sandbox.resultDir + "/scriptOutput.json"));
}

TEST(DeployE2E, DetachedChildLeavesTheAgentAndRecordsItsExitCode) {
  ToolSandbox sandbox;
  sandbox.WriteManifest(pmtest::ManifestWithPatches(pmtest::PatchJson("P1", {"kernel"}, "noarch", true)));
  WriteGatedScript(sandbox);
  // A descriptor of the agent's that the tool inherits: once the detached
  // child holds nothing of the agent's, the read end sees end-of-file.
  int agentPipe[2];
  ASSERT_EQ(pipe(agentPipe), 0);
  ToolProcess tool(sandbox, {sandbox.WriteArgs()});
  close(agentPipe[1]);

  // The agent reads the tool's stdout and stderr to end-of-file: that
  // returns while the job is still running.
  ASSERT_EQ(tool.WaitParent(), 0);
  ASSERT_TRUE(pmtest::WaitFor([&] { return Started(sandbox, "kernel"); }, 20s));
  const pid_t child = tool.ChildPid();
  ASSERT_GT(child, 0);
  EXPECT_EQ(kill(child, 0), 0) << "the job is still running";
  fcntl(agentPipe[0], F_SETFL, O_NONBLOCK);
  char byte;
  EXPECT_EQ(read(agentPipe[0], &byte, 1), 0) << "the detached child still holds the agent's pipe";
  close(agentPipe[0]);
  const std::string proc = "/proc/" + std::to_string(child) + "/";
  for (const char* fd : {"fd/0", "fd/1", "fd/2"}) EXPECT_EQ(fs::read_symlink(proc + fd), "/dev/null") << fd;
  EXPECT_EQ(fs::read_symlink(proc + "cwd"), "/");
  EXPECT_EQ(getsid(child), child);

  Release(sandbox);
  EXPECT_EQ(tool.WaitChild(), 55);
  EXPECT_EQ(sandbox.ExitCodeFileName(), ".job1.7." + std::to_string(child) + ".exit");
  EXPECT_EQ(sandbox.ExitCodeText(), "55");
  if (ToolProcess::CanIsolateCgroup()) {
    EXPECT_EQ(pmtest::ReadTextFile(sandbox.cgroupDir + "/tasks"), std::to_string(child));
  }
}

TEST(DeployE2E, PackageNamesReachTheScriptAsOneLiteralArgument) {
  ToolSandbox sandbox;
  const std::string marker = sandbox.root.Join("smuggled");
  const std::string hostile1 = "a;touch " + marker;
  const std::string hostile2 = "$(touch " + marker + ")";
  sandbox.WriteManifest(pmtest::ManifestWithPatches(pmtest::PatchJson("P1", {hostile1, hostile2})));
  const std::string seen = sandbox.root.Join("seen");
  sandbox.WriteScript("printf '%s|%s\\n' \"$#\" \"$1\" >> \"" + seen +
                      "\"\necho '{\"customExitCode\":0,\"exitCode\":0}' > \"$2\"");
  ToolProcess tool(sandbox, {sandbox.WriteArgs()});
  ASSERT_EQ(tool.WaitParent(), 0);
  ASSERT_EQ(tool.WaitChild(), 0);
  EXPECT_EQ(pmtest::ReadTextFile(seen), "3|" + hostile1 + "\n3|" + hostile2 + "\n");
  EXPECT_FALSE(pmtest::PathExists(marker));
  EXPECT_TRUE(pmtest::HasLogPrefix(sandbox.Log(), "Executing deployment command: " + sandbox.scriptPath +
                                                      " " + hostile1 + " " + sandbox.resultDir +
                                                      "/scriptOutput.json "));
}

}  // namespace
