#include "results/interimgenerator.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <regex>
#include <thread>

#include "support/sandbox.h"
#include "testlog.h"
#include "util/json.h"
#include "zelkor/filerep.h"
#include "zelkor/strerror.h"

namespace patchmgmt {
namespace {

using namespace std::chrono_literals;

JobRunInfo SampleJob(const std::string& receivedTime = "2024-03-05T07:00:00.000Z") {
  JobRunInfo job;
  job.jobId = "J1";
  job.manifestInstanceId = 42;
  job.runId = 7;
  job.vendorId = "v1";
  job.startTime = 1709622489123ULL;
  job.endTime = 1709622490000ULL;  // never written to an interim document
  job.agentVersion = "1.2.3";
  job.jobReceivedDateTime = receivedTime;
  return job;
}

int64_t NowSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

std::string Sha256(const std::string& text) {
  std::string digest;
  EXPECT_EQ(FileRep::calculateDigest(FileRep::kDigestSha256, text.data(), text.size(), digest, true), 0);
  return digest;
}

// What a reader of an interim file checks: "endDateTime" is the result
// object's last key, and the digest in the name is that of the result object
// without it.
std::string DigestOfWrittenDocument(const std::string& text) {
  rapidjson::Document document;
  document.Parse(text.c_str(), text.size());
  EXPECT_FALSE(document.HasParseError()) << text;
  if (document.HasParseError() || !document.HasMember("deploymentResult")) return "";
  rapidjson::Value& result = document["deploymentResult"];
  EXPECT_EQ(std::string((result.MemberEnd() - 1)->name.GetString()), "endDateTime");
  result.EraseMember("endDateTime");
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  result.Accept(writer);
  return Sha256(std::string(buffer.GetString(), buffer.GetSize()));
}

struct InterimFile {
  std::string name;
  int64_t seconds;
  std::string digest;
};

bool IsTemporary(const std::string& name) {
  return name.size() > 4 && name.compare(name.size() - 4, 4, ".tmp") == 0;
}

// The final interim files of a directory. Any other name fails the test,
// and so does a temporary file unless a generation may be under way.
std::vector<InterimFile> InterimFiles(const std::string& dir, bool generating = false) {
  static const std::regex kName(R"(PatchInterimResult_(\d+)_([0-9a-f]{64})\.json)");
  std::vector<InterimFile> files;
  for (const auto& name : pmtest::ListDir(dir)) {
    std::smatch match;
    if (generating && IsTemporary(name)) continue;
    if (!std::regex_match(name, match, kName)) {
      ADD_FAILURE() << "unexpected file " << name;
      continue;
    }
    files.push_back({name, std::stoll(match[1]), match[2]});
  }
  return files;
}

// The temporary path that the last write announced, or "".
std::string LoggedTemporaryPath(const std::string& logPath) {
  static const std::regex kLine(R"(Using temp file name (.*/PatchInterimResult_\d+\.json\.tmp))"
                                R"( for interim result generation\.)");
  std::string path;
  for (const auto& line : pmtest::ReadLog(logPath)) {
    std::smatch match;
    if (std::regex_match(line.text, match, kLine)) path = match[1];
  }
  return path;
}

bool Logged(const std::string& logPath, const std::string& text) {
  return pmtest::HasLogLine(pmtest::ReadLog(logPath), text);
}

TEST(InterimDocumentTest, FillsOneArrayPerStateAndDigestsAllButTheEndTime) {
  InterimResultMap snapshot;
  auto add = [&snapshot](const std::string& id, InterimResult record) {
    snapshot[id] = std::make_shared<const InterimResult>(std::move(record));
  };
  add("e2-success", InterimResult(kInterimSuccess));
  add("a-pending", InterimResult(kInterimPendingExecution));
  add("b-exec", InterimResult(kInterimExecuting));
  add("c-reboot", InterimResult(kInterimPendingReboot));
  add("d-verify", InterimResult(kInterimPendingVerification));
  add("e-success", InterimResult(kInterimSuccess, 0, "", "done"));
  add("f-failed", InterimResult(kInterimFailed, 3, "", "script failed"));
  add("g-superseded", InterimResult(kInterimSuperseded, 0, "g2"));
  add("h-na", InterimResult(kInterimNotApplicable));
  add("i-installed", InterimResult(kInterimAlreadyInstalled));
  add("j-below", InterimResult(8975));
  add("k-above", InterimResult(8985));
  snapshot["l-none"] = nullptr;

  const std::string resultObject =
      R"({"jobId":"J1","manifestInstanceId":42,"runId":7,"vendorId":"v1","agentVersion":"1.2.3",)"
      R"("startDateTime":"2024-03-05T07:08:09.123Z","jobReceivedDateTime":"2024-03-05T07:00:00.000Z",)"
      R"("resultType":"INTERIM","pendingExecution":["a-pending"],"executing":["b-exec"],)"
      R"("pendingReboot":["c-reboot"],"pendingVerification":["d-verify"],"success":["e-success","e2-success"],)"
      R"("failed":[{"id":"f-failed","reason":0,"osstatus":0,"httpstatus":0,"size":0,"successPackages":[],)"
      R"("pendingExecutionPackages":[],"alreadyInstalledPackages":[],"notApplicablePackages":[],)"
      R"("failedPackages":[]}],"alreadyInstalled":["i-installed"],)"
      R"("superseded":[{"patchId":"g-superseded","supersedingPatchId":"g2"}],"notApplicable":["h-na"]})";
  const std::string emptyObject =
      R"({"jobId":"J1","manifestInstanceId":42,"runId":7,"vendorId":"v1","agentVersion":"1.2.3",)"
      R"("startDateTime":"2024-03-05T07:08:09.123Z","resultType":"INTERIM","pendingExecution":[],)"
      R"("executing":[],"pendingReboot":[],"pendingVerification":[],"success":[],"failed":[],)"
      R"("alreadyInstalled":[],"superseded":[],"notApplicable":[]})";
  const std::regex kEndTime(R"(,"endDateTime":"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z"\}\})");

  const InterimDocument full = BuildInterimDocument(snapshot, SampleJob());
  const std::string fullPrefix = R"({"deploymentResult":)" + resultObject.substr(0, resultObject.size() - 1);
  ASSERT_EQ(full.text.substr(0, fullPrefix.size()), fullPrefix);
  EXPECT_TRUE(std::regex_match(full.text.substr(fullPrefix.size()), kEndTime)) << full.text;
  EXPECT_EQ(full.digest, Sha256(resultObject));

  const InterimDocument empty = BuildInterimDocument({}, SampleJob(""));
  const std::string emptyPrefix = R"({"deploymentResult":)" + emptyObject.substr(0, emptyObject.size() - 1);
  ASSERT_EQ(empty.text.substr(0, emptyPrefix.size()), emptyPrefix);
  EXPECT_TRUE(std::regex_match(empty.text.substr(emptyPrefix.size()), kEndTime)) << empty.text;
  EXPECT_EQ(empty.digest, Sha256(emptyObject));
}

TEST(WriteInterimResultTest, NamesTheFileByTimeAndDigest) {
  pmtest::TempDir dir;
  const std::string logPath = pmtest::LogToSandbox(dir);
  const std::string interimDir = dir.Join("interim");
  ASSERT_EQ(mkdir(interimDir.c_str(), 0700), 0);
  InterimResultMap snapshot{{"P1", std::make_shared<const InterimResult>(kInterimExecuting)}};

  const int64_t before = NowSeconds();
  ASSERT_TRUE(WriteInterimResult(snapshot, SampleJob(), interimDir));
  const int64_t after = NowSeconds();

  auto files = InterimFiles(interimDir);
  ASSERT_EQ(files.size(), 1u);
  const InterimFile first = files[0];
  EXPECT_GE(first.seconds, before);
  EXPECT_LE(first.seconds, after);
  const std::string text = pmtest::ReadTextFile(interimDir + "/" + first.name);
  EXPECT_NE(text.find(R"("executing":["P1"])"), std::string::npos) << text;
  EXPECT_EQ(DigestOfWrittenDocument(text), first.digest);

  const std::string finalPath = interimDir + "/" + first.name;
  const std::string tempPath = LoggedTemporaryPath(logPath);
  EXPECT_EQ(tempPath.rfind(interimDir + "/", 0), 0u) << tempPath;
  EXPECT_TRUE(Logged(logPath, "Created digest as - " + first.digest));
  EXPECT_TRUE(Logged(logPath, "Using file name " + finalPath + " for interim result generation"));
  EXPECT_TRUE(Logged(logPath, "Renaming file " + tempPath + "  to " + finalPath));

  // Equal content gives the same digest whenever it is written; within one
  // second the later document replaces the earlier.
  std::this_thread::sleep_for(5ms);
  ASSERT_TRUE(WriteInterimResult(snapshot, SampleJob(), interimDir));
  files = InterimFiles(interimDir);
  ASSERT_GE(files.size(), 1u);
  ASSERT_LE(files.size(), 2u);
  for (const auto& file : files) EXPECT_EQ(file.digest, first.digest);

  snapshot["P1"] = std::make_shared<const InterimResult>(kInterimSuccess);
  ASSERT_TRUE(WriteInterimResult(snapshot, SampleJob(), interimDir));
  const auto changed = InterimFiles(interimDir);
  EXPECT_EQ(changed.size(), files.size() + 1);
  EXPECT_EQ(std::count_if(changed.begin(), changed.end(),
                          [&first](const InterimFile& file) { return file.digest != first.digest; }),
            1);
}

TEST(WriteInterimResultTest, FailedRenameRemovesTheTemporaryFile) {
  pmtest::TempDir dir;
  const std::string logPath = pmtest::LogToSandbox(dir);
  const InterimResultMap snapshot{{"P1", std::make_shared<const InterimResult>(kInterimFailed)}};
  const std::string interimDir = dir.Join("interim");
  ASSERT_EQ(mkdir(interimDir.c_str(), 0700), 0);
  const std::string digest = BuildInterimDocument(snapshot, SampleJob()).digest;
  // A directory at every final name the next seconds can give makes the
  // rename fail.
  const int64_t now = NowSeconds();
  for (int64_t seconds = now - 1; seconds <= now + 30; ++seconds) {
    const std::string blocker =
        interimDir + "/PatchInterimResult_" + std::to_string(seconds) + "_" + digest + ".json";
    ASSERT_EQ(mkdir(blocker.c_str(), 0700), 0);
  }
  const auto blockers = pmtest::ListDir(interimDir);

  EXPECT_TRUE(WriteInterimResult(snapshot, SampleJob(), interimDir));

  EXPECT_EQ(pmtest::ListDir(interimDir), blockers);
  const std::string tempPath = LoggedTemporaryPath(logPath);
  ASSERT_FALSE(tempPath.empty());
  EXPECT_TRUE(Logged(logPath, "Failed to rename file " + tempPath + " error :" + util::strerror(EISDIR)));
  EXPECT_TRUE(Logged(logPath, "Removing file: " + tempPath));
}

TEST(WriteInterimResultTest, MissingDirectoryFailsWithoutAFile) {
  pmtest::TempDir dir;
  const std::string logPath = pmtest::LogToSandbox(dir);
  const std::string missing = dir.Join("missing");

  EXPECT_FALSE(WriteInterimResult({}, SampleJob(), missing));

  EXPECT_FALSE(pmtest::PathExists(missing));
  const std::string tempPath = LoggedTemporaryPath(logPath);
  ASSERT_FALSE(tempPath.empty());
  EXPECT_TRUE(Logged(
      logPath, "Failed to open file " + tempPath + " in write mode.  error :" + util::strerror(ENOENT)));
}

class InterimGeneratorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    logPath_ = pmtest::LogToSandbox(dir_);
    interimDir_ = dir_.Join("interim");
    ASSERT_EQ(mkdir(interimDir_.c_str(), 0700), 0);
    InterimResults::instance_.Clear();
  }
  void TearDown() override { InterimResults::instance_.Clear(); }

