#include "driver/runsequence.h"

#include <Poco/Exception.h>
#include <Poco/File.h>
#include <limits.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <memory>
#include <string>

#include "args/commandlineargs.h"
#include "deployer/detach.h"
#include "deployer/patcher.h"
#include "deployer/runloop.h"
#include "driver/toolstopper.h"
#include "healthstatus/patchstatushelper.h"
#include "manifest/deploymentmanifest.h"
#include "results/finalresult.h"
#include "results/interimgenerator.h"
#include "results/interimresults.h"
#include "results/jobruninfo.h"
#include "util/log.h"
#include "zelkor/agent.h"
#include "zelkor/logger.h"
#include "zelkor/strerror.h"

namespace patchmgmt {

namespace {

using protobuf::CommandlineArgsInProtoBuf;

// Exit statuses that the agent reads.
constexpr int kSucceeded = 0;
constexpr int kManifestNotParsed = 45;
constexpr int kInvalidArguments = 46;
constexpr int kUnexpectedException = 47;
constexpr int kLoggingUnavailable = 53;
constexpr int kJobNotFound = 62;

// Buffers from this size on are mapped on their own (KeepLargeBuffersOffTheHeap).
constexpr int kLargeBufferBytes = 128 * 1024;

// The agent's log directory. The log configuration decides where the file
// really goes; this is what its ${logdir} stands for.
const std::string kLogDirectory = "/var/log/zelkor/";

// The shortest interim period the agent may ask for; the check is on 59 so
// that 60 itself passes.
constexpr uint64_t kLongestRejectedInterimSeconds = 59;

// What the run keeps from the argument file once it has been validated.
struct RunContext {
  // Shared with the patcher for the rest of the run.
  std::shared_ptr<CommandlineArgsInProtoBuf> arguments;

  std::string jobID;
  uint64_t runID = 0;
  std::string vendorID;
  std::string manifestID;
  std::string manifestDirectoryPath;
  std::string statusDBPath;
  std::string ahsMessageDir;
  std::string resultDirectory;

  bool isInterimResultEnable = false;
  std::string interimResultDir;
  uint64_t interimResultGenerateTimeInSeconds = 0;

