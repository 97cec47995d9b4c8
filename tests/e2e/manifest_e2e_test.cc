// The manifest as the detached tool meets it: a manifest it cannot use, and a
// manifest without the job it was started for. Both end in the detached child,
// so the agent learns of them only through the exit-code file.

#include <string>

#include "support/sandbox.h"

namespace {

using pmtest::HasLogLine;
using pmtest::ToolProcess;
using pmtest::ToolSandbox;

// Runs the job; the detached child's status, after the parent ended with 0.
int RunDetached(const ToolSandbox& sandbox) {
  ToolProcess tool(sandbox, {sandbox.WriteArgs()});
  EXPECT_EQ(tool.WaitParent(), 0);
  return tool.WaitChild();
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
    EXPECT_EQ(RunDetached(sandbox), 45);
    EXPECT_EQ(sandbox.ExitCodeText(), "45");
    const auto log = sandbox.Log();
    EXPECT_TRUE(HasLogLine(log, c.content == nullptr ? c.parserLine + path : c.parserLine, "Error"));
    EXPECT_TRUE(HasLogLine(log, "Failed to parse deployment manifest: " + path, "Error"));
    EXPECT_FALSE(pmtest::HasLogPrefix(log, "Successfully parsed manifest: "));
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

  EXPECT_EQ(RunDetached(sandbox), 62);
  EXPECT_EQ(sandbox.ExitCodeText(), "62");
  const auto log = sandbox.Log();
  EXPECT_TRUE(HasLogLine(log, "Successfully parsed manifest: " + sandbox.manifestDir + "/manifest1.json"));
  EXPECT_TRUE(HasLogLine(log, "Failed to find jobId: job1", "Error"));
  EXPECT_FALSE(HasLogLine(log, "Found jobid and runId in job manifest"));
  EXPECT_FALSE(pmtest::PathExists(sandbox.resultDir + "/job1_7_status.json"));
}

}  // namespace
