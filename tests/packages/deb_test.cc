// The reference deployment script for dpkg hosts against real dpkg and apt on
// a sandbox root: a whole job through the built tool, and the script's own
// guards run directly.

#include <signal.h>
#include <unistd.h>

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

const std::string kScript = pmtest::SourcePath("scripts/deploy/deploy-deb");

// A dpkg/apt root of the test's own, which the script reaches through
// ZELKOR_DPKG_ROOT (the tool passes its environment on), and a directory of
// packages built for the test.
struct DebRoot {
  DebRoot() {
    pmtest::Fixture({"deb-root", root});
    std::filesystem::create_directories(debs);
    setenv("ZELKOR_DPKG_ROOT", root.c_str(), 1);
    setenv("ZELKOR_DEPLOY_LOCK_WAIT", "3", 1);
  }
  std::string Deb(std::vector<std::string> args) const {
    args.insert(args.begin(), {"deb", debs});
    return Fixture(args);
  }
  void Repo(const std::vector<std::string>& files) const {
    std::vector<std::string> args = {"deb-repo", root, dir.Join("repo")};
    args.insert(args.end(), files.begin(), files.end());
    Fixture(args);
  }
  // "ii name version" for every package the root's database knows.
  std::vector<std::string> Packages() const {
    return pmtest::SplitLines(RunCommand({"dpkg-query", "--admindir=" + root + "/var/lib/dpkg", "-W",
                                          "-f=${db:Status-Abbrev}${Package} ${Version}\n"})
                                  .output);
  }

  pmtest::TempDir dir;
  std::string root = dir.Join("root");
  std::string debs = dir.Join("debs");
};

TEST(DebPackages, AJobThroughTheToolReportsEachOutcomeAsTheDatabaseShowsIt) {
  PM_SKIP_UNLESS_ROOT();
  DebRoot deb;
  const std::string locked = deb.Deb({"zkt-locked", "1.0"});
  const std::string plain1 = deb.Deb({"zkt-plain", "1.0"});
  const std::string plain2 = deb.Deb({"zkt-plain", "2.0"});
  const std::string foreign = deb.Deb({"zkt-foreign", "1.0", "s390x"});
  const std::string nodeps = deb.Deb({"zkt-nodeps", "1.0", "--depends", "zkt-nothere"});
  const std::string postinst = deb.Deb({"zkt-postinst", "1.0", "--postinst-exit", "1"});
  deb.Repo({deb.Deb({"zkt-byname", "1.0"})});

  pmtest::ToolSandbox sandbox;
  sandbox.patchArgs().mutable_deploymentscriptspaths()->set_deploymentscriptpath(kScript);
  sandbox.WriteManifest(pmtest::ManifestWithPatches(
      pmtest::PatchJson("P1-LOCKED", {locked}) + "," + pmtest::PatchJson("P2-PLAIN", {plain1}) + "," +
      pmtest::PatchJson("P3-NEWER", {plain2}, "x86_64", true) + "," + pmtest::PatchJson("P4-SAME", {plain1}) +
      "," + pmtest::PatchJson("P5-FOREIGN", {foreign, "zkt-unknown"}) + "," +
      pmtest::PatchJson("P6-NODEPS", {nodeps}) + "," + pmtest::PatchJson("P7-POSTINST", {postinst}) + "," +
      pmtest::PatchJson("P8-BYNAME", {"zkt-byname=1.0"}) + "," +
      pmtest::PatchJson("P9-REFUSED", {"--force-all"})));

  // The first patch meets the frontend lock; it is let go once that patch's
  // script has given up, and the next script waits for it to go.
  pmtest::LockHolder lock(deb.root + "/var/lib/dpkg/lock-frontend");
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
  EXPECT_EQ(pmtest::Strings(result, "success"), (Ids{"P2-PLAIN", "P3-NEWER", "P8-BYNAME"}));
  EXPECT_EQ(pmtest::Strings(result, "alreadyInstalled"), Ids{"P4-SAME"});
  EXPECT_EQ(pmtest::Strings(result, "notApplicable"), Ids{"P5-FOREIGN"});
  pmtest::ExpectFailedPackages(
      result,
      {
          {"P1-LOCKED", locked, 2, "dpkg frontend lock was locked by another process"},
          {"P6-NODEPS", nodeps, 1, "zkt-nodeps depends on zkt-nothere"},
          {"P7-POSTINST", postinst, 1, "post-installation script subprocess returned error exit status 1"},
          {"P9-REFUSED", "--force-all", 2, "begins with '-' and is refused"},
      });

  // Each script run as the tool logged it: the exit status of the command
  // that decided, and the outcome. apt exits 100 on the by-name install, as
  // it configures the failed package again in the same run; the database says
  // ours is installed.
  pmtest::ExpectScriptRuns(sandbox.Log(), kScript,
                           {{locked, "2, custom exit code: 4"},
                            {plain1, "0, custom exit code: 0"},
                            {plain2, "0, custom exit code: 0"},
                            {plain1, "0, custom exit code: 1"},
                            {foreign, "0, custom exit code: 2"},
                            {"zkt-unknown", "0, custom exit code: 2"},
                            {nodeps, "1, custom exit code: 3"},
                            {postinst, "1, custom exit code: 3"},
                            {"zkt-byname=1.0", "100, custom exit code: 0"},
                            {"--force-all", "2, custom exit code: 3"}});
  // The package without its dependency was taken out again.
  EXPECT_EQ(deb.Packages(), (Ids{"ii zkt-byname 1.0", "ii zkt-plain 2.0", "iF zkt-postinst 1.0"}));
  EXPECT_EQ(pmtest::ReadTextFile("/var/log/dpkg.log").find("zkt-"), std::string::npos)
      << "dpkg logged into the host's log";
}