  std::string ManifestPath() const { return manifestDirectoryPath + "/" + manifestID + ".json"; }
  std::string ScriptOutputPath() const { return resultDirectory + "/scriptOutput.json"; }
};

// ---- Process set-up (before the logger exists, failures go to stderr) ----

// A script's output arrives in buffers of megabytes, one package after the
// other. glibc raises its mmap threshold to the size of the largest block
// freed so far, after which such buffers come from the heap, fragment it and
// are never handed back: a job of many failing packages would keep growing.
// A fixed threshold keeps every large buffer mapped on its own and returned
// to the system when it is freed.
void KeepLargeBuffersOffTheHeap() { mallopt(M_MMAP_THRESHOLD, kLargeBufferBytes); }

void ClearStopFlags() {
  ToolStopper::Set(ToolStopper::stopSignal_, false);
  ToolStopper::Set(ToolStopper::isPatchingOn_, false);
  ToolStopper::Set(ToolStopper::sigUsr1Recv_, false);
}

std::string LogConfigPath() { return zagent::GetConfigBaseDirPath() + "/" + "zagent-patchmgmt-log.conf"; }

mode_t previousFileCreationMask = 0;

void RestoreFileCreationMask() { umask(previousFileCreationMask); }

// Files the run leaves behind must not be writable by group or others: a
// result document anyone could rewrite could fake an outcome.
void MaskGroupAndOtherWrite() {
  previousFileCreationMask = umask(kFileCreationMask);
  std::atexit(RestoreFileCreationMask);
}

// kSucceeded, or kLoggingUnavailable once the reason is on stderr.
int SetUpLogging(const std::string& configPath) {
  if (!Poco::File(configPath).exists()) {
    std::cerr << "Error: Log config file : " << configPath << " doesn't exit" << std::endl;
    return kLoggingUnavailable;
  }
  if (!util::logger::InitializeLogger(configPath, kLogDirectory)) {
    std::cerr << "Error: Logger initialization failed" << std::endl;
    return kLoggingUnavailable;
  }
  return kSucceeded;
}

// ---- Argument checks (each returns kSucceeded or the status to end with) ----

int Usage(const char* program) {
  PM_ERROR("Usage: " << (program != nullptr ? program : "") << " <arg file name>");
  return kInvalidArguments;
}

int LoadArguments(const std::string& path, RunContext& context) {
  context.arguments = std::make_shared<CommandlineArgsInProtoBuf>();
  if (!context.arguments->LoadFromFile(path)) {
    PM_ERROR("Error in deserializing protobuf format input file: " << path);
    return kInvalidArguments;
  }
  return kSucceeded;
}

int CheckOperationType(const RunContext& context, const char* program) {
  if (context.arguments->GetArguments().operationtype() != protobuf::pb::CommandlineArguments::PATCH) {
    return Usage(program);
  }
  return kSucceeded;
}

int ValidateArguments(const RunContext& context) {
  context.arguments->LogArguments();
  if (!context.arguments->Validate()) {
    PM_ERROR("Argument validation failed for patch execution. Exiting.");
    return kInvalidArguments;
  }
  return kSucceeded;
}

// Relative paths were checked against the directory the tool was started in;
// the detached run works in "/", so from here on they are used in full.
void ResolveRelativePaths(RunContext& context) {
  char directory[PATH_MAX];
  if (getcwd(directory, sizeof directory) == nullptr) {
    PM_ERROR("Failed to read the working directory, relative paths stay as given: " << util::strerror(errno));
    return;
  }
  context.arguments->ResolveRelativePaths(directory);
}

void CopyArguments(RunContext& context) {
  const protobuf::pb::PatchArguments& patch = context.arguments->GetPatchArguments();
  context.jobID = patch.jobid();
  context.runID = patch.runid();
  context.vendorID = patch.vendorid();
  context.manifestID = patch.manifestid();
  context.manifestDirectoryPath = patch.manifestdirectorypath();
  context.statusDBPath = patch.statusdbpath();
  context.ahsMessageDir = patch.ahsmessagedir();
  context.resultDirectory = patch.resultdirectory();

  const protobuf::pb::InterimResultOptions& interim = patch.interimresultoption();
  context.isInterimResultEnable = interim.isinterimresultenable();
  context.interimResultDir = interim.interimresultdir();
  context.interimResultGenerateTimeInSeconds = interim.interimresultgeneratetimeinseconds();
}

// Validation already required the directory; it may have gone since. Only
// the last level is created: a missing parent is a misconfigured agent, and
// the exception ends the run.
void EnsureResultDirectory(const RunContext& context) {
  Poco::File directory(context.resultDirectory);
  if (!directory.exists()) directory.createDirectory();
}

// Checked whether or not interim results are enabled: the agent always sends
// a period, and one that is missing or too short means a broken request.
int CheckInterimInterval(const RunContext& context) {
  if (context.interimResultGenerateTimeInSeconds <= kLongestRejectedInterimSeconds) {
    PM_ERROR("Interim result interval must be greater than 60.");
    return kInvalidArguments;
  }
  return kSucceeded;
}

// Everything between the started logger and the armed stop flags. The checks
// run in order and the first failure ends the run without any file written.
int PrepareRun(int argc, char** argv, RunContext& context) {
  const char* program = argc > 0 ? argv[0] : nullptr;
  if (argc != 2) return Usage(program);
  InstallSignalHandlers();

  const std::string argumentFile = argv[1];
  if (int status = LoadArguments(argumentFile, context); status != kSucceeded) return status;
  if (int status = CheckOperationType(context, program); status != kSucceeded) return status;
  if (int status = ValidateArguments(context); status != kSucceeded) return status;
  ResolveRelativePaths(context);
  CopyArguments(context);
  EnsureResultDirectory(context);
  return CheckInterimInterval(context);
}

// From here on SIGTERM alone no longer ends the tool: a stop during patching
// must go through SIGUSR1 so that the patcher can end between packages.
void ArmPatching() { ToolStopper::Set(ToolStopper::isPatchingOn_, true); }

// ---- The job, in the detached child ----

// Wall-clock times of the run as the result documents report them.
class RunStopwatch {
 public:
  RunStopwatch() : start_(Now()) {}
  void Stop() { end_ = Now(); }
  uint64_t StartMilliseconds() const { return Milliseconds(start_); }
  uint64_t EndMilliseconds() const { return Milliseconds(end_); }
  uint64_t ElapsedMilliseconds() const { return Milliseconds(end_) - Milliseconds(start_); }

