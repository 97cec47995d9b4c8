// The tool's entry as the agent sees it: exit statuses, the exact log of every
// refused invocation, and the stop signals before patching is armed.

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

#include "support/sandbox.h"

namespace {

using pmtest::ToolProcess;
using pmtest::ToolSandbox;
using Lines = std::vector<std::string>;

const std::string kStarted = "Information|Started tool execution\n";
const std::string kValidationFailed = "Error|Argument validation failed for patch execution. Exiting.";

// Sets the string field at the dotted `path` to `value`; an empty value clears
// the field (a message field becomes absent).
void SetField(google::protobuf::Message& message, const std::string& path, const std::string& value) {
  const auto dot = path.find('.');
  const auto* field = message.GetDescriptor()->FindFieldByName(path.substr(0, dot));
  const auto* reflection = message.GetReflection();
  if (dot != std::string::npos)
    return SetField(*reflection->MutableMessage(&message, field), path.substr(dot + 1), value);
  value.empty() ? reflection->ClearField(&message, field) : reflection->SetString(&message, field, value);
}

// Every refusal ends with 46 before the detach, leaves no result, and logs
// exactly why: the whole log, as "priority|text" lines, is checked.
TEST(EntryE2E, EveryRefusedInvocationEndsWith46AndLogsExactlyWhy) {
  ToolSandbox sandbox;
  pmtest::WriteTextFile(sandbox.root.Join("plain"), "not a directory");
  const std::string args = sandbox.WriteArgs();
  const std::string usage = kStarted + "Error|Usage: " + PM_TOOL_PATH + " <arg file name>";
  std::vector<std::pair<Lines, std::string>> cases = {{{}, usage}, {{args, args}, usage}};
  // An argument file that loads and is then refused with `errors`.
  const auto loaded = [&](const std::string& name, const std::string& errors) {
    cases.push_back(
        {{sandbox.WriteArgs(name)},
         kStarted + "Debug|Patch arguments recv to tool:\n" + sandbox.args.DebugString() + "\n" + errors});
  };
  const struct {
    const char* field;
    std::string path;  // in the sandbox; "" clears the field
    std::string line;  // followed by the path; "" when the check is silent
  } validation[] = {
      {"vendorID", "", "VendorId is empty"},
      {"jobID", "", "job ID is empty"},
      {"manifestID", "", "manifest ID is empty"},
      {"manifestDirectoryPath", "", "manifest Directory is empty"},
      {"resultDirectory", "", "result Directory is empty"},
      {"manifestDirectoryPath", "/gone", "directory path not exist: "},
      {"resultDirectory", "/plain", "directory path not exist: "},
      {"statusDBPath", "", "Status DB FilePath is empty"},
      {"ahsMessageDir", "", ""},
      {"deploymentScriptsPaths", "", ""},
      {"deploymentScriptsPaths.deploymentScriptPath", "", ""},
      {"deploymentScriptsPaths.deploymentScriptPath", "/ahs", "file path not exist: "},
  };
  const pmtest::pb::CommandlineArguments valid = sandbox.args;
  for (const auto& c : validation) {
    const std::string path = c.path.empty() ? "" : sandbox.root.path() + c.path;
    SetField(sandbox.patchArgs(), c.field, path);
    loaded(c.field + std::to_string(cases.size()),
           (c.line.empty() ? "" : "Error|" + c.line + path + "\n") + kValidationFailed);
    sandbox.args = valid;
  }
  auto& interim = *sandbox.patchArgs().mutable_interimresultoption();
  interim.set_interimresultgeneratetimeinseconds(59);
  loaded("interval59", "Error|Interim result interval must be greater than 60.");
  interim.set_isinterimresultenable(true);
  loaded("interval59-enabled", "Error|Interim result interval must be greater than 60.");
  sandbox.args.set_operationtype(pmtest::pb::CommandlineArguments::INVALID);
  cases.push_back({{sandbox.WriteArgs("invalid")}, usage});
  // An empty file is a valid message with every field empty.
  sandbox.args.Clear();
  loaded("empty", "Error|VendorId is empty\n" + kValidationFailed);

  const std::string missing = sandbox.root.Join("missing");
  const std::string garbage = sandbox.root.Join("garbage");
  pmtest::WriteTextFile(garbage, std::string(64, '\xff'));  // a varint that never ends
  const std::string noAccess = sandbox.WriteArgs("no-access");
  chmod(noAccess.c_str(), 0);
  const std::string cannotOpen = kStarted + "Error|Failed to open protobuf file: ";
  const std::string caller = "\nError|Error in deserializing protobuf format input file: ";
  cases.push_back({{missing}, cannotOpen + missing + " error: No such file or directory" + caller + missing});
  cases.push_back(
      {{garbage}, kStarted + "Error|Error in deserializing protobuf file: " + garbage + caller + garbage});
  if (geteuid() != 0) {  // root reads a file whatever its mode
    cases.push_back({{noAccess}, cannotOpen + noAccess + " error: Permission denied" + caller + noAccess});
  }
  for (const auto& [toolArgs, log] : cases) {
    SCOPED_TRACE(toolArgs.empty() ? "no argument" : toolArgs.back());
    std::remove(sandbox.logPath.c_str());
    ToolProcess tool(sandbox, toolArgs);
    EXPECT_EQ(tool.WaitParent(), 46);
    std::string actual;
    for (const auto& line : sandbox.Log())
      actual += (actual.empty() ? "" : "\n") + line.priority + "|" + line.text;
    EXPECT_EQ(actual, log);
    EXPECT_TRUE(pmtest::ListDir(sandbox.resultDir).empty());
  }
}

TEST(EntryE2E, LoggingThatCannotStartEndsWith53OnStderr) {
  for (const bool missing : {true, false}) {
    ToolSandbox sandbox;
    const std::string config = sandbox.configDir + "/zagent-patchmgmt-log.conf";
    pmtest::WriteTextFile(
        config,
        "logging.channels.file.class = NoSuchChannel\n"
        "logging.loggers.tool.name = zelkor-patchmgmt-tool\nlogging.loggers.tool.channel = file\n");
    if (missing) std::remove(config.c_str());
    ToolProcess tool(sandbox, {sandbox.WriteArgs()});
    EXPECT_EQ(tool.WaitParent(), 53);
    EXPECT_EQ(tool.parentOutput(), missing ? "Error: Log config file : " + config + " doesn't exit\n"
                                           : "Error: Logger initialization failed\n");
    EXPECT_FALSE(pmtest::PathExists(sandbox.logPath));
  }
}

// An argument file that is a FIFO holds the tool inside loading, its signal
// handlers in place, while nothing is written to it. Opening the writing end
// without blocking succeeds only once the tool is reading.
TEST(EntryE2E, SigtermBeforePatchingIsArmedEndsWith57) {
  ToolSandbox sandbox;
  const std::string fifo = sandbox.root.Join("args.fifo");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  ToolProcess tool(sandbox, {fifo});
  int writer = -1;
  ASSERT_TRUE(pmtest::WaitFor([&] { return (writer = open(fifo.c_str(), O_WRONLY | O_NONBLOCK)) >= 0; },
                              std::chrono::seconds(20)));
  ASSERT_EQ(kill(tool.parentPid(), SIGTERM), 0);
  EXPECT_EQ(tool.WaitParent(), 57);
  close(writer);
  const auto log = sandbox.Log();
  ASSERT_EQ(log.size(), 1u) << "the stop itself logs nothing";
  EXPECT_EQ(log[0].text, "Started tool execution");
}

}  // namespace
