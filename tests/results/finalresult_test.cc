#include "results/finalresult.h"

#include "samplejob.h"
#include "support/faultyfs.h"
#include "support/sandbox.h"

namespace patchmgmt {
namespace {

using deployer::FailedPackage;
using deployer::PatchResult;
using deployer::PatchResultMap;

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

// The whole text pins key order, types, the always-empty arrays and which
// optional keys appear.
TEST(FinalResultTest, WritesTheWholeDocument) {
  pmtest::TempDir dir;
  const std::string resultDir = dir.Join("results");
  JobRunInfo job = SampleJob();
  const std::string path = resultDir + "/J1_18446744073709551615_status.json";

  ASSERT_EQ(GenerateFinalResult(resultDir, job, SampleResults()), 0);
  EXPECT_EQ(pmtest::ListDir(resultDir), std::vector<std::string>{"J1_18446744073709551615_status.json"});
  EXPECT_EQ(pmtest::ReadTextFile(path), kSampleDocument);

  // No patch executed and no job-received time: both keys go, and the shorter
  // document leaves nothing of the longer one behind.
  job.startTime = 1500;
  job.jobReceivedDateTime.clear();
  PatchResultMap notTimed{{"A", std::make_shared<PatchResult>()}, {"B", std::make_shared<PatchResult>()}};
  notTimed["B"]->alreadyInstalled = true;
  ASSERT_EQ(GenerateFinalResult(resultDir, job, notTimed), 0);
  EXPECT_EQ(pmtest::ReadTextFile(path),
            R"({"deploymentResult":{"jobId":"J1","manifestInstanceId":42,"runId":18446744073709551615,)"
            R"("vendorId":"v1","agentVersion":"1.2.3","startDateTime":"1970-01-01T00:00:01.500Z",)"
            R"("endDateTime":"2024-03-05T07:08:09.123Z","resultType":"FINAL",)"
            R"("success":["A"],"failed":[],"alreadyInstalled":["B"],"superseded":[],)"
            R"("notApplicable":[],"pendingExecution":[],"executing":[],"pendingReboot":[],)"
            R"("pendingVerification":[]}})");
}

// A document that cannot be written in full never replaces the one before.
TEST(FinalResultTest, FailedWritesGiveTheirCodeAndKeepTheEarlierDocument) {
  using pmtest::FaultyFileSystem;
  pmtest::TempDir dir;
  const std::string name = "J1_18446744073709551615_status.json";
  ASSERT_EQ(GenerateFinalResult(dir.path(), SampleJob(), {{"A", std::make_shared<PatchResult>()}}), 0);
  const std::string before = pmtest::ReadTextFile(dir.Join(name));
  const struct {
    FaultyFileSystem::Call call;
    int error;
    int code;
  } cases[] = {{FaultyFileSystem::kOpen, EACCES, kResultOpenFailed},
               {FaultyFileSystem::kWrite, ENOSPC, kResultWriteFailed},  // full after 100 bytes
               {FaultyFileSystem::kSync, EIO, kResultWriteFailed}};
  for (const auto& c : cases) {
    FaultyFileSystem failing(c.call, c.error, 100);
    EXPECT_EQ(GenerateFinalResult(dir.path(), SampleJob(), SampleResults()), c.code) << c.call;
  }
  EXPECT_EQ(pmtest::ReadTextFile(dir.Join(name)), before);
  EXPECT_EQ(pmtest::ListDir(dir.path()), std::vector<std::string>{name});
}

// Script output and names can carry any bytes; the document stays valid
// UTF-8 and keeps every valid character.
TEST(FinalResultTest, InvalidUtf8IsReplacedAndValidTextKept) {
  pmtest::TempDir dir;
  auto failed = std::make_shared<PatchResult>();
  failed->failed = true;
  failed->failedPackages = {FailedPackage{1, "caf\xE9", "d\xC3\xA9j\xC3\xA0 \xFF", "\xE2\x82z"}};
  ASSERT_EQ(GenerateFinalResult(dir.path(), SampleJob(), {{"P\xC0", failed}}), 0);
  const std::string text = pmtest::ReadTextFile(dir.Join("J1_18446744073709551615_status.json"));
  const std::string r = "\xEF\xBF\xBD";
  EXPECT_NE(text.find("\"failed\":[{\"id\":\"P" + r + "\""), std::string::npos) << text;
  EXPECT_NE(text.find("{\"name\":\"caf" + r + "\",\"exitCode\":1,\"errorMessage\":\"stdOut: [" + r +
                      "z], d\xC3\xA9j\xC3\xA0 " + r + "\"}"),
            std::string::npos)
      << text;
}

}  // namespace
}  // namespace patchmgmt