TEST(DebPackages, TheScriptRefusesWhatItMustNotRunAndAlwaysLeavesOneWholeResult) {
  PM_SKIP_UNLESS_ROOT();
  const struct {
    const char* what;
    std::function<std::string(DebRoot&)> package;  // prepares the root, returns the argument
    std::string windowEnd;
    int code, exitCode;
    const char* says;
    const char* lockFile = nullptr;  // in the admin directory, held during the run
  } cases[] = {
      {"option-like name", [](DebRoot&) { return "--admindir=/"; }, "+600", 3, 2, "is refused"},
      {"empty name", [](DebRoot&) { return ""; }, "+600", 3, 2, "empty package argument"},
      {"window over",
       [](DebRoot& d) {
         return d.Deb({"zkt-late", "1.0"});
       },
       "-5", 3, 1, "window is over"},
      {"window not a time", [](DebRoot&) { return "zkt-x"; }, "soon", 3, 2, "not a number of seconds"},
      {"missing file", [](DebRoot& d) { return d.debs + "/zkt-none.deb"; }, "+600", 3, 1, "no such package"},
      {"not a package",
       [](DebRoot& d) {
         pmtest::WriteTextFile(d.debs + "/zkt-bad.deb", "garbage");
         return d.debs + "/zkt-bad.deb";
       },
       "+600", 3, 2, "not a readable .deb"},
      {"bad name", [](DebRoot&) { return "Zkt_Bad;rm"; }, "+600", 3, 2, "is not a package name"},
      {"interrupted dpkg",
       [](DebRoot& d) {
         pmtest::WriteTextFile(d.root + "/var/lib/dpkg/updates/0001", "");
         return d.Deb({"zkt-plain", "1.0"});
       },
       "+600", 3, 2, "interrupted dpkg run"},
      {"version no source offers",
       [](DebRoot& d) {
         d.Repo({d.Deb({"zkt-byname", "1.0"})});
         return "zkt-byname=9.0";
       },
       "+600", 2, 0, "no configured source offers zkt-byname at version 9.0"},
      // The lock is held past the window end: the script stops waiting there.
      {"lock until the window ends",
       [](DebRoot& d) {
         return d.Deb({"zkt-plain", "1.0"});
       },
       "+3", 4, 2, "database lock was locked by another process", "lock"},
  };
  for (const auto& c : cases) {
    DebRoot deb;
    setenv("ZELKOR_DEPLOY_LOCK_WAIT", "600", 1);
    std::unique_ptr<pmtest::LockHolder> lock;
    if (c.lockFile) lock = std::make_unique<pmtest::LockHolder>(deb.root + "/var/lib/dpkg/" + c.lockFile);
    const pmtest::ScriptRun direct(kScript, c.package(deb), pmtest::WindowEnd(c.windowEnd), 30);
    EXPECT_EQ(direct.run.status, 0) << c.what << ": " << direct.run.output;
    EXPECT_EQ(direct.Written(), pmtest::ScriptResult(c.code, c.exitCode))
        << c.what << ": " << direct.run.output;
    EXPECT_NE(direct.run.output.find(c.says), std::string::npos) << c.what << ": " << direct.run.output;
    EXPECT_EQ(pmtest::ListDir(direct.results.path()), std::vector<std::string>{"scriptOutput.json"})
        << c.what;
    EXPECT_EQ(deb.Packages(), std::vector<std::string>{}) << c.what;
  }
}

TEST(DebPackages, AScriptKilledWhileWaitingForTheLockLeavesAFailedResult) {
  PM_SKIP_UNLESS_ROOT();
  DebRoot deb;
  const std::string package = deb.Deb({"zkt-plain", "1.0"});
  setenv("ZELKOR_DEPLOY_LOCK_WAIT", "600", 1);
  pmtest::LockHolder lock(deb.root + "/var/lib/dpkg/lock-frontend");
  const pmtest::ScriptRun direct(kScript, package, pmtest::WindowEnd("+600"), 3);
  EXPECT_EQ(direct.run.status, 128 + SIGKILL) << direct.run.output;
  EXPECT_NE(direct.run.output.find("is locked by pid " + std::to_string(lock.pid())), std::string::npos)
      << direct.run.output;
  EXPECT_EQ(direct.Written(), pmtest::ScriptResult(3, 1));
  EXPECT_EQ(deb.Packages(), std::vector<std::string>{});
}

}  // namespace