 private:
  static int64_t Now() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
  }
  static uint64_t Milliseconds(int64_t nanoseconds) { return static_cast<uint64_t>(nanoseconds / 1000000); }

  int64_t start_;
  int64_t end_ = 0;
};

// Leaves the agent: only the detached child returns from here.
void Detach(const RunContext& context) {
  char runId[32];
  std::snprintf(runId, sizeof runId, "%ld", static_cast<long>(context.runID));
  DetachPatchProcess(context.resultDirectory, context.jobID, runId);
}

// The status database is opened by the process that writes to it: the
// detached child.
void OpenStatusDatabase(const RunContext& context) {
  PatchStatusHelper::SetStatusPaths(context.ahsMessageDir, context.statusDBPath);
}

// Parses the manifest and copies out the job to run. kSucceeded, 45 or 62.
int LoadJob(const RunContext& context, DeploymentJob& job, uint64_t& manifestInstanceId) {
  auto manifest = std::make_shared<DeploymentJobManifest>(context.vendorID);
  const std::string path = context.ManifestPath();
  if (manifest->ParseManifest(path) != kManifestOk) {
    PM_ERROR("Failed to parse deployment manifest: " << path);
    return kManifestNotParsed;
  }
  PM_DEBUG("Successfully parsed manifest: " << path);
  if (!FindDeploymentJob(*manifest, context.jobID, context.runID, job)) {
    PM_ERROR("Failed to find jobId: " << context.jobID);
    return kJobNotFound;
  }
  PM_DEBUG("Found jobid and runId in job manifest");
  manifestInstanceId = manifest->manifestInstanceId;
  return kSucceeded;
}

// The agent's receipt time is only reported for jobs that ask for telemetry.
JobRunInfo MakeJobRunInfo(const RunContext& context, const DeploymentJob& job, uint64_t manifestInstanceId,
                          uint64_t startMilliseconds) {
  const protobuf::pb::PatchArguments& patch = context.arguments->GetPatchArguments();
  return JobRunInfo{context.jobID,
                    manifestInstanceId,
                    context.runID,
                    context.vendorID,
                    startMilliseconds,
                    0,
                    patch.agentdetails().agentversion(),
                    job.sendJobTelemetryData ? patch.jobrecvtime() : std::string()};
}

// Runs the patcher with the interim generator beside it and writes the final
// result document. The patcher's code, or 49 when the document failed.
int DeployJob(const RunContext& context, DeploymentJob& job, uint64_t manifestInstanceId) {
  deployer::ScriptSettings settings;
  settings.deploymentScriptPath = context.arguments->GetDeploymentScriptPath();
  settings.scriptOutputPath = context.ScriptOutputPath();
  auto patcher = std::make_shared<deployer::Patcher>(settings);

  RunStopwatch stopwatch;
  JobRunInfo jobRunInfo = MakeJobRunInfo(context, job, manifestInstanceId, stopwatch.StartMilliseconds());
  // Declared after jobRunInfo, which it reads, so that it is stopped and
  // joined first on every way out, an exception included.
  std::shared_ptr<InterimResultGeneratorThread> interimGenerator;
  if (context.isInterimResultEnable) {
    // The generator counts its period in 32 bits. A longer period is the
    // longest it can count, never the period modulo 2^32: 2^32 s would wrap
    // to 0 and write documents as fast as the disk takes them.
    const uint32_t period = static_cast<uint32_t>(
        std::min<uint64_t>(context.interimResultGenerateTimeInSeconds, std::numeric_limits<uint32_t>::max()));
    // Each period: health-status records that could not be written before
    // are retried first, then the interim document is written.
    InterimResultGeneratorThread::PeriodSteps steps{
        [] { PatchStatusHelper::FlushQueuedStatuses(); },
        [&jobRunInfo, &context] {
          GenerateInterimResult(InterimResults::instance_, jobRunInfo, context.interimResultDir);
        }};
    interimGenerator = std::make_shared<InterimResultGeneratorThread>(period, true, std::move(steps));
    interimGenerator->Start();
  }

  deployer::PatchResultMap results;
  const deployer::StopControl stop{&ToolStopper::sigUsr1Recv_, EndIfStopRequested};
  int code =
      deployer::RunPatchDeployment(patcher, results, context.arguments, job, InterimResults::instance_, stop);
  stopwatch.Stop();
  // Only the end time changes: the generator may be reading the rest.
  jobRunInfo.endTime = stopwatch.EndMilliseconds();
  if (GenerateFinalResult(context.resultDirectory, jobRunInfo, results) != kSucceeded)
    code = kResultWriteFailed;
  PM_INFO("Patching finished. Total time (seconds) of patching: " << stopwatch.ElapsedMilliseconds() / 1000);
  interimGenerator.reset();
  return code;
}

// The job itself: detach from the agent, parse the manifest and find the job,
// run the patcher, write the final result document. Returns the tool's code.
int RunPatchJob(RunContext& context, bool& detached) {
  Detach(context);
  detached = true;
  OpenStatusDatabase(context);
  DeploymentJob job;
  uint64_t manifestInstanceId = 0;
  if (int status = LoadJob(context, job, manifestInstanceId); status != kSucceeded) return status;
  return DeployJob(context, job, manifestInstanceId);
}

// The one way out once the arguments were accepted. After the detach the
// exit-code file is the only way the outcome reaches the agent, and health
// records that never reached the database go to a message file rather than
// being lost with the process.
int FinishRun(int code, bool detached) {
  if (detached) {
    PatchStatusHelper::SaveQueuedStatuses();
    ExitCodeFile::exitCode_ = code;
    ExitCodeFile::Save();
  }
  PM_DEBUG("Tool execution return code: " << code);
  PM_INFO("Tool execution completed");
  return code;
}

}  // namespace

int RunTool(int argc, char** argv) {
  RecordInheritedDescriptors();
  KeepLargeBuffersOffTheHeap();
  bool detached = false;
  try {
    ClearStopFlags();
    const std::string logConfigPath = LogConfigPath();
    zagent::LOGGER_NAME = "zelkor-patchmgmt-tool";
    MaskGroupAndOtherWrite();
    if (int status = SetUpLogging(logConfigPath); status != kSucceeded) return status;
    PM_INFO("Started tool execution");

    RunContext context;
    if (int status = PrepareRun(argc, argv, context); status != kSucceeded) return status;
    ArmPatching();
    const int code = RunPatchJob(context, detached);
    return FinishRun(code, detached);
  } catch (const Poco::Exception& e) {
    PM_WARNING("Exception: patchmgmt-tool:main. " << e.displayText());
    return FinishRun(kUnexpectedException, detached);
  } catch (const std::exception& e) {
    PM_WARNING("Exception: patchmgmt-tool:main. " << e.what());
    return FinishRun(kUnexpectedException, detached);
  } catch (...) {
    return kUnexpectedException;
  }
}

}  // namespace patchmgmt
