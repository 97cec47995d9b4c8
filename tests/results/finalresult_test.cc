#include "results/finalresult.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "support/sandbox.h"
#include "testlog.h"
#include "zelkor/strerror.h"

namespace patchmgmt {
namespace {

using deployer::FailedPackage;
using deployer::PatchResult;
using deployer::PatchResultMap;

JobRunInfo SampleJob() {
  JobRunInfo job;
  job.jobId = "J1";
  job.manifestInstanceId = 42;
  job.runId = 18446744073709551615ULL;
  job.vendorId = "v1";
  job.startTime = 0;
  job.endTime = 1709622489123ULL;
  job.agentVersion = "1.2.3";
  job.jobReceivedDateTime = "2024-03-05T07:00:00.000Z";
  return job;
}

std::shared_ptr<PatchResult> Executed(int64_t executionTime) {
  auto result = std::make_shared<PatchResult>();
  result->executed = true;
  result->executionTime = executionTime;
  return result;
}

// One patch per outcome, inserted out of order: the document lists them in
// byte-wise patch-id order ("P10" < "P2" < "p1").
PatchResultMap SampleResults() {
  PatchResultMap results;
  results["p1"] = std::make_shared<PatchResult>();

  auto failed = Executed(55);
  failed->failed = true;
  failed->size = 2048;
  failed->successPackages = {"ok"};
  failed->pendingExecutionPackages = {"later"};
  failed->alreadyInstalledPackages = {"old"};
  failed->notApplicablePackages = {"na"};
  failed->failedPackages = {FailedPackage{3, "bad1", "", ""}, FailedPackage{-1, "bad2", "y", "x"},
                            FailedPackage{100, "bad3", "only error", ""},
                            FailedPackage{4, "bad4", "", "line1\n\"q\""}};
  results["P2"] = failed;

  auto success = Executed(1234);
  success->size = 10;
  success->successPackages = {"b", "a"};
  results["P10"] = success;

  auto installed = Executed(7);
  installed->alreadyInstalled = true;
  installed->notApplicable = true;
  installed->failed = true;
  results["P3"] = installed;

  auto notApplicable = std::make_shared<PatchResult>();
  notApplicable->notApplicable = true;
  notApplicable->failed = true;
  results["P4"] = notApplicable;

  results["P5"] = nullptr;
  return results;
}

const std::string kSampleDocument =
    R"({"deploymentResult":{"jobId":"J1","manifestInstanceId":42,"runId":18446744073709551615,)"
    R"("vendorId":"v1","agentVersion":"1.2.3","startDateTime":"1970-01-01T00:00:00.000Z",)"
    R"("endDateTime":"2024-03-05T07:08:09.123Z","jobReceivedDateTime":"2024-03-05T07:00:00.000Z",)"
    R"("resultType":"FINAL","success":["P10","p1"],)"
    R"("failed":[{"id":"P2","reason":0,"osstatus":0,"httpstatus":0,"size":2048,"successPackages":["ok"],)"
    R"("pendingExecutionPackages":["later"],"alreadyInstalledPackages":["old"],"notApplicablePackages":["na"],)"
    R"("failedPackages":[{"name":"bad1","exitCode":3,"errorMessage":""},)"
    R"({"name":"bad2","exitCode":-1,"errorMessage":"stdOut: [x], y"},)"
    R"({"name":"bad3","exitCode":100,"errorMessage":"only error"},)"
    R"({"name":"bad4","exitCode":4,"errorMessage":"stdOut: [line1\n\"q\"], "}]},)"
    R"({"id":"P5","reason":0,"osstatus":0,"httpstatus":0,"size":0,"successPackages":[],)"
    R"("pendingExecutionPackages":[],"alreadyInstalledPackages":[],"notApplicablePackages":[],)"
    R"("failedPackages":[]}],)"
    R"("alreadyInstalled":["P3"],"superseded":[],"notApplicable":["P4"],)"
    R"("patchExecutionTime":[{"id":"P10","duration":1234},{"id":"P2","duration":55},{"id":"P3","duration":7}],)"
    R"("pendingExecution":[],"executing":[],"pendingReboot":[],"pendingVerification":[]}})";

