// Whole job runs of the built tool: the detach, the stop signals, and the
// failures after the detach that the agent learns of only through the
// exit-code file.

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "support/sandbox.h"

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using pmtest::ToolProcess;
using pmtest::ToolSandbox;
using Lines = std::vector<std::string>;

// A deployment script that adds "<number of arguments>|<package>" to the file
// "seen" beside it and then waits for the test to release it, so that signals
// land while a package is running.
void WriteGatedScript(const ToolSandbox& sandbox) {
  sandbox.WriteScript(R"(d=$(dirname "$0"); printf '%s|%s\n' "$#" "$1" >> "$d/seen"
i=0; while [ ! -e "$d/release" ] && [ $i -lt 600 ]; do sleep 0.05; i=$((i+1)); done
echo '{"customExitCode":0,"exitCode":0}' > "$2")");
}

std::string Seen(const ToolSandbox& sandbox) { return pmtest::ReadTextFile(sandbox.root.Join("seen")); }

void Release(const ToolSandbox& sandbox) { pmtest::WriteTextFile(sandbox.root.Join("release"), ""); }

TEST(DeployE2E, StopSignalsDuringPatching) {
  const struct {
    std::vector<int> signals;
    bool release;  // the held package goes on to its end
    int status;
  } cases[] = {
      // The held package finishes, and nothing after it starts.
      {{SIGUSR1}, true, 57},
      // Ignored while patching: the job runs to its end.
      {{SIGTERM}, true, 0},
      // After SIGUSR1 a SIGTERM ends the run at once, the package still held.
      {{SIGUSR1, SIGTERM}, false, 57},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.signals));
    ToolSandbox sandbox;
    sandbox.WriteManifest(pmtest::ManifestWithPatches(pmtest::PatchJson("P1", {"p1a", "p1b"}) + "," +
                                                      pmtest::PatchJson("P2", {"p2a"}) + "," +
                                                      pmtest::PatchJson("P3", {"p3a"})));
    WriteGatedScript(sandbox);
    ToolProcess tool(sandbox, {sandbox.WriteArgs()});
    ASSERT_EQ(tool.WaitParent(), 0);
    ASSERT_TRUE(pmtest::WaitFor([&] { return !Seen(sandbox).empty(); }, 20s));
    for (int signalNumber : c.signals) ASSERT_EQ(kill(tool.ChildPid(), signalNumber), 0);
    if (c.release) Release(sandbox);
    EXPECT_EQ(tool.WaitChild(20s), c.status);
    EXPECT_EQ(Seen(sandbox), c.status == 0 ? "3|p1a\n3|p1b\n3|p2a\n3|p3a\n" : "3|p1a\n");
    EXPECT_EQ(pmtest::HasLogLine(sandbox.Log(), "[SUCCESS]: P1"), c.release);
    EXPECT_EQ(sandbox.ExitCodeText(), c.status == 0 ? "0" : "");
    EXPECT_EQ(pmtest::PathExists(sandbox.resultDir + "/job1_7_status.json"), c.status == 0);
  }
}

// The run of a minimal invocation: the shortest interim period (60; 59 is
// refused), run id 0, an interim directory that does not exist yet, and the
// fields that are never validated absent. Its package names reach the script
// as one argument each, never through a shell.
TEST(DeployE2E, DetachedChildLeavesTheAgentRunsTheJobAsGivenAndRecordsItsExitCode) {
  ToolSandbox sandbox;
  auto& patch = sandbox.patchArgs();
  patch.clear_agentdetails();
  patch.clear_jobrecvtime();
  patch.set_runid(0);
  patch.mutable_interimresultoption()->set_interimresultdir(sandbox.root.Join("later"));
  patch.mutable_interimresultoption()->set_isinterimresultenable(true);
  const std::string marker = sandbox.root.Join("smuggled");
  const std::string hostile1 = "a;touch " + marker;
  const std::string hostile2 = "$(touch " + marker + ")";
  sandbox.WriteManifest(
      pmtest::ManifestWithPatches(pmtest::PatchJson("P1", {hostile1, hostile2}, "noarch", true), 0));
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
  ASSERT_TRUE(pmtest::WaitFor([&] { return !Seen(sandbox).empty(); }, 20s));
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
  EXPECT_EQ(sandbox.ExitCodeFileName(), ".job1.0." + std::to_string(child) + ".exit");
  EXPECT_EQ(sandbox.ExitCodeText(), "55");
  if (ToolProcess::CanIsolateCgroup()) {
    EXPECT_EQ(pmtest::ReadTextFile(sandbox.cgroupDir + "/tasks"), std::to_string(child));
  }
  EXPECT_EQ(Seen(sandbox), "3|" + hostile1 + "\n3|" + hostile2 + "\n");
  EXPECT_FALSE(pmtest::PathExists(marker));
  const auto log = sandbox.Log();
  EXPECT_TRUE(pmtest::HasLogPrefix(log, "Executing deployment command: " + sandbox.scriptPath + " " +
                                            hostile1 + " " + sandbox.resultDir + "/scriptOutput.json "));
  // The interim generator runs beside the patcher and is stopped once it is
  // done, well before its first period.
  for (const char* line :
       {"Interim Result Generator Thread Started", "Shutting down InterimResultGeneratorThread",
        "Interim Result Generator Thread exiting"}) {
    EXPECT_TRUE(pmtest::HasLogLine(log, line, "Information")) << line;
  }
  EXPECT_FALSE(pmtest::HasLogLine(log, "Generating interim result"));
}

