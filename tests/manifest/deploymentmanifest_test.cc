#include "manifest/deploymentmanifest.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "support/sandbox.h"
#include "util/json.h"

// After util/json.h, so that the pointer helpers share its consistency hook.
#include <rapidjson/pointer.h>

namespace patchmgmt {
namespace {

using pmtest::HasLogLine;
using pmtest::LogLine;

// One job "job1" of every key the format knows, then a job of another type
// that lacks everything after "type".
const char* const kFullManifest = R"({
  "schemaversion": 3, "manifestinstanceid": 18446744073709551615,
  "jobs": [
    {"id": "job1", "runid": -1, "type": "INSTALL", "isimmediate": true, "datetime": "2026-01-02T03:04:05.000Z",
     "ignoretimeout": false, "timeout": 90, "uploadprogressreports": true,
     "continueafterpackagefailedforpatch": true, "sendJobTelemetryData": true,
     "patches": [
       {"zpatchid": "P1", "vendorpatchid": "V1", "rebootrequire": true,
        "downloadinfo": [
          {"langid": 1033, "downloadurl": "https://d/1", "platform": "linux",
           "hashesh": [{"type": "SHA256", "value": "ab"}, {"value": "cd"}],
           "packagesbyarch": [{"architecture": "x86_64", "packages": ["a.rpm", "b.rpm"]},
                              {"architecture": "aarch64", "packages": []}]},
          {"langid": 7, "packagesbyarch": [{"architecture": "ppc", "packages": ["z"]}]}]},
       {"zpatchid": "P2", "downloadinfo": [], "rebootrequire": false}],
     "predeployment": {"message": "m1", "description": "d1", "deferment": {"count": 2, "minutesinterval": 30}},
     "duringdeployment": {"message": "m2", "description": "d2"},
     "postdeployment": {"suppressreboots": false,
                        "rebootoption": {"message": "m3", "deferment": {"count": 1, "minutesinterval": 5}},
                        "rebootcountdown": {"minutesinterval": 10, "message": "m4", "description": "d4"},
                        "oncomplete": {"message": "m5"}}},
    {"id": "job2", "runid": 8, "type": "install"}]})";

// A change to the full manifest: the JSON pointer and the new value as JSON
// text, or an empty text to remove the key.
using Edit = std::pair<std::string, std::string>;

class ManifestParseTest : public pmtest::LogCaptureTest {
 protected:
  int32_t ParseText(const std::string& text) {
    manifest_ = DeploymentJobManifest("v1");
    pmtest::WriteTextFile(path_, text);
    return manifest_.ParseManifest(path_);
  }

  int32_t ParseEdited(const std::vector<Edit>& edits) {
    rapidjson::Document document;
    document.Parse(kFullManifest);
    for (const auto& [pointer, json] : edits) {
      if (json.empty()) {
        rapidjson::Pointer(pointer.c_str()).Erase(document);
        continue;
      }
      rapidjson::Document value;
      value.Parse(json.c_str());
      rapidjson::Pointer(pointer.c_str()).Set(document, static_cast<const rapidjson::Value&>(value));
    }
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    document.Accept(writer);
    return ParseText(buffer.GetString());
  }

  size_t CountPriority(const std::string& priority) const {
    const auto log = Log();
    return std::count_if(log.begin(), log.end(),
                         [&](const LogLine& line) { return line.priority == priority; });
  }

  std::string path_ = dir_.Join("manifest1.json");
  DeploymentJobManifest manifest_;
};

