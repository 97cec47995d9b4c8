// The deployer: one run of the deployment script and what its output file
// says, and the job's run loop: package selection, outcomes posted per patch,
// the locked-package-manager abandon pass, the deployment window and the
// result size limit. Real /bin/sh deployment scripts, real log files.
#include "deployer/runloop.h"

#include <atomic>
#include <cstdio>
#include <ctime>
#include <map>
#include <memory>
#include <set>
#include <thread>

#include "deployer/patcher.h"
#include "results/interimresults.h"
#include "support/sandbox.h"
#include "util/timestamps.h"

namespace patchmgmt::deployer {
namespace {

using pmtest::HasLogLine;
using Names = std::set<std::string>;
using Lines = std::vector<std::string>;
using States = std::map<std::string, std::string>;
constexpr const char* kLocked = "YUM is locked. cannot install";

DeploymentPatch Patch(const std::string& id, const std::vector<PackagesByArch>& byArch,
                      bool rebootRequire = false) {
  DeploymentPatch patch;
  patch.patchId = id;
  patch.downloadInfo.packagesByArch = byArch;
  patch.rebootRequire = rebootRequire;
  return patch;
}

DeploymentPatch HostPatch(const std::string& id, const Lines& packages, bool rebootRequire = false) {
  return Patch(id, {{"x86_64", packages}}, rebootRequire);
}

// A manifest date-time text for whole second `seconds` (plus some milliseconds).
std::string ManifestTimeAt(int64_t seconds) { return FormatUtcMilliseconds(seconds * 1000 + 250); }

// A real /bin/sh deployment script in a temporary directory, the tool's logger
// writing to a file beside it, and a job for the run loop.
class RunLoopTest : public pmtest::LogCaptureTest {
 protected:
  void SetUp() override {
    LogCaptureTest::SetUp();
    // Records its arguments; the package name's last "-N" is the outcome N,
    // reported with exit code N + 10 so that it differs from the process's 0.
    WriteScript("printf '%s|' \"$@\" >> '" + callsPath_ + "'; echo >> '" + callsPath_ + "'\n" + R"sh(
printf 'out:%s' "$1"; printf 'err:%s' "$1" >&2
code=${1##*-}
printf '{"customExitCode":%d,"exitCode":%d}' "$code" "$((code + 10))" > "$2")sh");
    args_->MutableArguments().mutable_patchargs()->mutable_agentdetails()->set_architecture("x86_64");
    job_.jobId = "job1";
    job_.dateTime = ManifestTimeAt(std::time(nullptr));
    job_.timeout = 60;
  }

  int32_t Run(std::vector<DeploymentPatch> patches) {
    results_.clear();
    interim_.Clear();
    std::remove(callsPath_.c_str());
    job_.patches = std::move(patches);
    return RunPatchDeployment(patcher_, results_, args_, job_, interim_, stop_);
  }

  // Every patch's interim state as "code/value/message".
  States Interims() const {
    States states;
    for (const auto& [id, r] : interim_.Snapshot())
      states[id] = std::to_string(r->code) + "/" + std::to_string(r->value) + "/" + r->message;
    return states;
  }
  PatchResult& Result(const std::string& id) { return *results_.at(id); }
  void WriteScript(const std::string& body) const {
    pmtest::WriteDeploymentScript(settings_.deploymentScriptPath, body);
  }
  // Every script run's arguments, as "package|output file|window end|".
  Lines Calls() const { return pmtest::SplitLines(pmtest::ReadTextFile(callsPath_)); }
  Lines Packages() const {
    Lines packages;
    for (const std::string& call : Calls()) packages.push_back(call.substr(0, call.find('|')));
    return packages;
  }

  // "exitCode|name|error text|output" per failed package.
  static Lines FailedRecords(const PatchResult& result) {
    Lines records;
    for (const FailedPackage& p : result.failedPackages) {
      records.push_back(std::to_string(p.exitCode) + "|" + p.name + "|" + p.errorText + "|" + p.stdOut);
    }
    return records;
  }

  std::string callsPath_ = dir_.Join("calls");
  ScriptSettings settings_{dir_.Join("deploy.sh"), dir_.Join("scriptOutput.json"), "", "", ""};
  std::shared_ptr<IPatcher> patcher_ = std::make_shared<Patcher>(settings_);
  std::shared_ptr<protobuf::CommandlineArgsInProtoBuf> args_ =
      std::make_shared<protobuf::CommandlineArgsInProtoBuf>();
  DeploymentJob job_;
  PatchResultMap results_;
  InterimResults interim_;
  std::atomic<bool> stopPatching_{false};
  std::atomic<int> patchBoundaries_{0};
  StopControl stop_{&stopPatching_, [this] { ++patchBoundaries_; }};
};

using PackageLoopTest = RunLoopTest;

TEST_F(PackageLoopTest, UnusableOutputFileFailsThePackageWithItsReason) {
  WriteScript("echo \"$1\" >> '" + callsPath_ + "'\n" + R"sh(printf 'err:%s' "$1" >&2
case "$1" in
  missing) rm -f "$2"; exit 9 ;;
  invalid) printf '{"customExitCode":' > "$2" ;;
  nocustom) printf '{"customExitCode":"0","exitCode":5}' > "$2"; exit 6 ;;
  noexit) printf '{"customExitCode":1}' > "$2"; exit 8 ;;
  ok) printf '{"customExitCode":0,"exitCode":0}' > "$2" ;;
  segv) kill -SEGV $$ ;;
  silent) exit 1 ;;
  fifo) mkfifo "$2" ;;
  deep) { head -c 200000 /dev/zero | tr '\0' '['; head -c 200000 /dev/zero | tr '\0' ']'; } > "$2" ;;
  huge) { head -c 2000000 /dev/zero | tr '\0' ' '; printf '{"customExitCode":0,"exitCode":0}'; } > "$2" ;;
  dir) mkdir "$2"; touch "$2/x" ;;
