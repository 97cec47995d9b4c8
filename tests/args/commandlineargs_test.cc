#include "args/commandlineargs.h"

#include "support/sandbox.h"

namespace {

// Every other validation step is checked end to end, through the tool's log.
class CommandlineArgsTest : public pmtest::LogCaptureTest {
 protected:
  void SetUp() override {
    LogCaptureTest::SetUp();
    holder_.MutableArguments() = sandbox_.args;
  }
  pmtest::pb::PatchArguments& Patch() { return *holder_.MutableArguments().mutable_patchargs(); }

  pmtest::ToolSandbox sandbox_;
  patchmgmt::protobuf::CommandlineArgsInProtoBuf holder_;
};

TEST_F(CommandlineArgsTest, EnabledInterimResultsNeedADirectoryButNotAnExistingOne) {
  Patch().mutable_interimresultoption()->set_isinterimresultenable(true);
  Patch().mutable_interimresultoption()->set_interimresultdir(sandbox_.root.Join("not-yet"));
  EXPECT_TRUE(holder_.Validate());
  Patch().mutable_interimresultoption()->set_interimresultdir("");
  EXPECT_FALSE(holder_.Validate());
  EXPECT_TRUE(Log().empty()) << "the refusal is silent";
}

// The job id names the result document and the exit-code file.
TEST_F(CommandlineArgsTest, JobIdThatCannotBeAFileNameFailsValidationLast) {
  auto check = [this](const std::string& jobId, bool usable) {
    CaptureLog();
    Patch().set_jobid(jobId);
    EXPECT_EQ(holder_.Validate(), usable) << jobId;
    EXPECT_EQ(pmtest::HasLogLine(Log(), "job ID is not usable in a file name: " + jobId, "Error"), !usable);
  };
  for (const std::string& jobId : std::vector<std::string>{"job-1", "...", std::string(200, 'j')})
    check(jobId, true);
  for (const std::string& jobId :
       std::vector<std::string>{"a/b", "../x", ".", "..", std::string(201, 'j'), std::string("a\0b", 3)})
    check(jobId, false);
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