  // Whether some interim file holds `fragment`.
  bool SomeFileHolds(const std::string& fragment) {
    for (const auto& name : pmtest::ListDir(interimDir_)) {
      if (IsTemporary(name)) continue;
      if (pmtest::ReadTextFile(interimDir_ + "/" + name).find(fragment) != std::string::npos) return true;
    }
    return false;
  }

  pmtest::TempDir dir_;
  std::string logPath_;
  std::string interimDir_;
  const JobRunInfo job_ = SampleJob();
};

TEST_F(InterimGeneratorTest, WritesEachPeriodFromTheLatestStatesUntilShutdown) {
  InterimResults::instance_.Update("P1", InterimResult(kInterimExecuting));
  InterimResults::instance_.Update("P2", InterimResult(kInterimPendingExecution));
  InterimResultGeneratorThread generator(job_, interimDir_, 1, true);
  const int64_t started = NowSeconds();
  generator.Start();

  ASSERT_TRUE(pmtest::WaitFor([&] { return !InterimFiles(interimDir_, true).empty(); }, 10s));
  // A whole period passes before the first document.
  const auto first = InterimFiles(interimDir_, true);
  ASSERT_FALSE(first.empty());
  EXPECT_GE(first[0].seconds, started + 1);
  EXPECT_TRUE(SomeFileHolds(R"("pendingExecution":["P2"],"executing":["P1"])"));

  InterimResults::instance_.Update("P1", InterimResult(kInterimSuccess));
  EXPECT_TRUE(pmtest::WaitFor([&] { return SomeFileHolds(R"("success":["P1"])"); }, 10s));

  generator.Shutdown();
  const auto written = pmtest::ListDir(interimDir_);
  for (const auto& file : InterimFiles(interimDir_)) {
    EXPECT_EQ(DigestOfWrittenDocument(pmtest::ReadTextFile(interimDir_ + "/" + file.name)), file.digest);
  }
  std::this_thread::sleep_for(1500ms);
  EXPECT_EQ(pmtest::ListDir(interimDir_), written);

  EXPECT_TRUE(Logged(logPath_, "Interim Result Generator Thread Started"));
  EXPECT_TRUE(Logged(logPath_, "Generating interim result"));
  EXPECT_TRUE(Logged(logPath_, "Shutting down InterimResultGeneratorThread"));
  EXPECT_TRUE(Logged(logPath_, "Interim Result Generator Thread exiting"));
}