esac)sh");
  const std::string path = settings_.scriptOutputPath;
  // "status|exitCode|errorMessage" after each kind of output file, in this order.
  const std::vector<std::pair<std::string, std::string>> cases{
      {"missing", "3|9|stdError: [Failed to locate result file after deployment, err:missing]"},
      {"invalid", "3|0|stdError: [Failed to parse json result output, err:invalid]"},
      {"nocustom", "3|6|stdError: [Failed to parse custom exit code, err:nocustom]"},
      // The status already read stands; the exit code is the process's.
      {"noexit", "1|8|stdError: [Failed to parse exit code, err:noexit]"},
      // Neither a crash nor a silent failure is credited with the file the
      // package before wrote.
      {"segv", "3|139|stdError: [Failed to locate result file after deployment, err:segv]"},
      {"ok", "0|0|stdError: [, err:ok]"},
      {"silent", "3|1|stdError: [Failed to locate result file after deployment, err:silent]"},
      {"fifo", "3|0|stdError: [Failed to open file: " + path + ", err:fifo]"},
      {"deep", "3|0|stdError: [Failed to parse json result output, err:deep]"},
      {"huge", "3|0|stdError: [Failed to parse json result output, err:huge]"},
      {"dir", "3|0|stdError: [Failed to open file: " + path + ", err:dir]"},
      // What stands there now cannot be removed: the script is not started.
      {"after-dir",
       "3|1|stdError: [Failed to remove stale script output file: " + path + ", error: Is a directory, ]"},
  };
  for (const auto& [package, expected] : cases) {
    PatchResult r;
    r.failed = true;
    r.stdOut = "left over";
    ExecuteDeploymentCommand(
        {settings_.deploymentScriptPath, package, std::time(nullptr) + 600, path, nullptr}, r);
    EXPECT_EQ(std::to_string(r.status) + "|" + std::to_string(r.exitCode) + "|" + r.errorMessage, expected);
    EXPECT_TRUE(r.stdOut.empty() && !r.failed) << package;
  }
  EXPECT_EQ(Calls().size(), cases.size() - 1) << "the package after the directory never ran";
  const auto log = Log();
  EXPECT_TRUE(HasLogLine(log, "Failed to locate result file after deployment: " + path, "Error"));
  EXPECT_TRUE(HasLogLine(log, "Failed to open file: " + path + ", error: not a regular file", "Error"));
  EXPECT_TRUE(HasLogLine(
      log, "Failed to remove stale script output file: " + path + ", error: Is a directory", "Error"));
}

