// Result documents of whole job runs of the built tool.

#include <sys/stat.h>

#include "support/sandbox.h"

namespace {

using namespace std::chrono_literals;
using pmtest::ToolProcess;
using pmtest::ToolSandbox;

TEST(ResultsE2E, UnwritableFinalDocumentOverridesThePatcherWith49) {
  ToolSandbox sandbox;
  sandbox.WriteManifest(pmtest::ManifestWithPatches(pmtest::PatchJson("P1", {"pkg"}, "x86_64", true)));
  // A directory standing at the document's path: the written document cannot
  // be put in its place.
  ASSERT_EQ(::mkdir((sandbox.resultDir + "/job1_7_status.json").c_str(), 0700), 0);
  ToolProcess tool(sandbox, {sandbox.WriteArgs()});
  ASSERT_EQ(tool.WaitParent(), 0);
  EXPECT_EQ(tool.WaitChild(), 49);
  EXPECT_EQ(sandbox.ExitCodeText(), "49");
  EXPECT_TRUE(pmtest::HasLogPrefix(
      sandbox.Log(), "Failed to write result in file: " + sandbox.resultDir + "/job1_7_status.json error :"));
}

// One period of 60 s while the only package takes about 70 s: the interim
// document written during the run shows the patch as executing.
TEST(ResultsE2E, InterimDocumentShowsThePatchExecutingDuringALongPackage) {
  ToolSandbox sandbox;
  auto* interim = sandbox.patchArgs().mutable_interimresultoption();
  interim->set_isinterimresultenable(true);
  interim->set_interimresultgeneratetimeinseconds(60);
  sandbox.WriteManifest(pmtest::ManifestWithPatches(pmtest::PatchJson("P-slow", {"slowpkg"})));
  sandbox.WriteScript("sleep 70\necho '{\"customExitCode\":0,\"exitCode\":0}' > \"$2\"");
  ToolProcess tool(sandbox, {sandbox.WriteArgs()});
  ASSERT_EQ(tool.WaitParent(), 0);
  ASSERT_EQ(tool.WaitChild(std::chrono::seconds(180)), 0);

  const auto documents = pmtest::ListDir(sandbox.interimDir);
  ASSERT_EQ(documents.size(), 1u);
  EXPECT_EQ(documents[0].rfind("PatchInterimResult_", 0), 0u);
  const std::string text = pmtest::ReadTextFile(sandbox.interimDir + "/" + documents[0]);
  EXPECT_NE(text.find("\"resultType\":\"INTERIM\""), std::string::npos) << text;
  EXPECT_NE(text.find("\"executing\":[\"P-slow\"]"), std::string::npos) << text;
}

}  // namespace
