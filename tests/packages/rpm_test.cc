// The reference deployment script for RPM hosts against real rpm and dnf on a
// sandbox root: a whole job through the built tool, and the script's own
// guards run directly.

#include <signal.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>

#include "support/packages.h"
#include "support/sandbox.h"

namespace {

using namespace std::chrono_literals;
using pmtest::Fixture;
using pmtest::RunCommand;

const std::string kScript = pmtest::SourcePath("scripts/deploy/deploy-rpm");

// An rpm/dnf root of the test's own, which the script reaches through
// ZELKOR_RPM_ROOT, and a directory of packages built for the test.
struct RpmRoot {
  RpmRoot() {
    Fixture({"rpm-root", root});
    std::filesystem::create_directories(rpms);
    setenv("ZELKOR_RPM_ROOT", root.c_str(), 1);
    setenv("ZELKOR_DEPLOY_LOCK_WAIT", "3", 1);
  }
  std::string Rpm(std::vector<std::string> args) const {
    args.insert(args.begin(), {"rpm", rpms});
    return Fixture(args);
  }
  void Repo(const std::vector<std::string>& files) const {
    std::vector<std::string> args = {"rpm-repo", root, dir.Join("repo")};
    args.insert(args.end(), files.begin(), files.end());
    Fixture(args);
  }
  // "name version-release" for every package in the root's database, sorted.
  std::vector<std::string> Packages() const {
    auto lines = pmtest::SplitLines(RunCommand({"rpm", "--root", root, "--dbpath", "/var/lib/rpm", "-qa",
                                                "--qf", "%{NAME} %{VERSION}-%{RELEASE}\n"})
                                        .output);
    std::sort(lines.begin(), lines.end());
    return lines;
  }