// The script gets the package, its output file and the manifest's window end.
TEST_F(RunLoopTest, HostAndNoarchPackagesAreSelectedAndARepeatedPatchSharesItsResult) {
  const int64_t start = std::time(nullptr) - 30;
  job_.dateTime = ManifestTimeAt(start);
  job_.timeout = 5;
  EXPECT_EQ(Run({Patch("P1", {{"x86_64", {"a-0"}}, {"i686", {"z-0"}}, {"noarch", {"b-0"}}}),
                 Patch("P2", {{"aarch64", {"c-0"}}}), Patch("P3", {{"noarch", {"d-1"}}}),
                 Patch("P1", {{"x86_64", {"e-0"}}})}),
            0);
  const std::string rest = "|" + settings_.scriptOutputPath + "|" + std::to_string(start + 300) + "|";
  EXPECT_EQ(Calls(), (Lines{"a-0" + rest, "b-0" + rest, "d-1" + rest, "e-0" + rest}));
  EXPECT_EQ(results_.count("P2"), 0u);
  EXPECT_EQ(Result("P1").successPackages, (Names{"a-0", "b-0", "e-0"}));
  EXPECT_EQ(Interims(), (States{{"P1", "8980/0/"}, {"P3", "8984/0/"}}));
  const auto log = Log();
  EXPECT_TRUE(HasLogLine(log, "Cannot execute patch: P2 packages list is empty", "Debug"));
  EXPECT_TRUE(HasLogLine(log, "No of patches for deployment: 4", "Debug"));
}

// Every package and patch outcome, as filed and as posted. A code beyond the
// known ones is a failure like 3. A locked package manager (4) ends its patch
// even when failures are tolerated; unless the timeout is ignored, the job
// goes on.
TEST_F(RunLoopTest, OutcomesArePostedAndAnInstalledRebootPatchEndsTheRunWith55) {
  job_.continueAfterPackageFailedForPatch = true;
  job_.sendJobTelemetryData = true;
  EXPECT_EQ(
      Run({HostPatch("P1", {"a-0", "b-1", "c-2", "d-3", "e-7", "f-4", "g-0"}), HostPatch("R", {"r-0"}, true),
           HostPatch("GO", {"h-3", "i-0"}), HostPatch("F", {"j-3"}, true)}),
      kRebootRequiredExitCode);
  EXPECT_EQ(Packages(), (Lines{"a-0", "b-1", "c-2", "d-3", "e-7", "f-4", "r-0", "h-3", "i-0", "j-3"}));
  const PatchResult& p1 = Result("P1");
  EXPECT_EQ(p1.successPackages, Names{"a-0"});
  EXPECT_EQ(p1.alreadyInstalledPackages, Names{"b-1"});
  EXPECT_EQ(p1.notApplicablePackages, Names{"c-2"});
  EXPECT_EQ(p1.pendingExecutionPackages, Names{"g-0"});
  EXPECT_EQ(FailedRecords(p1),
            (Lines{"13|d-3|stdError: [, err:d-3]|out:d-3", "17|e-7|stdError: [, err:e-7]|out:e-7",
                   "14|f-4|stdError: [, err:f-4]|out:f-4"}));
  EXPECT_TRUE(p1.failed && p1.status == kPackageManagerLocked && p1.exitCode == 14);
  // The last package succeeded, yet the patch is failed for the first one;
  // it carries the last command's exit code.
  EXPECT_EQ(Result("GO").successPackages, Names{"i-0"});
  EXPECT_TRUE(Result("R").executed);
  EXPECT_EQ(Interims(), (States{{"P1", "8981/14/stdError: [, err:f-4]"},
                                {"R", "8978/0/"},
                                {"GO", "8981/10/"},
                                {"F", "8981/13/stdError: [, err:j-3]"}}));

  job_.continueAfterPackageFailedForPatch = false;
  EXPECT_EQ(Run({HostPatch("N", {"k-2", "l-2"}), HostPatch("I", {"m-2", "n-1"}),
                 HostPatch("S", {"o-1", "p-0", "q-2"}), HostPatch("STOP", {"s-7", "t-0"})}),
            0);
  EXPECT_EQ(Packages(), (Lines{"k-2", "l-2", "m-2", "n-1", "o-1", "p-0", "q-2", "s-7"}));
  EXPECT_TRUE(Result("N").notApplicable && !Result("N").alreadyInstalled);
  EXPECT_TRUE(Result("I").alreadyInstalled && !Result("I").notApplicable);
  EXPECT_EQ(Result("STOP").status, kInstallFailed);
  EXPECT_EQ(Result("STOP").pendingExecutionPackages, Names{"t-0"});
  EXPECT_EQ(
      Interims(),
      (States{
          {"N", "8983/0/"}, {"I", "8984/0/"}, {"S", "8980/0/"}, {"STOP", "8981/17/stdError: [, err:s-7]"}}));
  const auto log = Log();
  for (const char* line : {"[FAILED]: P1", "[FAILED]: GO", "Reboot will be done for job id job1",
                           "[NOT-APPLICABLE]: N", "[ALREADY-INSTALLED]: I", "[SUCCESS]: S"}) {
    EXPECT_TRUE(HasLogLine(log, line, "Information")) << line;
  }
  EXPECT_TRUE(HasLogLine(log, "Package: b-1 is already installed", "Trace"));
  EXPECT_TRUE(HasLogLine(log, "Reboot is require for patch id R", "Trace"));
  EXPECT_FALSE(HasLogLine(log, "Reboot is require for patch id F"));
}

