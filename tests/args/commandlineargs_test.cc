#include "args/commandlineargs.h"

#include "support/sandbox.h"

namespace {

using CommandlineArgsTest = pmtest::LogCaptureTest;

// Every other validation step is checked end to end, through the tool's log.
TEST_F(CommandlineArgsTest, EnabledInterimResultsNeedADirectoryButNotAnExistingOne) {
  pmtest::ToolSandbox sandbox;
  auto* interim = sandbox.patchArgs().mutable_interimresultoption();
  interim->set_isinterimresultenable(true);
  interim->set_interimresultdir(sandbox.root.Join("not-yet"));
  patchmgmt::protobuf::CommandlineArgsInProtoBuf holder;
  holder.MutableArguments() = sandbox.args;
  EXPECT_TRUE(holder.Validate());

  interim->set_interimresultdir("");
  holder.MutableArguments() = sandbox.args;
  EXPECT_FALSE(holder.Validate());
  EXPECT_TRUE(Log().empty()) << "the refusal is silent";
}

}  // namespace

namespace {

// The job id names the result document and the exit-code file.
TEST_F(CommandlineArgsTest, JobIdThatCannotBeAFileNameFailsValidationLast) {
  const struct {
    std::string jobId;
    bool usable;
  } cases[] = {
      {"job-1", true},
      {"...", true},
      {std::string(200, 'j'), true},
      {"a/b", false},
      {"../x", false},
      {".", false},
      {"..", false},
      {std::string(201, 'j'), false},
      {std::string("a\0b", 3), false},
  };
  pmtest::ToolSandbox sandbox;
  for (const auto& c : cases) {
    CaptureLog();
    sandbox.patchArgs().set_jobid(c.jobId);
    patchmgmt::protobuf::CommandlineArgsInProtoBuf holder;
    holder.MutableArguments() = sandbox.args;
    EXPECT_EQ(holder.Validate(), c.usable) << c.jobId;
    EXPECT_EQ(pmtest::HasLogLine(Log(), "job ID is not usable in a file name: " + c.jobId, "Error"),
              !c.usable);
  }
}

TEST(CommandlineArgsPaths, RelativePathsAreResolvedAndAbsoluteOnesKeptByteForByte) {
  patchmgmt::protobuf::CommandlineArgsInProtoBuf holder;
  auto& patch = *holder.MutableArguments().mutable_patchargs();
  patch.set_manifestdirectorypath("manifests");
  patch.set_resultdirectory("./results/");
  patch.set_statusdbpath("/var/lib//status.db");
  patch.mutable_deploymentscriptspaths()->set_deploymentscriptpath("../deploy.sh");
  patch.mutable_interimresultoption()->set_interimresultdir("");
  holder.ResolveRelativePaths("/start");
  EXPECT_EQ(patch.manifestdirectorypath(), "/start/manifests");
  EXPECT_EQ(patch.resultdirectory(), "/start/./results/");
  EXPECT_EQ(patch.statusdbpath(), "/var/lib//status.db");
  EXPECT_EQ(holder.GetDeploymentScriptPath(), "/start/../deploy.sh");
  EXPECT_EQ(patch.interimresultoption().interimresultdir(), "");
  EXPECT_EQ(patch.ahsmessagedir(), "");
}

}  // namespace
