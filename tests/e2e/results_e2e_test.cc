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

}  // namespace