TEST_F(RunLoopTest, LockedPackageManagerAbandonsTheJobOnlyWhenTimeoutIsIgnored) {
  job_.ignoreTimeout = true;
  job_.continueAfterPackageFailedForPatch = true;
  EXPECT_EQ(Run({HostPatch("L1", {"a-0", "b-4", "c-0"}), HostPatch("L2", {"d-0", "e-0"}),
                 HostPatch("L3", {"f-0"})}),
            0);
  EXPECT_EQ(Packages(), (Lines{"a-0", "b-4"}));
  EXPECT_EQ(FailedRecords(Result("L1")), Lines{"14|b-4|stdError: [, err:b-4]|out:b-4"});
  EXPECT_EQ(Result("L1").pendingExecutionPackages, Names{"c-0"});
  auto record = [](const std::string& name) { return "1|" + name + "|" + kLocked + "|"; };
  EXPECT_EQ(FailedRecords(Result("L2")), (Lines{record("d-0"), record("e-0")}));
  EXPECT_TRUE(Result("L2").pendingExecutionPackages.empty());
  EXPECT_EQ(FailedRecords(Result("L3")), Lines{record("f-0")});
  for (const char* id : {"L2", "L3"}) EXPECT_EQ(Result(id).status, kPackageManagerLocked) << id;
  const std::string lockedState = std::string("8981/1/") + kLocked;
  EXPECT_EQ(Interims(),
            (States{{"L1", "8981/14/stdError: [, err:b-4]"}, {"L2", lockedState}, {"L3", lockedState}}));
}

// While a package runs, its patch reads "executing". A stop requested then
// lets that package end and starts no other; the stop points come only
// between patches.
TEST_F(RunLoopTest, HeldPackageShowsExecutingAndAStopStartsNoFurtherPackage) {
  const std::string release = dir_.Join("release");
  WriteScript("echo \"$1\" >> '" + callsPath_ + "'\nwhile [ ! -e '" + release +
              "' ]; do sleep 0.02; done\necho '{\"customExitCode\":0,\"exitCode\":0}' > \"$2\"");
  std::thread run([this] { Run({HostPatch("P1", {"a-0", "b-0"}), HostPatch("P2", {"c-0"})}); });
  ASSERT_TRUE(pmtest::WaitFor([&] { return Packages() == Lines{"a-0"}; }, std::chrono::seconds(10)));
  EXPECT_EQ(Interims(), (States{{"P1", "8977/0/"}}));
  EXPECT_EQ(patchBoundaries_, 0);
  stopPatching_ = true;
  pmtest::WriteTextFile(release, "");
  run.join();
  EXPECT_EQ(Packages(), Lines{"a-0"});
  EXPECT_EQ(Result("P1").pendingExecutionPackages, Names{"b-0"});
  EXPECT_EQ(Result("P2").pendingExecutionPackages, Names{"c-0"});
  EXPECT_EQ(patchBoundaries_, 2);
}

TEST_F(RunLoopTest, ClosedWindowRunsNothingUnlessTimeoutIsIgnored) {
  const int64_t dateTime = std::time(nullptr) - 7200;
  job_.dateTime = ManifestTimeAt(dateTime);
  const int64_t windowEnd = dateTime + 3600;
  const int64_t before = std::time(nullptr);
  EXPECT_EQ(Run({HostPatch("P1", {"a-0", "b-0"}), HostPatch("P2", {"c-0"})}), 0);
  const int64_t after = std::time(nullptr);

  EXPECT_FALSE(pmtest::PathExists(callsPath_));
  // The current time in the message is some second of the run.
  const std::string message = Result("P1").errorMessage;
  bool saysNow = false;
  for (int64_t now = before; now <= after; ++now) {
    saysNow |= message == "patch window is over.[currentTime,windowTime]: [" + std::to_string(now) + ", " +
                              std::to_string(windowEnd) + "]";
  }
  EXPECT_TRUE(saysNow) << message;
  EXPECT_EQ(Result("P1").status, kInstallFailed);
  EXPECT_EQ(FailedRecords(Result("P1")), Lines{"1|a-0|" + message + "|"});
  EXPECT_EQ(Result("P1").pendingExecutionPackages, Names{"b-0"});
  EXPECT_EQ(Interims().at("P1"), "8981/1/" + message);
  EXPECT_TRUE(Result("P2").failed);

  // Ignoring the timeout, each package is given an hour from its own start.
  job_.ignoreTimeout = true;
  const int64_t ignoredFrom = std::time(nullptr);
  EXPECT_EQ(Run({HostPatch("P1", {"a-0", "b-0"})}), 0);
  const int64_t ignoredTo = std::time(nullptr);
  EXPECT_EQ(Packages(), (Lines{"a-0", "b-0"}));
  for (const std::string& call : Calls()) {
    const int64_t window = std::stoll(call.substr(call.rfind('|', call.size() - 2) + 1));
    EXPECT_GE(window, ignoredFrom + 3600) << call;
    EXPECT_LE(window, ignoredTo + 3600) << call;
  }
  EXPECT_EQ(Result("P1").successPackages, (Names{"a-0", "b-0"}));
}

