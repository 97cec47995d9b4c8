// The final and the interim result documents, and the thread that writes
// an interim document each period.
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <memory>
#include <regex>
#include <set>
#include <thread>

#include "results/finalresult.h"
#include "results/interimgenerator.h"
#include "results/resultdocument.h"
#include "support/faultyfs.h"
#include "support/sandbox.h"
#include "zelkor/filerep.h"

namespace patchmgmt {
namespace {

using namespace std::chrono_literals;
using deployer::FailedPackage;
using deployer::PatchResult;
using deployer::PatchResultMap;

// A job whose run id is the largest the agent can send.
inline JobRunInfo SampleJob() {
  JobRunInfo job;
  job.jobId = "J1";
  job.manifestInstanceId = 42;
  job.runId = 18446744073709551615ULL;
  job.vendorId = "v1";
  job.startTime = 0;
  job.endTime = 1709622489123ULL;  // in the final document only
  job.agentVersion = "1.2.3";
  job.jobReceivedDateTime = "2024-03-05T07:00:00.000Z";
  return job;
}

// One patch per outcome. The document lists them in byte-wise patch-id order
// ("P10" < "P2" < "p1").
PatchResultMap SampleResults() {
  auto make = [](bool failed, bool alreadyInstalled, bool notApplicable, int64_t executionTime) {
    auto result = std::make_shared<PatchResult>();
    result->failed = failed;
    result->alreadyInstalled = alreadyInstalled;
    result->notApplicable = notApplicable;
    result->executed = executionTime != 0;
    result->executionTime = executionTime;
    return result;
  };
  PatchResultMap results{{"p1", make(false, false, false, 0)},     {"P2", make(true, false, false, 55)},
                         {"P10", make(false, false, false, 1234)}, {"P3", make(true, true, true, 7)},
                         {"P4", make(true, false, true, 0)},       {"P5", nullptr}};
  PatchResult& failed = *results["P2"];
  failed.size = 2048;
  failed.successPackages = {"ok"};
  failed.pendingExecutionPackages = {"later"};
  failed.alreadyInstalledPackages = {"old"};
  failed.notApplicablePackages = {"na"};
  failed.failedPackages = {FailedPackage{3, "bad1", "", ""}, FailedPackage{-1, "bad2", "y", "x"},
                           FailedPackage{100, "bad3", "only error", ""},
                           FailedPackage{4, "bad4", "", "line1\n\"q\""}};
  results["P10"]->size = 10;
  results["P10"]->successPackages = {"b", "a"};
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

// Text that needs no escaping is copied as it stands; any other goes through
// RapidJSON's escaping. Either way the document must hold exactly what
// RapidJSON's writer makes of the value, wherever a special byte sits
// within or across the eight-byte steps of the check.
TEST(ResultWriterTest, WritesEveryValidStringAsRapidJsonDoes) {
  const std::string specials[] = {"\"", "\\", "\n", "\x1f",     std::string(1, '\0'), "\x7f",
                                  " ",  "~",  "/",  "\xC3\xA9", "\xE2\x82\xAC",       ""};
  for (size_t length = 0; length <= 17; ++length) {
    for (size_t at = 0; at <= length; ++at) {
      for (const std::string& special : specials) {
        std::string text(length, 'a');
        text.insert(at, special);
        rapidjson::StringBuffer ours;
        ResultWriter out(ours);
        out.StartObject();
        out.Key("k");
        out.String(text);
        out.EndObject();
        rapidjson::StringBuffer theirs;
        rapidjson::Writer<rapidjson::StringBuffer> writer(theirs);
        writer.StartObject();
        writer.Key("k");
        writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
        writer.EndObject();
        ASSERT_EQ(std::string(ours.GetString(), ours.GetSize()),
                  std::string(theirs.GetString(), theirs.GetSize()))
            << "length " << length << ", special byte at " << at;
      }
    }
  }
}

std::string Sha256(const std::string& text) {
  std::string digest;
  EXPECT_EQ(FileRep::calculateDigest(FileRep::kDigestSha256, text.data(), text.size(), digest, true), 0);
  return digest;
}

// The result object of an interim document as its digest sees it: the
// document must end with "endDateTime", which the digest leaves out.
std::string ObjectWithoutEndTime(const std::string& text) {
  static const std::regex kDocument(
      R"(\{"deploymentResult":(\{.*),"endDateTime":"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z"\}\})");
  std::smatch match;
  EXPECT_TRUE(std::regex_match(text, match, kDocument)) << text;
  return match.empty() ? "" : match[1].str() + "}";
}

struct InterimFile {
  std::string name;
  int64_t seconds;
  std::string digest;
};

// The final interim files of a directory. Any other name fails the test, and
// so does a temporary file unless a generation may be under way.
std::vector<InterimFile> InterimFiles(const std::string& dir, bool generating = false) {
  static const std::regex kName(R"(PatchInterimResult_(\d+)_([0-9a-f]{64})\.json)");
  std::vector<InterimFile> files;
  for (const auto& name : pmtest::ListDir(dir)) {
    std::smatch match;
    if (std::regex_match(name, match, kName)) {
      files.push_back({name, std::stoll(match[1]), match[2]});
    } else if (!generating || name.find(".tmp") == std::string::npos) {
      ADD_FAILURE() << "unexpected file " << name;
    }
  }
  return files;
}

TEST(WriteInterimResultTest, WritesOneArrayPerStateNamedByTimeAndDigest) {
  pmtest::TempDir dir;
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

  const int64_t before = std::time(nullptr);
  ASSERT_TRUE(WriteInterimResult(snapshot, SampleJob(), dir.path()));
  const int64_t after = std::time(nullptr);
  ASSERT_EQ(InterimFiles(dir.path()).size(), 1u);
  const InterimFile first = InterimFiles(dir.path())[0];
  EXPECT_GE(first.seconds, before);
  EXPECT_LE(first.seconds, after);
  const std::string object = ObjectWithoutEndTime(pmtest::ReadTextFile(dir.Join(first.name)));
  EXPECT_EQ(
      object,
      R"({"jobId":"J1","manifestInstanceId":42,"runId":18446744073709551615,"vendorId":"v1",)"
      R"("agentVersion":"1.2.3","startDateTime":"1970-01-01T00:00:00.000Z",)"
      R"("jobReceivedDateTime":"2024-03-05T07:00:00.000Z",)"
      R"("resultType":"INTERIM","pendingExecution":["a-pending"],"executing":["b-exec"],)"
      R"("pendingReboot":["c-reboot"],"pendingVerification":["d-verify"],"success":["e-success","e2-success"],)"
      R"("failed":[{"id":"f-failed","reason":0,"osstatus":0,"httpstatus":0,"size":0,"successPackages":[],)"
      R"("pendingExecutionPackages":[],"alreadyInstalledPackages":[],"notApplicablePackages":[],)"
      R"("failedPackages":[]}],"alreadyInstalled":["i-installed"],)"
      R"("superseded":[{"patchId":"g-superseded","supersedingPatchId":"g2"}],"notApplicable":["h-na"]})");
  EXPECT_EQ(Sha256(object), first.digest);

  // Equal content gives the same digest whenever it is written (within one
  // second the later document replaces the earlier); other content another.
  auto digests = [&dir] {
    std::set<std::string> found;
    for (const auto& file : InterimFiles(dir.path())) found.insert(file.digest);
    return found;
  };
  std::this_thread::sleep_for(5ms);
  ASSERT_TRUE(WriteInterimResult(snapshot, SampleJob(), dir.path()));
  EXPECT_EQ(digests(), std::set<std::string>{first.digest});
  add("b-exec", InterimResult(kInterimSuccess));
  ASSERT_TRUE(WriteInterimResult(snapshot, SampleJob(), dir.path()));
  EXPECT_EQ(digests().size(), 2u);

  // A document that cannot be written in full or put in place leaves nothing
  // the agent could pick up; only a failed write fails the period.
  const auto written = pmtest::ListDir(dir.path());
  add("c-reboot", InterimResult(kInterimSuccess));
  for (const auto call : {pmtest::FaultyFileSystem::kWrite, pmtest::FaultyFileSystem::kRename}) {
    pmtest::FaultyFileSystem failing(call, ENOSPC, 10);
    EXPECT_EQ(WriteInterimResult(snapshot, SampleJob(), dir.path()),
              call == pmtest::FaultyFileSystem::kRename);
    EXPECT_EQ(pmtest::ListDir(dir.path()), written) << call;
  }
}

class InterimGeneratorTest : public pmtest::LogCaptureTest {
 protected:
  void SetUp() override {
    LogCaptureTest::SetUp();
    ASSERT_EQ(mkdir(interimDir_.c_str(), 0700), 0);
  }

  // The tool's two steps: a stand-in for the health-status flush, which
  // counts, then the document.
  InterimResultGeneratorThread::PeriodSteps Steps() {
    return {[this] { ++flushes_; },
            [this] {
              documentsAfterFlush_ += flushes_ > documents_ ? 1 : 0;
              ++documents_;
              GenerateInterimResult(table_, job_, interimDir_);
            }};
  }

  bool SomeFileHolds(const std::string& fragment) {
    const auto files = InterimFiles(interimDir_, true);
    return std::any_of(files.begin(), files.end(), [&](const InterimFile& file) {
      return pmtest::ReadTextFile(interimDir_ + "/" + file.name).find(fragment) != std::string::npos;
    });
  }

  const std::string interimDir_ = dir_.Join("interim");
  const JobRunInfo job_ = SampleJob();
  InterimResults table_;
  std::atomic<int> flushes_{0};
  std::atomic<int> documents_{0};
  std::atomic<int> documentsAfterFlush_{0};
};

TEST_F(InterimGeneratorTest, WritesEachPeriodFromTheLatestStatesUntilShutdown) {
  table_.Update("P1", InterimResult(kInterimExecuting));
  InterimResultGeneratorThread generator(1, true, Steps());
  const int64_t started = std::time(nullptr);
  generator.Start();

  ASSERT_TRUE(pmtest::WaitFor([&] { return SomeFileHolds(R"("executing":["P1"])"); }, 10s));
  // A whole period passes before the first document.
  EXPECT_GE(InterimFiles(interimDir_, true).at(0).seconds, started + 1);

  table_.Update("P1", InterimResult(kInterimSuccess));
  EXPECT_TRUE(pmtest::WaitFor(
      [&] { return SomeFileHolds(R"("executing":[],)") && SomeFileHolds(R"("success":["P1"])"); }, 10s));

  generator.Shutdown();
  const auto written = pmtest::ListDir(interimDir_);
  std::this_thread::sleep_for(1500ms);
  EXPECT_EQ(pmtest::ListDir(interimDir_), written);
  EXPECT_EQ(documentsAfterFlush_, documents_.load()) << "every document comes after that period's flush";
  EXPECT_TRUE(pmtest::HasLogLine(Log(), "Generating interim result", "Information"));
}

TEST_F(InterimGeneratorTest, StopDuringTheWaitEndsItWithoutADocument) {
  table_.Update("P1", InterimResult(kInterimExecuting));
  auto generator = std::make_unique<InterimResultGeneratorThread>(60, true, Steps());
  generator->Start();
  ASSERT_TRUE(pmtest::WaitFor(
      [&] { return pmtest::HasLogLine(Log(), "Interim Result Generator Thread Started"); }, 10s));

  const auto stopRequested = std::chrono::steady_clock::now();
  generator.reset();
  // Far below the 60 s period: the wait ended on the request, not on its deadline.
  EXPECT_LT(std::chrono::steady_clock::now() - stopRequested, 30s);
  EXPECT_TRUE(pmtest::ListDir(interimDir_).empty());
  EXPECT_EQ(flushes_ + documents_, 0);

  // One that never ran goes away as well.
  InterimResultGeneratorThread neverStarted(60, true, Steps());
}

}  // namespace
}  // namespace patchmgmt
