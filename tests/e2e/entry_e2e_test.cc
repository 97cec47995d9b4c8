// The tool's entry as the agent sees it: exit statuses, the exact log lines of
// every refused invocation, and the stop signals before patching is armed.

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include "support/sandbox.h"

namespace {

using pmtest::ToolProcess;
using pmtest::ToolSandbox;
using Lines = std::vector<std::string>;

const std::string kValidationFailed = "Argument validation failed for patch execution. Exiting.";
const std::string kIntervalRefused = "Interim result interval must be greater than 60.";
const std::string kUsage = std::string("Usage: ") + PM_TOOL_PATH + " <arg file name>";

struct Outcome {
  int status;
  std::vector<pmtest::LogLine> log;
  Lines errors;
  std::string output;
};

Outcome RunTool(const ToolSandbox& sandbox, const Lines& toolArgs) {
  ToolProcess tool(sandbox, toolArgs);
  Outcome outcome{tool.WaitParent(), sandbox.Log(), {}, tool.parentOutput()};
  for (const auto& line : outcome.log) {
    if (line.priority == "Error") outcome.errors.push_back(line.text);
  }
  return outcome;
}

Outcome RunWithArgs(const ToolSandbox& sandbox) { return RunTool(sandbox, {sandbox.WriteArgs()}); }

// Sets a string field named by its dotted path; an empty value clears the
// field (for a message field: makes it absent).
void SetField(google::protobuf::Message& message, const std::string& path, const std::string& value) {
  const auto dot = path.find('.');
  const auto* field = message.GetDescriptor()->FindFieldByName(path.substr(0, dot));
  const auto* reflection = message.GetReflection();
  if (dot != std::string::npos) {
    SetField(*reflection->MutableMessage(&message, field), path.substr(dot + 1), value);
  } else if (value.empty()) {
    reflection->ClearField(&message, field);
  } else {
    reflection->SetString(&message, field, value);
  }
}

std::string WithRoot(std::string text, const ToolSandbox& sandbox) {
  const auto at = text.find("$ROOT");
  return at == std::string::npos ? text : text.replace(at, 5, sandbox.root.path());
}

TEST(EntryE2E, EachValidationFailureEndsWithItsOwnLineOrNone) {
  struct Case {
    const char* field;
    const char* value;
    const char* line;  // "" when the check is silent
  };
  const Case cases[] = {
      {"vendorID", "", "VendorId is empty"},
      {"jobID", "", "job ID is empty"},
      {"manifestID", "", "manifest ID is empty"},
      {"manifestDirectoryPath", "", "manifest Directory is empty"},
      {"resultDirectory", "", "result Directory is empty"},
      {"manifestDirectoryPath", "$ROOT/gone", "directory path not exist: $ROOT/gone"},
      {"resultDirectory", "$ROOT/plain", "directory path not exist: $ROOT/plain"},
      {"statusDBPath", "", "Status DB FilePath is empty"},
      {"ahsMessageDir", "", ""},
      {"deploymentScriptsPaths", "", ""},
      {"deploymentScriptsPaths.deploymentScriptPath", "", ""},
      {"deploymentScriptsPaths.deploymentScriptPath", "$ROOT/ahs", "file path not exist: $ROOT/ahs"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.field) + "=" + c.value);
    ToolSandbox sandbox;
    pmtest::WriteTextFile(sandbox.root.Join("plain"), "not a directory");
    SetField(sandbox.patchArgs(), c.field, WithRoot(c.value, sandbox));
    Outcome outcome = RunWithArgs(sandbox);
    EXPECT_EQ(outcome.status, 46);
    Lines expected = {kValidationFailed};
    if (*c.line != '\0') expected.insert(expected.begin(), WithRoot(c.line, sandbox));
    EXPECT_EQ(outcome.errors, expected);
    EXPECT_TRUE(pmtest::HasLogLine(outcome.log,
                                   "Patch arguments recv to tool:\n" + sandbox.args.DebugString(), "Debug"));
    EXPECT_TRUE(pmtest::ListDir(sandbox.resultDir).empty());
  }
}

TEST(EntryE2E, UnusableArgumentFilesAreRefused) {
  ToolSandbox sandbox;
  const std::string missing = sandbox.root.Join("missing.bin");
  const std::string noAccess = sandbox.WriteArgs("no-access.bin");
  chmod(noAccess.c_str(), 0);
  // A varint that never ends: no protobuf reader accepts it.
  const std::string garbage = sandbox.root.Join("garbage.bin");
  pmtest::WriteTextFile(garbage, std::string(64, '\xff'));
  const std::string empty = sandbox.root.Join("empty.bin");
  pmtest::WriteTextFile(empty, "");
  const std::string caller = "Error in deserializing protobuf format input file: ";

  std::vector<std::pair<std::string, Lines>> cases = {
      {missing,
       {"Failed to open protobuf file: " + missing + " error: No such file or directory", caller + missing}},
      {garbage, {"Error in deserializing protobuf file: " + garbage, caller + garbage}},
      // An empty file is a valid message with every field empty.
      {empty, {"VendorId is empty", kValidationFailed}},
  };
  if (geteuid() != 0) {  // root reads a file whatever its mode
    cases.push_back(
        {noAccess,
         {"Failed to open protobuf file: " + noAccess + " error: Permission denied", caller + noAccess}});
  }
  for (const auto& [path, lines] : cases) {
    SCOPED_TRACE(path);
    std::remove(sandbox.logPath.c_str());
    Outcome outcome = RunTool(sandbox, {path});
    EXPECT_EQ(outcome.status, 46);
    EXPECT_EQ(outcome.errors, lines);
    EXPECT_TRUE(pmtest::ListDir(sandbox.resultDir).empty());
  }
}