// The result size limit empties failed-package output once the estimate
// reaches 1 MiB (a result that did not fail counts 40 bytes besides its names
// and texts), then error texts as well. Texts let go as soon as the limit is
// sure to empty them must leave exactly what the limit leaves with every text
// kept to the end, log lines included.
TEST_F(RunLoopTest, FailedTextsLetGoEarlyLeaveWhatTheLimitLeavesWithEveryTextKept) {
  using Sizes = std::vector<std::pair<size_t, size_t>>;  // error text, output
  const Lines output{"Warning|Truncating stdout from patch result"};
  const Lines both{output[0], "Warning|Truncating stdout and stderror both from patch result"};
  const struct {
    bool failed;
    Sizes packages;  // named "p0", "p1", ...: two bytes each
    bool outputGoesEarly, errorTextGoesEarly;
    Lines truncations;
    uint64_t sizeAfter;
  } cases[] = {
      {false, {{100, 100}, {200, 200}}, false, false, {}, 644},
      {false, {{0, 1048534}}, false, false, output, 42},  // exactly the limit
      {false, {{0, 1048533}}, false, false, {}, 1048575},
      {true, {{0, 1048574}}, true, false, output, 2},  // exactly the limit
      {true, {{0, 1048573}}, false, false, {}, 1048575},
      {false, {{1000, 600000}, {1000, 500000}}, true, false, output, 2044},
      {false, {{600000, 10}, {448572, 0}}, true, true, both, 44},  // names and error texts reach exactly 1
                                                                   // MiB
      {false, {{600000, 10}, {448571, 0}}, true, false, both, 44},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.packages.back().first) + " " + std::to_string(c.packages.back().second));
    PatchResultMap early{{"A", std::make_shared<PatchResult>()}, {"B", nullptr}};
    PatchResultMap kept{{"A", std::make_shared<PatchResult>()}, {"B", nullptr}};
    early["A"]->failed = kept["A"]->failed = c.failed;
    FailedTextBudget budget;
    for (size_t i = 0; i < c.packages.size(); ++i) {
      FailedPackage package{3, "p" + std::to_string(i), std::string(c.packages[i].first, 'e'),
                            std::string(c.packages[i].second, 'o')};
      kept["A"]->failedPackages.push_back(package);
      budget.File(early["A"], std::move(package));
    }
    EXPECT_EQ(budget.DropsStdOut(), c.outputGoesEarly);
    EXPECT_EQ(budget.DropsErrorText(), c.errorTextGoesEarly);
    for (const FailedPackage& package : early["A"]->failedPackages) {
      EXPECT_TRUE(package.stdOut.empty() || !c.outputGoesEarly);
      EXPECT_TRUE(package.errorText.empty() || !c.errorTextGoesEarly);
    }
    CaptureLog();
    LimitResultSize(early);
    const std::string earlyLog = pmtest::ReadTextFile(logPath_);
    CaptureLog();
    LimitResultSize(kept);
    EXPECT_EQ(FailedRecords(*early["A"]), FailedRecords(*kept["A"]));
    EXPECT_EQ(EstimateResultSize(*early["A"]), c.sizeAfter);
    EXPECT_EQ(EstimateResultSize(*kept["A"]), c.sizeAfter);
    EXPECT_EQ(pmtest::ReadTextFile(logPath_), earlyLog);
    Lines truncations;
    for (const pmtest::LogLine& line : Log()) truncations.push_back(line.priority + "|" + line.text);
    EXPECT_EQ(truncations, c.truncations);
  }
}

}  // namespace
}  // namespace patchmgmt::deployer
