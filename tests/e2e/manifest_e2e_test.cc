// The manifest as the detached tool meets it: a manifest it cannot use, and a
// manifest without the job it was started for. Both end in the detached child,
// so the agent learns of them only through the exit-code file.

#include <gtest/gtest.h>

#include <string>

#include "support/sandbox.h"

namespace {

using pmtest::ToolProcess;
using pmtest::ToolSandbox;

struct ChildOutcome {
  int parentStatus;
  int childStatus;
  std::string exitCodeText;
  std::vector<pmtest::LogLine> log;
};

ChildOutcome RunDetached(const ToolSandbox& sandbox) {
  ToolProcess tool(sandbox, {sandbox.WriteArgs()});
  ChildOutcome outcome;
  outcome.parentStatus = tool.WaitParent();
  outcome.childStatus = tool.WaitChild();
  const std::string name = sandbox.ExitCodeFileName();
  outcome.exitCodeText =
      name.empty() ? "<no exit-code file>" : pmtest::ReadTextFile(sandbox.resultDir + "/" + name);
  outcome.log = sandbox.Log();
  return outcome;
}

TEST(ManifestE2E, UnusableManifestEndsTheDetachedRunWith45) {
  const struct {
    const char* content;  // null: no manifest file at all
    std::string parserLine;
  } cases[] = {
      {"[]", "[Patch]:Not valid json document for Deployemnt manifest json."},
      {R"({"schemaversion": 1, "jobs": []})",
       "[Patch]:Failed to find integer field schemaversion in deployement manifest"},
      {nullptr, "[Patch]:Error in reading manifest file content: "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.content == nullptr ? "no file" : c.content);
    ToolSandbox sandbox;
    if (c.content != nullptr) sandbox.WriteManifest(c.content);
    const std::string path = sandbox.manifestDir + "/manifest1.json";
    const ChildOutcome outcome = RunDetached(sandbox);
    EXPECT_EQ(outcome.parentStatus, 0);
    EXPECT_EQ(outcome.childStatus, 45);
    EXPECT_EQ(outcome.exitCodeText, "45");
    const std::string parserLine = c.content == nullptr ? c.parserLine + path : c.parserLine;
    EXPECT_TRUE(pmtest::HasLogLine(outcome.log, parserLine, "Error"));
    EXPECT_TRUE(pmtest::HasLogLine(outcome.log, "Failed to parse deployment manifest: " + path, "Error"));
    EXPECT_FALSE(pmtest::HasLogPrefix(outcome.log, "Successfully parsed manifest: "));
  }
}

TEST(ManifestE2E, ManifestWithoutTheJobAndRunEndsTheDetachedRunWith62) {
  // job1 is there, but with another run id, and the run the tool was started
  // for (job1/7) belongs to a job of another type, which the parser drops.
  ToolSandbox sandbox;
  std::string manifest = pmtest::ManifestWithPatches(pmtest::PatchJson("P1", {"pkg-a"}));
  manifest.replace(manifest.find("\"runid\":7"), 9, "\"runid\":8");
  manifest.insert(
      manifest.rfind(']'),
      R"(,{"id":"job1","runid":7,"type":"UNINSTALL","isimmediate":true,"datetime":"x","timeout":1,)"
      R"("continueafterpackagefailedforpatch":true,"patches":[],"postdeployment":{"suppressreboots":true}})");
  sandbox.WriteManifest(manifest);

  const ChildOutcome outcome = RunDetached(sandbox);
  EXPECT_EQ(outcome.parentStatus, 0);
  EXPECT_EQ(outcome.childStatus, 62);
  EXPECT_EQ(outcome.exitCodeText, "62");
  EXPECT_TRUE(pmtest::HasLogLine(
      outcome.log, "Successfully parsed manifest: " + sandbox.manifestDir + "/manifest1.json", "Debug"));
  EXPECT_TRUE(pmtest::HasLogLine(
      outcome.log, "[Patch]:type provided: UNINSTALL for linux job is not valid. supports only \"INSTALL\"",
      "Warning"));
  EXPECT_TRUE(pmtest::HasLogLine(outcome.log, "Failed to find jobId: job1", "Error"));
  EXPECT_FALSE(pmtest::HasLogLine(outcome.log, "Found jobid and runId in job manifest"));
  EXPECT_FALSE(pmtest::PathExists(sandbox.resultDir + "/job1_7_status.json"));
}

}  // namespace