TEST_F(ManifestParseTest, FillsEveryFieldOfTheModelAndKeepsFileOrder) {
  ASSERT_EQ(ParseText(kFullManifest), kManifestOk);
  EXPECT_EQ(manifest_.manifestInstanceId, UINT64_MAX);
  ASSERT_EQ(manifest_.jobs.size(), 1u);
  const DeploymentJob& job = manifest_.jobs[0];
  EXPECT_TRUE(job.isImmediate && job.uploadProgressReports && job.continueAfterPackageFailedForPatch &&
              job.sendJobTelemetryData && !job.ignoreTimeout);
  ASSERT_EQ(job.patches.size(), 2u);
  EXPECT_EQ(job.patches[0].vendorPatchId + job.patches[1].patchId, "V1P2");
  EXPECT_TRUE(job.patches[0].rebootRequire);
  // Only the first download record counts.
  const DownloadInfo& info = job.patches[0].downloadInfo;
  EXPECT_EQ(std::to_string(info.langId) + info.downloadUrl + info.platform, "1033https://d/1linux");
  ASSERT_EQ(info.hashes.size(), 2u);
  EXPECT_EQ(info.hashes[0].type + info.hashes[0].value + "|" + info.hashes[1].type + info.hashes[1].value,
            "SHA256ab|cd");
  ASSERT_EQ(info.packagesByArch.size(), 2u);
  EXPECT_EQ(info.packagesByArch[0].packages, (std::vector<std::string>{"a.rpm", "b.rpm"}));
  const PostDeployment& post = job.postDeployment;
  EXPECT_EQ(job.preDeployment.description + std::to_string(job.preDeployment.deferment.minutesInterval) +
                job.duringDeployment.message + post.rebootOption.message +
                std::to_string(post.rebootCountdown.minutesInterval) + post.onComplete.message,
            "d130m2m310m5");

  const auto log = Log();
  EXPECT_TRUE(HasLogLine(log, std::string("[Patch]:Deployment manifest content: ") + kFullManifest, "Trace"));
  EXPECT_TRUE(
      HasLogLine(log, "[Patch]:type provided: install for linux job is not valid. supports only \"INSTALL\"",
                 "Warning"));
}

TEST_F(ManifestParseTest, DumpWritesTheExactLinesOnlyAtDebugOrFiner) {
  ASSERT_EQ(ParseEdited({{"/jobs/0/runid", "7"}}), kManifestOk);
  std::vector<std::string> debug;
  for (const LogLine& line : Log()) {
    if (line.priority == "Debug") debug.push_back(line.text);
  }
  EXPECT_EQ(debug,
            (std::vector<std::string>{
                "[Patch]:Parsing Deployment manifest: " + path_,
                "[Patch]:Dumping DeploymentManifest: ",
                "schemaversion: 3\nmanifestInstanceID: 18446744073709551615\n",
                "[Patch]:Deployment Job: [JobId,RunId,Type,IsImmediate,DateTime,IgnoreTimeout, Timeout]: "
                "[job1, 7, INSTALL, 1, 2026-01-02T03:04:05.000Z, 0, 90]",
                "[Patch]:Deployment patch:[zpatchid]: [P1]",
                "[Patch]:Deployment patch:[zpatchid]: [P2]",
                "[Patch]:Deployment manifest: " + path_ + " parsed successfully",
            }));
}