TEST_F(InterimGeneratorTest, StopDuringTheWaitEndsItWithoutADocument) {
  InterimResults::instance_.Update("P1", InterimResult(kInterimExecuting));
  auto generator = std::make_unique<InterimResultGeneratorThread>(job_, interimDir_, 60, true);
  generator->Start();
  ASSERT_TRUE(
      pmtest::WaitFor([&] { return Logged(logPath_, "Interim Result Generator Thread Started"); }, 10s));

  const auto stopRequested = std::chrono::steady_clock::now();
  generator.reset();
  // Far below the 60 s period: the wait ended on the request, not on its deadline.
  EXPECT_LT(std::chrono::steady_clock::now() - stopRequested, 30s);

  EXPECT_TRUE(pmtest::ListDir(interimDir_).empty());
  EXPECT_FALSE(Logged(logPath_, "Generating interim result"));
  EXPECT_TRUE(Logged(logPath_, "Interim Result Generator Thread exiting"));

  // One that never ran goes away as well.
  InterimResultGeneratorThread neverStarted(job_, interimDir_, 60, true);
}

TEST_F(InterimGeneratorTest, ZeroPeriodGeneratesWithoutWaiting) {
  InterimResults::instance_.Update("P1", InterimResult(kInterimAlreadyInstalled));
  InterimResultGeneratorThread generator(job_, interimDir_, 0, true);
  generator.Start();
  ASSERT_TRUE(pmtest::WaitFor([&] { return !InterimFiles(interimDir_, true).empty(); }, 10s));
  generator.Shutdown();

  // Every generation had the same content, so every name has the same digest.
  const auto files = InterimFiles(interimDir_);
  ASSERT_FALSE(files.empty());
  for (const auto& file : files) EXPECT_EQ(file.digest, files[0].digest);
  EXPECT_TRUE(SomeFileHolds(R"("alreadyInstalled":["P1"])"));
}

}  // namespace
}  // namespace patchmgmt