TEST(DeployE2E, FailuresAfterTheDetachEndWithTheirOwnCodeInTheExitCodeFile) {
  // The run the tool is started for (job1/7) is missing: job1 is there with
  // another run id, and job1/7 belongs to a job of another type, which the
  // parser drops.
  std::string otherRun = pmtest::ManifestWithPatches(pmtest::PatchJson("P1", {"pkg-a"}), 8);
  otherRun.insert(
      otherRun.rfind(']'),
      R"(,{"id":"job1","runid":7,"type":"UNINSTALL","isimmediate":true,"datetime":"x","timeout":1,)"
      R"("continueafterpackagefailedforpatch":true,"patches":[],"postdeployment":{"suppressreboots":true}})");
  const std::string manifest = "$ROOT/manifests/manifest1.json";
  const std::string parseFailed = "\nFailed to parse deployment manifest: " + manifest;
  const struct {
    int status;
    bool documentBlocked;  // a directory stands at the final document's path
    std::string manifest;  // "" for no manifest file at all
    std::string errors;    // every error line, $ROOT for the sandbox
  } cases[] = {
      {45, false, "[]", "[Patch]:Not valid json document for Deployemnt manifest json." + parseFailed},
      {45, false, R"({"schemaversion": 1, "jobs": []})",
       "[Patch]:Failed to find integer field schemaversion in deployement manifest" + parseFailed},
      {45, false, "",
       "[Patch]:Failed to open file: " + manifest + ", error: No such file or directory\n" +
           "[Patch]:Error in reading manifest file content: " + manifest + parseFailed},
      {62, false, otherRun, "Failed to find jobId: job1"},
      // The document's failure overrides the patcher's 55 (a reboot is due).
      {49, true, pmtest::ManifestWithPatches(pmtest::PatchJson("P1", {"pkg"}, "x86_64", true)),
       "Failed to write result in file: $ROOT/results/job1_7_status.json error :Is a directory"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.manifest.substr(0, 40));
    ToolSandbox sandbox;
    if (!c.manifest.empty()) sandbox.WriteManifest(c.manifest);
    const std::string document = sandbox.resultDir + "/job1_7_status.json";
    ASSERT_TRUE(!c.documentBlocked || ::mkdir(document.c_str(), 0700) == 0);
    ToolProcess tool(sandbox, {sandbox.WriteArgs()});
    EXPECT_EQ(tool.WaitParent(), 0);
    EXPECT_EQ(tool.WaitChild(), c.status);
    EXPECT_EQ(sandbox.ExitCodeText(), std::to_string(c.status));
    EXPECT_EQ(pmtest::PathExists(document), c.documentBlocked);
    std::string errors;
    for (auto line : sandbox.Log()) {
      const auto at = line.text.find(sandbox.root.path());
      if (at != std::string::npos) line.text.replace(at, sandbox.root.path().size(), "$ROOT");
      if (line.priority == "Error") errors += (errors.empty() ? "" : "\n") + line.text;
    }
    EXPECT_EQ(errors, c.errors);
  }
}

}  // namespace
