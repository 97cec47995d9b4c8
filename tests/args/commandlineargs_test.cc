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