TEST_F(ManifestParseTest, RequiredKeyMissingOrMistypedFailsWithOneMessageFromItsLevel) {
  const std::string pba = "/jobs/0/patches/0/downloadinfo/0/packagesbyarch";
  const std::string schema = "integer field schemaversion in deployement manifest";
  const struct {
    std::vector<Edit> edits;
    std::string message;  // whole, or after "[Patch]:Failed to find "; empty: none of its own
  } cases[] = {
      {{{"/schemaversion", ""}}, schema},
      {{{"/schemaversion", "3.0"}}, schema},
      {{{"/manifestinstanceid", "-1"}}, schema},
      {{{"/jobs", "{}"}}, "array field jobs in deployement manifest"},
      {{{"/jobs/0/id", "7"}}, "string field id in jobs in manifest"},
      {{{"/jobs/0/runid", "2147483648"}}, "integer field runid in jobs in manifest"},
      {{{"/jobs/0/type", ""}}, "string field type in jobs in manifest"},
      {{{"/jobs/0/isimmediate", "\"true\""}}, "bool field isimmediate in jobs in manifest"},
      {{{"/jobs/0/datetime", "null"}}, "string field datetime in jobs in manifest"},
      {{{"/jobs/0/timeout", ""}}, "integer field timeout in jobs in manifest"},
      {{{"/jobs/0/ignoretimeout", ""}, {"/jobs/0/timeout", ""}}, "integer field timeout in jobs in manifest"},
      {{{"/jobs/0/ignoretimeout", "\"true\""}, {"/jobs/0/timeout", ""}},
       "integer field timeout in jobs in manifest"},
      {{{"/jobs/0/continueafterpackagefailedforpatch", "1"}},
       "bool field continueafterpackagefailedforpatch in jobs in manifest"},
      {{{"/jobs/0/patches", ""}}, "object patches in jobs in manifest"},
      {{{"/jobs/0/patches/0/downloadinfo/0", "1"}}, "packagesbyarch in downloadinfo of manifest"},
      {{{pba + "/0", "\"x86_64\""}}, "string field architecture in packagesbyarch in manifest"},
      {{{"/jobs/0/patches", "{}"}}, "array field patches in patches in manifest"},
      {{{"/jobs/0/postdeployment", "\"x\""}}, "object field postdeployment in jobs in manifest"},
      {{{"/jobs/0/postdeployment/suppressreboots", ""}},
       "bool field suppressreboots in postdeployment in manifest"},
      {{{"/jobs/0/postdeployment/rebootcountdown", "{}"}},
       "[Patch]:Failed to find: minutesinterval in rebootcountdown in manifest"},
      {{{"/jobs/0/patches/1/zpatchid", ""}}, "string field zpatchid in patches in manifest"},
      {{{"/jobs/0/patches/1/downloadinfo", "{}"}}, "array field downloadinfo in patches in manifest"},
      {{{"/jobs/0/patches/0/rebootrequire", "0"}}, "bool field rebootrequire in patches in manifest"},
      {{{pba, ""}}, "packagesbyarch in downloadinfo of manifest"},
      {{{pba + "/1/architecture", ""}}, "string field architecture in packagesbyarch in manifest"},
      {{{pba + "/1/packages", "\"x\""}}, "array field packages in packagesbyarch in manifest"},
      {{{pba + "/0/packages/1", "5"}}, ""},
      // Looked into, these would trip the JSON library's consistency check.
      {{{"/jobs/0", "1"}}, "[Patch]:Element of jobs in manifest is not an object"},
      {{{"/jobs/0/patches/1", "\"P2\""}}, "[Patch]:Element of patches in manifest is not an object"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.edits[0].first + " := " + c.edits[0].second);
    CaptureLog("trace");
    EXPECT_EQ(ParseEdited(c.edits), kManifestInvalid);
    EXPECT_EQ(CountPriority("Error"), c.message.empty() ? 0u : 1u);
    if (!c.message.empty()) {
      const std::string full = c.message[0] == '[' ? c.message : "[Patch]:Failed to find " + c.message;
      EXPECT_TRUE(HasLogLine(Log(), full, "Error"));
    }
    EXPECT_FALSE(pmtest::HasLogPrefix(Log(), "[Patch]:Dumping"));
  }
}

