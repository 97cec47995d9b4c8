#include "args/commandlineargs.h"

#include "support/sandbox.h"

namespace {

using patchmgmt::protobuf::CommandlineArgsInProtoBuf;

class CommandlineArgsTest : public pmtest::LogCaptureTest {
 protected:
  // Validates the sandbox's arguments after `change`; the messages it logged.
  std::vector<pmtest::LogLine> ValidateWith(bool expected, void (*change)(pmtest::ToolSandbox&)) {
    change(sandbox_);
    CommandlineArgsInProtoBuf holder;
    holder.MutableArguments() = sandbox_.args;
    const size_t before = Log().size();
    EXPECT_EQ(holder.Validate(), expected);
    auto log = Log();
    return std::vector<pmtest::LogLine>(log.begin() + static_cast<long>(before), log.end());
  }

  pmtest::ToolSandbox sandbox_;
};

TEST_F(CommandlineArgsTest, FileRoundTripKeepsEveryFieldAndDumpsIt) {
  CommandlineArgsInProtoBuf written;
  written.MutableArguments() = sandbox_.args;
  ASSERT_TRUE(written.WriteToFile(dir_.Join("args.bin")));

  CommandlineArgsInProtoBuf read;
  ASSERT_TRUE(read.LoadFromFile(dir_.Join("args.bin")));
  EXPECT_EQ(read.GetArguments().SerializeAsString(), sandbox_.args.SerializeAsString());
  EXPECT_EQ(read.GetDeploymentScriptPath(), sandbox_.scriptPath);
  EXPECT_TRUE(read.Validate());

  read.LogArguments();
  EXPECT_TRUE(
      pmtest::HasLogLine(Log(), "Patch arguments recv to tool:\n" + sandbox_.args.DebugString(), "Debug"));

  const std::string nowhere = dir_.Join("missing/args.bin");
  EXPECT_FALSE(written.WriteToFile(nowhere));
  EXPECT_TRUE(pmtest::HasLogLine(
      Log(), "Failed to open file: " + nowhere + " error: No such file or directory", "Error"));
}

TEST_F(CommandlineArgsTest, EnabledInterimResultsNeedADirectoryButNotAnExistingOne) {
  EXPECT_TRUE(ValidateWith(false, [](pmtest::ToolSandbox& s) {
                auto* interim = s.patchArgs().mutable_interimresultoption();
                interim->set_isinterimresultenable(true);
                interim->set_interimresultdir("");
              }).empty());
  EXPECT_TRUE(ValidateWith(true, [](pmtest::ToolSandbox& s) {
                s.patchArgs().mutable_interimresultoption()->set_interimresultdir(s.root.Join("not-yet"));
              }).empty());
}

}  // namespace