  pmtest::TempDir dir;
  std::string root = dir.Join("root");
  std::string rpms = dir.Join("rpms");
};

TEST(RpmPackages, AJobThroughTheToolReportsEachOutcomeAsTheDatabaseShowsIt) {
  PM_SKIP_UNLESS_ROOT();
  RpmRoot rpm;
  const std::string locked = rpm.Rpm({"zkt-locked", "1.0"});
  const std::string plain1 = rpm.Rpm({"zkt-plain", "1.0"});
  const std::string plain2 = rpm.Rpm({"zkt-plain", "2.0"});
  const std::string foreign = rpm.Rpm({"zkt-foreign", "1.0", "s390x"});
  const std::string nodeps = rpm.Rpm({"zkt-nodeps", "1.0", "--requires", "zkt-nothere"});
  const std::string prefail = rpm.Rpm({"zkt-prefail", "1.0", "--pre-exit", "1"});
  const std::string postfail = rpm.Rpm({"zkt-postfail", "1.0", "--post-exit", "1"});
  rpm.Repo({rpm.Rpm({"zkt-byname", "1.0"})});

  pmtest::ToolSandbox sandbox;
  sandbox.patchArgs().mutable_deploymentscriptspaths()->set_deploymentscriptpath(kScript);
  sandbox.WriteManifest(pmtest::ManifestWithPatches(
      pmtest::PatchJson("P01-LOCKED", {locked}) + "," + pmtest::PatchJson("P02-PLAIN", {plain1}) + "," +
      pmtest::PatchJson("P03-NEWER", {plain2}, "x86_64", true) + "," +
      pmtest::PatchJson("P04-SAME", {plain1}) + "," +
      pmtest::PatchJson("P05-FOREIGN", {foreign, "zkt-unknown"}) + "," +
      pmtest::PatchJson("P06-NODEPS", {nodeps}) + "," + pmtest::PatchJson("P07-PRE", {prefail}) + "," +
      pmtest::PatchJson("P08-POST", {postfail}) + "," + pmtest::PatchJson("P09-BYNAME", {"zkt-byname"}) +
      "," + pmtest::PatchJson("P10-REFUSED", {"--nodeps"})));

  // The first patch meets rpm's transaction lock; it is let go once that
  // patch's script has given up.
  pmtest::LockHolder lock(rpm.root + "/var/lib/rpm/.rpm.lock");
  pmtest::ToolProcess tool(sandbox, {sandbox.WriteArgs()});
  ASSERT_EQ(tool.WaitParent(), 0) << tool.parentOutput();
  ASSERT_TRUE(pmtest::WaitFor(
      [&] { return pmtest::HasLogPrefix(sandbox.Log(), "Command: " + kScript + " " + locked + " "); }, 60s));
  lock.Release();
  ASSERT_EQ(tool.WaitChild(), 55) << pmtest::ReadTextFile(sandbox.logPath);
  EXPECT_EQ(sandbox.ExitCodeText(), "55");

  const auto document = pmtest::ReadJson(sandbox.resultDir + "/job1_7_status.json");
  ASSERT_TRUE(document.IsObject());
  const auto& result = document["deploymentResult"];
  using Ids = std::vector<std::string>;
  EXPECT_EQ(pmtest::Strings(result, "success"), (Ids{"P02-PLAIN", "P03-NEWER", "P08-POST", "P09-BYNAME"}));
  EXPECT_EQ(pmtest::Strings(result, "alreadyInstalled"), Ids{"P04-SAME"});
  EXPECT_EQ(pmtest::Strings(result, "notApplicable"), Ids{"P05-FOREIGN"});
  pmtest::ExpectFailedPackages(
      result, {
                  {"P01-LOCKED", locked, 1, "can't create transaction lock"},
                  {"P06-NODEPS", nodeps, 1, "zkt-nothere is needed by zkt-nodeps"},
                  {"P07-PRE", prefail, 1, "%prein(zkt-prefail-1.0-1.noarch) scriptlet failed"},
                  {"P10-REFUSED", "--nodeps", 2, "begins with '-' and is refused"},
              });
  // A failing %post is a warning to rpm: the package is installed.
  pmtest::ExpectScriptRuns(sandbox.Log(), kScript,
                           {{locked, "1, custom exit code: 4"},
                            {plain1, "0, custom exit code: 0"},
                            {plain2, "0, custom exit code: 0"},
                            {plain1, "0, custom exit code: 1"},
                            {foreign, "0, custom exit code: 2"},
                            {"zkt-unknown", "0, custom exit code: 2"},
                            {nodeps, "1, custom exit code: 3"},
                            {prefail, "1, custom exit code: 3"},
                            {postfail, "0, custom exit code: 0"},
                            {"zkt-byname", "0, custom exit code: 0"},
                            {"--nodeps", "2, custom exit code: 3"}});
  EXPECT_EQ(rpm.Packages(),
            (Ids{"zk-sandbox-shell 1.0-1", "zkt-byname 1.0-1", "zkt-plain 2.0-1", "zkt-postfail 1.0-1"}));
  EXPECT_NE(pmtest::ReadTextFile(rpm.root + "/var/log/dnf.log").find("zkt-byname"), std::string::npos);
  EXPECT_EQ(pmtest::ReadTextFile("/var/log/dnf.log").find("zkt-"), std::string::npos)
      << "dnf logged into the host's log";
}

TEST(RpmPackages, TheScriptRefusesWhatItMustNotRunAndAlwaysLeavesOneWholeResult) {
  PM_SKIP_UNLESS_ROOT();
  const struct {
    const char* what;
    // Prepares the root and returns the package argument; gets the pid of
    // the process holding `lockFile`.
    std::function<std::string(RpmRoot&, pid_t)> package;
    std::string windowEnd;
    int code, exitCode;
    const char* says;
    const char* lockFile = nullptr;  // under the root, held by a process during the run
  } cases[] = {
      {"option-like name", [](RpmRoot&, pid_t) { return "--root=/"; }, "+600", 3, 2, "is refused"},
      {"window over",
       [](RpmRoot& r, pid_t) {
         return r.Rpm({"zkt-late", "1.0"});
       },
       "-5", 3, 1, "window is over"},
      {"missing file", [](RpmRoot& r, pid_t) { return r.rpms + "/zkt-none.rpm"; }, "+600", 3, 1,
       "no such package"},
      {"not a package",
       [](RpmRoot& r, pid_t) {
         pmtest::WriteTextFile(r.rpms + "/zkt-bad.rpm", "garbage");
         return r.rpms + "/zkt-bad.rpm";
       },
       "+600", 3, 1, "not a readable .rpm"},
      {"bad name", [](RpmRoot&, pid_t) { return "zkt bad;rm"; }, "+600", 3, 2, "is not a package name"},
      {"version no repository offers",
       [](RpmRoot& r, pid_t) {
         r.Repo({r.Rpm({"zkt-byname", "1.0"})});
         return "zkt-byname-9.0";
       },
       "+600", 2, 0, "no configured repository offers zkt-byname-9.0"},
      // Both locks are held past the window end: the script stops waiting
      // there, and dnf never waits on its own.
      {"rpm lock until the window ends",
       [](RpmRoot& r, pid_t) {
         return r.Rpm({"zkt-plain", "1.0"});
       },
       "+3", 4, 1, "can't create transaction lock", "var/lib/rpm/.rpm.lock"},
      {"dnf lock until the window ends",
       [](RpmRoot& r, pid_t holder) {
         r.Repo({r.Rpm({"zkt-byname", "1.0"})});
         std::filesystem::create_directories(r.root + "/var/lib/dnf");
         pmtest::WriteTextFile(r.root + "/var/lib/dnf/rpmdb_lock.pid", std::to_string(holder));
         return "zkt-byname";
       },
       "+4", 4, 200, "RPMDB already locked by", "holder"},
  };
  for (const auto& c : cases) {
    RpmRoot rpm;
    setenv("ZELKOR_DEPLOY_LOCK_WAIT", "600", 1);
    std::unique_ptr<pmtest::LockHolder> lock;
    if (c.lockFile) lock = std::make_unique<pmtest::LockHolder>(rpm.root + "/" + c.lockFile);
    const std::string package = c.package(rpm, lock ? lock->pid() : -1);
    const pmtest::ScriptRun direct(kScript, package, pmtest::WindowEnd(c.windowEnd), 30);
    EXPECT_EQ(direct.run.status, 0) << c.what << ": " << direct.run.output;
    EXPECT_EQ(direct.Written(), pmtest::ScriptResult(c.code, c.exitCode))
        << c.what << ": " << direct.run.output;
    EXPECT_NE(direct.run.output.find(c.says), std::string::npos) << c.what << ": " << direct.run.output;
    EXPECT_EQ(pmtest::ListDir(direct.results.path()), std::vector<std::string>{"scriptOutput.json"})
        << c.what;
    EXPECT_EQ(rpm.Packages(), std::vector<std::string>{"zk-sandbox-shell 1.0-1"}) << c.what;
  }
}

}  // namespace