TEST_F(ManifestParseTest, OptionalKeysOfTheWrongTypeCountAsAbsent) {
  ASSERT_EQ(ParseEdited({{"/jobs/0/ignoretimeout", "true"}, {"/jobs/0/timeout", ""}}), kManifestOk);
  EXPECT_EQ(manifest_.jobs[0].timeout, 0);
  // An ignored time limit is not even read, whatever the file says.
  ASSERT_EQ(ParseEdited({{"/jobs/0/ignoretimeout", "true"}, {"/jobs/0/timeout", "30"}}), kManifestOk);
  EXPECT_TRUE(manifest_.jobs[0].ignoreTimeout);
  EXPECT_EQ(manifest_.jobs[0].timeout, 0);

  ASSERT_EQ(ParseEdited({{"/jobs/0/uploadprogressreports", "1"},
                         {"/jobs/0/predeployment", "\"x\""},
                         {"/jobs/0/postdeployment/rebootcountdown", "\"x\""},
                         {"/jobs/0/patches/0/vendorpatchid", "5"},
                         {"/jobs/0/patches/0/zpatchid", "\"P1\\u0000tail\""},
                         {"/jobs/0/patches/0/downloadinfo/0/langid", "\"5\""},
                         {"/jobs/0/patches/0/downloadinfo/0/hashesh", "{\"type\": \"SHA256\"}"},
                         {"/jobs/0/patches/0/downloadinfo/1/packagesbyarch", ""}}),
            kManifestOk);
  const DeploymentJob& job = manifest_.jobs[0];
  EXPECT_FALSE(job.uploadProgressReports);
  EXPECT_EQ(job.preDeployment.message + job.patches[0].vendorPatchId, "");
  EXPECT_EQ(job.preDeployment.deferment.count + job.postDeployment.rebootCountdown.minutesInterval +
                job.patches[0].downloadInfo.langId,
            0);
  EXPECT_EQ(job.patches[0].patchId, "P1");
  EXPECT_TRUE(job.patches[0].downloadInfo.hashes.empty());
  // Hash entries that are not objects carry nothing and break nothing.
  ASSERT_EQ(
      ParseEdited({{"/jobs/0/patches/0/downloadinfo/0/hashesh", "[\"SHA256\", 5, {\"type\": \"MD5\"}]"}}),
      kManifestOk);
  ASSERT_EQ(manifest_.jobs[0].patches[0].downloadInfo.hashes.size(), 1u);
  EXPECT_EQ(manifest_.jobs[0].patches[0].downloadInfo.hashes[0].type, "MD5");

  // A job of another type is skipped before its other keys are looked at.
  CaptureLog("trace");
  ASSERT_EQ(ParseEdited({{"/jobs/0/type", "\"UNINSTALL\""}, {"/jobs/0/isimmediate", ""}}), kManifestOk);
  EXPECT_TRUE(manifest_.jobs.empty());
  EXPECT_EQ(CountPriority("Warning"), 2u);
}

TEST_F(ManifestParseTest, UnreadableOrNonObjectFilesAreRejected) {
  const std::string missing = dir_.Join("absent.json");
  EXPECT_EQ(manifest_.ParseManifest(missing), kManifestUnreadable);
  EXPECT_TRUE(HasLogLine(Log(), "[Patch]:Error in reading manifest file content: " + missing, "Error"));
  EXPECT_EQ(ParseText(""), kManifestUnreadable);

  const std::string notJson = "[Patch]:Not valid json document for Deployemnt manifest json.";
  // Nesting far deeper than any stack frame per level would survive.
  const std::string deep = std::string(200000, '[') + std::string(200000, ']');
  const std::vector<std::string> texts = {
      "[]", "{\"schemaversion\": 1,}", "{} {}", std::string("{}\0{}", 5), "\"{}\"", deep};
  for (const std::string& text : texts) {
    SCOPED_TRACE(text);
    CaptureLog("trace");
    EXPECT_EQ(ParseText(text), kManifestInvalid);
    EXPECT_TRUE(HasLogLine(Log(), notJson, "Error"));
  }
}

TEST(FindDeploymentJobTest, TakesTheFirstJobWithTheSameIdAndSignWidenedRunId) {
  DeploymentJobManifest manifest;
  // The date-time field tells which of the jobs was copied out.
  const auto find = [&](const std::string& id, uint64_t runId) -> std::string {
    DeploymentJob job;
    return FindDeploymentJob(manifest, id, runId, job) ? job.dateTime : "none";
  };
  const std::vector<std::tuple<std::string, int32_t, std::string>> jobs = {
      {"job1", 6, "a"},  {"job1", 7, "b"},  {"job1", 7, "c"},
      {"job10", 8, "d"}, {"jobM", -1, "e"}, {"jobX", INT32_MIN, "f"}};
  for (const auto& [id, runId, dateTime] : jobs) {
    DeploymentJob& job = manifest.jobs.emplace_back();
    std::tie(job.jobId, job.runId, job.dateTime) = std::tie(id, runId, dateTime);
  }
  EXPECT_EQ(find("job1", 7), "b");
  EXPECT_EQ(find("job1", 6), "a");
  EXPECT_EQ(find("job", 8), "none");
  EXPECT_EQ(find("jobM", UINT64_MAX), "e");
  EXPECT_EQ(find("jobM", UINT32_MAX), "none");
  EXPECT_EQ(find("jobX", static_cast<uint64_t>(int64_t{INT32_MIN})), "f");
  EXPECT_EQ(find("jobX", uint64_t{1} << 31), "none");
}

}  // namespace
}  // namespace patchmgmt
