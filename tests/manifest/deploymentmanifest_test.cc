#include "manifest/deploymentmanifest.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "support/sandbox.h"

namespace patchmgmt {
namespace {

using pmtest::HasLogLine;
using pmtest::LogLine;

// The manifests that both the parser and docs/manifest.schema.json judge
// (tests/manifest/schema_cases_test.py does the schema's part). The folder
// says who accepts a file: "valid" both, "invalid" neither, and the two
// others only one of them, where JSON Schema or its validator cannot follow
// the parser (docs/manifest.md lists why).
using Folders = std::vector<std::string>;
const Folders kAcceptedFolders = {"valid", "schema-only-invalid"};
const Folders kRejectedFolders = {"invalid", "parser-only-invalid"};

std::string CasePath(const std::string& name) { return std::string(PM_MANIFEST_CASES) + "/" + name; }

// "folder/file.json" of every case in `folders`, sorted; none of them may be empty.
std::vector<std::string> CaseNames(const Folders& folders) {
  std::vector<std::string> names;
  for (const std::string& folder : folders) {
    const size_t before = names.size();
    for (const auto& entry : std::filesystem::directory_iterator(CasePath(folder)))
      names.push_back(folder + "/" + entry.path().filename().string());
    EXPECT_GT(names.size(), before) << folder;
  }
  std::sort(names.begin(), names.end());
  return names;
}

class ManifestParseTest : public pmtest::LogCaptureTest {
 protected:
  int32_t ParseCase(const std::string& name) {
    manifest_ = DeploymentJobManifest("v1");
    return manifest_.ParseManifest(CasePath(name));
  }

  int32_t ParseText(const std::string& text) {
    manifest_ = DeploymentJobManifest("v1");
    pmtest::WriteTextFile(path_, text);
    return manifest_.ParseManifest(path_);
  }

  size_t CountPriority(const std::string& priority) const {
    const auto log = Log();
    return std::count_if(log.begin(), log.end(),
                         [&](const LogLine& line) { return line.priority == priority; });
  }