TEST(FinalResultTest, ListsEveryPatchUnderItsOutcome) {
  pmtest::TempDir dir;
  const std::string logPath = pmtest::LogToSandbox(dir);
  const std::string resultDir = dir.Join("results");

  ASSERT_EQ(GenerateFinalResult(resultDir, SampleJob(), SampleResults()), 0);

  const std::string path = resultDir + "/J1_18446744073709551615_status.json";
  EXPECT_EQ(pmtest::ListDir(resultDir), std::vector<std::string>{"J1_18446744073709551615_status.json"});
  EXPECT_EQ(pmtest::ReadTextFile(path), kSampleDocument);

  const auto log = pmtest::ReadLog(logPath);
  EXPECT_TRUE(pmtest::HasLogLine(log, "patch id P5 is not processed. Adding it to failed patched", "Error"));
  EXPECT_TRUE(pmtest::HasLogLine(log, "Generating patch results for jobid: J1 and runid 18446744073709551615",
                                 "Debug"));
  EXPECT_TRUE(pmtest::HasLogLine(log, "Creating resultPayload of type: FINAL in file: " + path, "Debug"));
  EXPECT_TRUE(pmtest::HasLogLine(
      log, "Generated result for jobid: J1 and runid 18446744073709551615 in file: " + path, "Debug"));
}

TEST(FinalResultTest, OptionalKeysOnlyWhenTheyHaveContentAndRewritesTheFile) {
  pmtest::TempDir dir;
  const std::string resultDir = dir.Join("nested/results");
  JobRunInfo job = SampleJob();
  job.runId = 7;
  job.startTime = 1500;
  job.jobReceivedDateTime.clear();
  const std::string path = resultDir + "/J1_7_status.json";
  const std::string header =
      R"({"deploymentResult":{"jobId":"J1","manifestInstanceId":42,"runId":7,"vendorId":"v1",)"
      R"("agentVersion":"1.2.3","startDateTime":"1970-01-01T00:00:01.500Z",)"
      R"("endDateTime":"2024-03-05T07:08:09.123Z","resultType":"FINAL",)";

  // The long document first, so that a rewrite that did not truncate would
  // leave its tail behind.
  ASSERT_EQ(GenerateFinalResult(resultDir, job, SampleResults()), 0);

  PatchResultMap notTimed;
  notTimed["A"] = std::make_shared<PatchResult>();
  notTimed["B"] = std::make_shared<PatchResult>();
  notTimed["B"]->alreadyInstalled = true;
  ASSERT_EQ(GenerateFinalResult(resultDir, job, notTimed), 0);
  EXPECT_EQ(pmtest::ReadTextFile(path),
            header + R"("success":["A"],"failed":[],"alreadyInstalled":["B"],"superseded":[],)"
                     R"("notApplicable":[],"pendingExecution":[],"executing":[],"pendingReboot":[],)"
                     R"("pendingVerification":[]}})");

  ASSERT_EQ(GenerateFinalResult(resultDir, job, PatchResultMap{}), 0);
  EXPECT_EQ(pmtest::ReadTextFile(path),
            header + R"("success":[],"failed":[],"alreadyInstalled":[],"superseded":[],"notApplicable":[],)"
                     R"("pendingExecution":[],"executing":[],"pendingReboot":[],"pendingVerification":[]}})");
  EXPECT_EQ(pmtest::ListDir(resultDir), std::vector<std::string>{"J1_7_status.json"});
}

TEST(FinalResultTest, UnopenableFileGives48) {
  pmtest::TempDir dir;
  const std::string logPath = pmtest::LogToSandbox(dir);
  const std::string path = dir.Join("J1_18446744073709551615_status.json");
  ASSERT_EQ(mkdir(path.c_str(), 0700), 0);

  EXPECT_EQ(GenerateFinalResult(dir.path(), SampleJob(), SampleResults()), kResultOpenFailed);

  EXPECT_TRUE(pmtest::HasLogLine(
      pmtest::ReadLog(logPath),
      "Failed to open file " + path + " in write mode.  error :" + util::strerror(EISDIR), "Error"));
  EXPECT_TRUE(pmtest::ListDir(path).empty());
}

TEST(FinalResultTest, FailedWriteGives49) {
  if (access("/dev/full", W_OK) != 0) GTEST_SKIP() << "no writable /dev/full";
  pmtest::TempDir dir;
  const std::string logPath = pmtest::LogToSandbox(dir);
  const std::string path = dir.Join("J1_18446744073709551615_status.json");
  // Opening succeeds, every write fails with "No space left on device".
  ASSERT_EQ(symlink("/dev/full", path.c_str()), 0);

  EXPECT_EQ(GenerateFinalResult(dir.path(), SampleJob(), SampleResults()), kResultWriteFailed);

  EXPECT_TRUE(
      pmtest::HasLogPrefix(pmtest::ReadLog(logPath), "Failed to write result in file: " + path + " error :"));
}

}  // namespace
}  // namespace patchmgmt