TEST(EntryE2E, WrongInvocationLogsUsage) {
  ToolSandbox sandbox;
  const std::string args = sandbox.WriteArgs();
  for (const Lines& toolArgs : {Lines{}, Lines{args, args}}) {
    std::remove(sandbox.logPath.c_str());
    Outcome outcome = RunTool(sandbox, toolArgs);
    EXPECT_EQ(outcome.status, 46);
    EXPECT_EQ(outcome.log.size(), 2u) << "started, then the usage";
    EXPECT_EQ(outcome.errors, Lines{kUsage});
  }

  std::remove(sandbox.logPath.c_str());
  sandbox.args.set_operationtype(pmtest::pb::CommandlineArguments::INVALID);
  Outcome outcome = RunWithArgs(sandbox);
  EXPECT_EQ(outcome.status, 46);
  EXPECT_EQ(outcome.errors, Lines{kUsage});
  EXPECT_FALSE(pmtest::HasLogPrefix(outcome.log, "Patch arguments recv to tool:"));
}

TEST(EntryE2E, InterimIntervalOfSixtyIsTheShortestAccepted) {
  for (bool enabled : {false, true}) {
    ToolSandbox sandbox;
    sandbox.patchArgs().mutable_interimresultoption()->set_isinterimresultenable(enabled);
    sandbox.patchArgs().mutable_interimresultoption()->set_interimresultgeneratetimeinseconds(59);
    Outcome outcome = RunWithArgs(sandbox);
    EXPECT_EQ(outcome.status, 46);
    EXPECT_EQ(outcome.errors, Lines{kIntervalRefused});
    EXPECT_TRUE(pmtest::ListDir(sandbox.resultDir).empty());
  }
  // Sixty passes, and so do the fields that are never validated, empty or
  // absent; an enabled interim directory need not exist yet.
  ToolSandbox sixty;
  sixty.patchArgs().clear_agentdetails();
  sixty.patchArgs().clear_jobrecvtime();
  sixty.patchArgs().set_runid(0);
  sixty.patchArgs().mutable_interimresultoption()->set_interimresultdir(sixty.root.Join("later"));
  sixty.patchArgs().mutable_interimresultoption()->set_isinterimresultenable(true);
  std::string manifest = pmtest::ManifestWithPatches(pmtest::PatchJson("P1", {"a"}));
  sixty.WriteManifest(manifest.replace(manifest.find("\"runid\":7"), 9, "\"runid\":0"));
  ToolProcess tool(sixty, {sixty.WriteArgs()});
  EXPECT_EQ(tool.WaitParent(), 0);
  EXPECT_EQ(tool.WaitChild(), 0);
  const auto log = sixty.Log();
  EXPECT_FALSE(pmtest::HasLogLine(log, kIntervalRefused));
  EXPECT_FALSE(pmtest::HasLogLine(log, kValidationFailed));
  // The generator runs beside the patcher and is stopped once it is done,
  // well before its first period.
  for (const char* line :
       {"Interim Result Generator Thread Started", "Shutting down InterimResultGeneratorThread",
        "Interim Result Generator Thread exiting"}) {
    EXPECT_TRUE(pmtest::HasLogLine(log, line, "Information")) << line;
  }
  EXPECT_FALSE(pmtest::HasLogLine(log, "Generating interim result"));
}

TEST(EntryE2E, LoggingThatCannotStartEndsWith53OnStderr) {
  ToolSandbox missing;
  const std::string config = missing.configDir + "/zagent-patchmgmt-log.conf";
  ASSERT_EQ(std::remove(config.c_str()), 0);
  Outcome outcome = RunWithArgs(missing);
  EXPECT_EQ(outcome.status, 53);
  EXPECT_EQ(outcome.output, "Error: Log config file : " + config + " doesn't exit\n");
  EXPECT_FALSE(pmtest::PathExists(missing.logPath));

  ToolSandbox broken;
  pmtest::WriteTextFile(broken.configDir + "/zagent-patchmgmt-log.conf",
                        "logging.channels.file.class = NoSuchChannel\n"
                        "logging.loggers.tool.name = zelkor-patchmgmt-tool\n"
                        "logging.loggers.tool.channel = file\n");
  outcome = RunWithArgs(broken);
  EXPECT_EQ(outcome.status, 53);
  EXPECT_EQ(outcome.output, "Error: Logger initialization failed\n");
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
