// The job's run loop: package selection, outcomes posted per patch, the
// locked-package-manager abandon pass, the deployment window and the result
// size limit. Real /bin/sh deployment scripts, real log files.
#include "deployer/runloop.h"

#include <atomic>
#include <cstdio>
#include <ctime>
#include <map>
#include <memory>
#include <thread>

#include "results/interimresults.h"
#include "scripttest.h"
#include "util/timestamps.h"

namespace patchmgmt::deployer {
namespace {

using pmtest::HasLogLine;

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

class RunLoopTest : public ScriptTest {
 protected:
  void SetUp() override {
    ScriptTest::SetUp();
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
  // "failed|status|exitCode|errorMessage" of the patch's result.
  std::string Outcome(const std::string& id) {
    const PatchResult& r = Result(id);
    return std::string(r.failed ? "failed|" : "|") + std::to_string(r.status) + "|" +
           std::to_string(r.exitCode) + "|" + r.errorMessage;
  }
  PatchResult& Result(const std::string& id) { return *results_.at(id); }

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

TEST_F(RunLoopTest, OutcomesArePostedAndAnInstalledRebootPatchEndsTheRunWith55) {
  job_.sendJobTelemetryData = true;
  EXPECT_EQ(Run({HostPatch("R", {"a-0"}, true), HostPatch("N", {"b-2"}), HostPatch("A", {"c-1"}),
                 HostPatch("S", {"d-0"}), HostPatch("F", {"e-3"}, true)}),
            kRebootRequiredExitCode);
  EXPECT_EQ(Interims(), (States{{"R", "8978/0/"},
                                {"N", "8983/0/"},
                                {"A", "8984/0/"},
                                {"S", "8980/0/"},
                                {"F", "8981/13/stdError: [, err:e-3]"}}));
  EXPECT_TRUE(Result("R").executed);
  const auto log = Log();
  EXPECT_TRUE(HasLogLine(log, "Reboot is require for patch id R", "Trace"));
  EXPECT_FALSE(HasLogLine(log, "Reboot is require for patch id F"));
  EXPECT_TRUE(HasLogLine(log, "Reboot will be done for job id job1", "Information"));
}

TEST_F(RunLoopTest, LockedPackageManagerAbandonsTheJobOnlyWhenTimeoutIsIgnored) {
  auto lockedJob = [] {
    return std::vector<DeploymentPatch>{HostPatch("L1", {"a-0", "b-4", "c-0"}),
                                        HostPatch("L2", {"d-0", "e-0"}), HostPatch("L3", {"f-0"})};
  };
  auto expectLockedFirstPatch = [this] {
    EXPECT_TRUE(Result("L1").failed);
    EXPECT_EQ(FailedRecords(Result("L1")), Lines{"14|b-4|stdError: [, err:b-4]|out:b-4"});
    EXPECT_EQ(Result("L1").pendingExecutionPackages, Names{"c-0"});
  };
  auto record = [](const std::string& name) { return "1|" + name + "|" + kLocked + "|"; };

  job_.ignoreTimeout = true;
  job_.continueAfterPackageFailedForPatch = true;
  EXPECT_EQ(Run(lockedJob()), 0);
  EXPECT_EQ(Packages(), (Lines{"a-0", "b-4"}));
  expectLockedFirstPatch();
  for (const char* id : {"L2", "L3"}) EXPECT_EQ(Outcome(id), std::string("failed|4|1|") + kLocked) << id;
  const std::string lockedState = std::string("8981/1/") + kLocked;
  EXPECT_EQ(Interims(),
            (States{{"L1", "8981/14/stdError: [, err:b-4]"}, {"L2", lockedState}, {"L3", lockedState}}));
  EXPECT_EQ(FailedRecords(Result("L2")), (Lines{record("d-0"), record("e-0")}));
  EXPECT_TRUE(Result("L2").pendingExecutionPackages.empty());
  EXPECT_EQ(FailedRecords(Result("L3")), Lines{record("f-0")});

  job_.ignoreTimeout = false;
  job_.continueAfterPackageFailedForPatch = true;
  EXPECT_EQ(Run(lockedJob()), 0);
  EXPECT_EQ(Packages(), (Lines{"a-0", "b-4", "d-0", "e-0", "f-0"}));
  expectLockedFirstPatch();
  EXPECT_FALSE(Result("L2").failed);
  EXPECT_EQ(Interims(),
            (States{{"L1", "8981/14/stdError: [, err:b-4]"}, {"L2", "8980/0/"}, {"L3", "8980/0/"}}));
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
  const std::string prefix = "patch window is over.[currentTime,windowTime]: [";
  ASSERT_EQ(message.rfind(prefix, 0), 0u) << message;
  EXPECT_EQ(message.substr(message.find(',', prefix.size())), ", " + std::to_string(windowEnd) + "]");
  const int64_t now = std::stoll(message.substr(prefix.size()));
  EXPECT_TRUE(now >= before && now <= after) << message;
  EXPECT_EQ(Outcome("P1"), "failed|3|1|" + message);
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

TEST_F(RunLoopTest, ResultsAreTruncatedFromExactlyOneMebibyte) {
  // 40 + 1 + stdOut of the first patch, 1 + error text of the failed second.
  auto results = [](size_t stdOutSize, size_t errorSize) {
    PatchResultMap map{
        {"A", std::make_shared<PatchResult>()}, {"B", std::make_shared<PatchResult>()}, {"C", nullptr}};
    map["A"]->failedPackages = {{1, "p", "", std::string(stdOutSize, 'o')}};
    map["B"]->failed = true;
    map["B"]->failedPackages = {{1, "q", std::string(errorSize, 'e'), ""}};
    return map;
  };
  PatchResultMap below = results(1048000, 533);
  LimitResultSize(below);
  EXPECT_EQ(below["A"]->failedPackages[0].stdOut.size(), 1048000u);
  EXPECT_FALSE(pmtest::HasLogPrefix(Log(), "Truncating"));

  PatchResultMap at = results(1048000, 534);
  LimitResultSize(at);
  EXPECT_EQ(at["A"]->failedPackages[0].stdOut, "");
  EXPECT_EQ(at["B"]->failedPackages[0].errorText.size(), 534u);
  EXPECT_TRUE(HasLogLine(Log(), "Truncating stdout from patch result", "Warning"));
  EXPECT_FALSE(HasLogLine(Log(), "Truncating stdout and stderror both from patch result"));

  // Emptying the output leaves exactly the limit: the error texts go too.
  PatchResultMap both = results(10, 1048533);
  both["A"]->failedPackages[0].errorText = std::string(1, 'e');
  LimitResultSize(both);
  for (const char* id : {"A", "B"}) {
    EXPECT_EQ(both[id]->failedPackages[0].stdOut, "") << id;
    EXPECT_EQ(both[id]->failedPackages[0].errorText, "") << id;
  }
  EXPECT_TRUE(HasLogLine(Log(), "Truncating stdout and stderror both from patch result", "Warning"));
}

// Texts let go as soon as the limit is sure to empty them must leave exactly
// what the limit leaves with every text kept to the end, log lines included.
TEST_F(RunLoopTest, FailedTextsLetGoEarlyLeaveWhatTheLimitLeavesWithEveryTextKept) {
  using Sizes = std::vector<std::pair<size_t, size_t>>;  // error text, output
  const struct {
    Sizes packages;  // named "p0", "p1", ...: two bytes each
    bool outputGoesEarly;
    bool errorTextGoesEarly;
  } cases[] = {
      {{{100, 100}, {200, 200}}, false, false},
      {{{1000, 600000}, {1000, 500000}}, true, false},
      {{{600000, 10}, {448572, 0}}, true, true},  // names and error texts reach exactly 1 MiB
      {{{600000, 10}, {448571, 0}}, true, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.packages.back().first);
    PatchResultMap early{{"A", std::make_shared<PatchResult>()}};
    PatchResultMap kept{{"A", std::make_shared<PatchResult>()}};
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
    EXPECT_EQ(EstimateResultSize(*early["A"]), EstimateResultSize(*kept["A"]));
    EXPECT_EQ(pmtest::ReadTextFile(logPath_), earlyLog);
  }
}

}  // namespace
}  // namespace patchmgmt::deployer