  std::string path_ = dir_.Join("manifest1.json");
  DeploymentJobManifest manifest_;
};

// Every field of the model, and the debug lines that dump it.
TEST_F(ManifestParseTest, FillsEveryFieldOfTheModelAndKeepsFileOrder) {
  const std::string path = CasePath("valid/every-key.json");
  ASSERT_EQ(ParseCase("valid/every-key.json"), kManifestOk);
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
  EXPECT_TRUE(HasLogLine(log, "[Patch]:Deployment manifest content: " + pmtest::ReadTextFile(path), "Trace"));
  EXPECT_TRUE(
      HasLogLine(log, "[Patch]:type provided: install for linux job is not valid. supports only \"INSTALL\"",
                 "Warning"));
  std::vector<std::string> debug;
  for (const LogLine& line : log) {
    if (line.priority == "Debug") debug.push_back(line.text);
  }
  EXPECT_EQ(debug,
            (std::vector<std::string>{
                "[Patch]:Parsing Deployment manifest: " + path,
                "[Patch]:Dumping DeploymentManifest: ",
                "schemaversion: 3\nmanifestInstanceID: 18446744073709551615\n",
                "[Patch]:Deployment Job: [JobId,RunId,Type,IsImmediate,DateTime,IgnoreTimeout, Timeout]: "
                "[job1, -1, INSTALL, 1, 2026-01-02T03:04:05.000Z, 0, 90]",
                "[Patch]:Deployment patch:[zpatchid]: [P1]",
                "[Patch]:Deployment patch:[zpatchid]: [P2]",
                "[Patch]:Deployment manifest: " + path + " parsed successfully",
            }));
}

TEST_F(ManifestParseTest, EveryCaseOfTheAcceptedFoldersParses) {
  for (const std::string& name : CaseNames(kAcceptedFolders)) EXPECT_EQ(ParseCase(name), kManifestOk) << name;
}

TEST_F(ManifestParseTest, RequiredKeyMissingOrMistypedFailsWithOneMessageFromItsLevel) {
  const std::string schema = "integer field schemaversion in deployement manifest";
  const std::string runId = "integer field runid in jobs in manifest";
  const std::string timeout = "integer field timeout in jobs in manifest";
  const std::string isImmediate = "bool field isimmediate in jobs in manifest";
  const std::string downloadInfo = "packagesbyarch in downloadinfo of manifest";
  const std::string architecture = "string field architecture in packagesbyarch in manifest";
  const std::string postDeployment = "object field postdeployment in jobs in manifest";
  const std::string notJson = "[Patch]:Not valid json document for Deployemnt manifest json.";
  // Every rejected case and its error, whole or after "[Patch]:Failed to
  // find "; empty: none of its own. The error shows that a file fails for the
  // reason its name gives and not for a slip elsewhere in it.
  const std::map<std::string, std::string> errors = {
      {"invalid/root-not-an-object.json", notJson},
      {"invalid/schemaversion-missing.json", schema},
      {"invalid/manifestinstanceid-negative.json", schema},
      {"invalid/manifestinstanceid-beyond-uint64.json", schema},
      {"invalid/jobs-not-an-array.json", "array field jobs in deployement manifest"},
      {"invalid/job-not-an-object.json", "[Patch]:Element of jobs in manifest is not an object"},
      {"invalid/job-id-not-a-string.json", "string field id in jobs in manifest"},
      {"invalid/runid-beyond-int32.json", runId},
      {"invalid/type-missing.json", "string field type in jobs in manifest"},
      {"invalid/type-install-up-to-a-nul-is-checked-as-install.json", isImmediate},
      {"invalid/isimmediate-a-string.json", isImmediate},
      {"invalid/datetime-null.json", "string field datetime in jobs in manifest"},
      {"invalid/timeout-missing.json", timeout},
      {"invalid/timeout-missing-ignoretimeout-a-string.json", timeout},
      {"invalid/continueafterpackagefailedforpatch-a-number.json",
       "bool field continueafterpackagefailedforpatch in jobs in manifest"},
      {"invalid/patches-missing.json", "object patches in jobs in manifest"},
      {"invalid/patches-not-an-array.json", "array field patches in patches in manifest"},
      {"invalid/patch-not-an-object.json", "[Patch]:Element of patches in manifest is not an object"},
      {"invalid/zpatchid-missing.json", "string field zpatchid in patches in manifest"},
      {"invalid/downloadinfo-not-an-array.json", "array field downloadinfo in patches in manifest"},
      {"invalid/rebootrequire-a-number.json", "bool field rebootrequire in patches in manifest"},
      {"invalid/first-downloadinfo-not-an-object.json", downloadInfo},
      {"invalid/packagesbyarch-missing.json", downloadInfo},
      {"invalid/packagesbyarch-element-not-an-object.json", architecture},
      {"invalid/architecture-missing.json", architecture},
      {"invalid/packages-not-an-array.json", "array field packages in packagesbyarch in manifest"},
      {"invalid/package-name-not-a-string.json", ""},
      {"invalid/postdeployment-missing.json", postDeployment},
      {"invalid/postdeployment-not-an-object.json", postDeployment},
      {"invalid/suppressreboots-missing.json", "bool field suppressreboots in postdeployment in manifest"},
      {"invalid/rebootcountdown-without-minutesinterval.json",
       "[Patch]:Failed to find: minutesinterval in rebootcountdown in manifest"},
      {"parser-only-invalid/integer-written-with-a-fraction.json", runId},
      {"parser-only-invalid/key-given-twice-first-one-counts.json", runId},
      {"parser-only-invalid/lone-surrogate-escape.json", notJson},
      {"parser-only-invalid/nan-is-not-json.json", notJson},
      {"parser-only-invalid/number-beyond-a-double.json", notJson},
  };
  std::vector<std::string> tabled;
  for (const auto& [name, message] : errors) tabled.push_back(name);
  EXPECT_EQ(CaseNames(kRejectedFolders), tabled) << "every rejected case file and only those";
  for (const auto& [name, message] : errors) {
    SCOPED_TRACE(name);
    CaptureLog();
    EXPECT_EQ(ParseCase(name), kManifestInvalid);
    EXPECT_EQ(CountPriority("Error"), message.empty() ? 0u : 1u);
    const std::string full = message[0] == '[' ? message : "[Patch]:Failed to find " + message;
    EXPECT_EQ(HasLogLine(Log(), full, "Error"), !message.empty());
    EXPECT_FALSE(pmtest::HasLogPrefix(Log(), "[Patch]:Dumping"));
  }
}

TEST_F(ManifestParseTest, OptionalKeysOfTheWrongTypeCountAsAbsent) {
  ASSERT_EQ(ParseCase("valid/optional-keys-of-other-types-count-as-absent.json"), kManifestOk);
  const DeploymentJob& job = manifest_.jobs.at(0);
  // "ignoretimeout": "true" is no bool, so the time limit was read after all.
  EXPECT_FALSE(job.ignoreTimeout);
  EXPECT_EQ(job.timeout, 60);
  EXPECT_FALSE(job.uploadProgressReports || job.sendJobTelemetryData);
  const PostDeployment& post = job.postDeployment;
  const DownloadInfo& info = job.patches.at(0).downloadInfo;
  EXPECT_EQ(job.preDeployment.message + job.duringDeployment.message + post.rebootOption.message +
                post.onComplete.message + job.patches[0].vendorPatchId + info.downloadUrl + info.platform,
            "");
  EXPECT_EQ(post.rebootOption.deferment.count + post.rebootCountdown.minutesInterval + info.langId, 0);
  EXPECT_TRUE(info.hashes.empty());
  // Hash entries that are not objects carry nothing and break nothing.
  ASSERT_EQ(job.patches.at(1).downloadInfo.hashes.size(), 1u);
  EXPECT_EQ(job.patches[1].downloadInfo.hashes[0].type, "MD5");

  // An ignored time limit is not even read, whatever the file says.
  ASSERT_EQ(ParseCase("valid/ignoretimeout-true-timeout-not-read.json"), kManifestOk);
  EXPECT_TRUE(manifest_.jobs.at(0).ignoreTimeout);
  EXPECT_EQ(manifest_.jobs[0].timeout, 0);

  // A string ends at its first NUL, and so "type" is compared up to there.
  ASSERT_EQ(ParseCase("valid/strings-end-at-a-nul.json"), kManifestOk);
  EXPECT_EQ(manifest_.jobs.at(0).type + "|" + manifest_.jobs[0].patches.at(0).patchId, "INSTALL|P1");

  // A job of another type is skipped before its other keys are looked at.
  CaptureLog("trace");
  ASSERT_EQ(ParseCase("valid/other-type-jobs-are-skipped.json"), kManifestOk);
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
  const std::vector<std::string> texts = {"{\"schemaversion\": 1,}", "{} {}", std::string("{}\0{}", 5),
                                          "\"{}\"", deep};
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
