// The reference deployment script for RPM hosts against real rpm and dnf on a
// sandbox root: a whole job through the built tool, and the script's own
// guards run directly.

#include <filesystem>

#include "support/packages.h"

namespace {

using Root = const pmtest::PackageRoot&;

TEST(RpmPackages, AJobThroughTheToolReportsEachOutcomeAsTheDatabaseShowsIt) {
  PM_SKIP_UNLESS_ROOT();
  const pmtest::PackageRoot rpm("rpm");
  const std::string locked = rpm.Build({"zkt-locked", "1.0"});
  const std::string plain1 = rpm.Build({"zkt-plain", "1.0"});
  const std::string plain2 = rpm.Build({"zkt-plain", "2.0"});
  const std::string foreign = rpm.Build({"zkt-foreign", "1.0", "s390x"});
  const std::string nodeps = rpm.Build({"zkt-nodeps", "1.0", "--requires", "zkt-nothere"});
  const std::string prefail = rpm.Build({"zkt-prefail", "1.0", "--pre-exit", "1"});
  const std::string postfail = rpm.Build({"zkt-postfail", "1.0", "--post-exit", "1"});
  rpm.Repo({rpm.Build({"zkt-byname", "1.0"})});
  // A failing %post is a warning to rpm: the package is installed.
  pmtest::ExpectJob(rpm, "var/lib/rpm/.rpm.lock",
                    {{"P01-LOCKED", {locked}, 1, 4, "can't create transaction lock"},
                     {"P02-PLAIN", {plain1}, 0, 0},
                     {"P03-NEWER", {plain2}, 0, 0, "", true},
                     {"P04-SAME", {plain1}, 0, 1},
                     {"P05-FOREIGN", {foreign, "zkt-unknown"}, 0, 2},
                     {"P06-NODEPS", {nodeps}, 1, 3, "zkt-nothere is needed by zkt-nodeps"},
                     {"P07-PRE", {prefail}, 1, 3, "%prein(zkt-prefail-1.0-1.noarch) scriptlet failed"},
                     {"P08-POST", {postfail}, 0, 0},
                     {"P09-BYNAME", {"zkt-byname"}, 0, 0},
                     {"P10-REFUSED", {"--nodeps"}, 2, 3, "begins with '-' and is refused"}});
  EXPECT_EQ(rpm.Installed(), (std::vector<std::string>{"zk-sandbox-shell 1.0-1", "zkt-byname 1.0-1",
                                                       "zkt-plain 2.0-1", "zkt-postfail 1.0-1"}));
  EXPECT_NE(pmtest::ReadTextFile(rpm.root + "/var/log/dnf.log").find("zkt-byname"), std::string::npos);
  EXPECT_EQ(pmtest::ReadTextFile("/var/log/dnf.log").find("zkt-"), std::string::npos)
      << "dnf logged into the host's log";
}

TEST(RpmPackages, TheScriptRefusesWhatItMustNotRunAndAlwaysLeavesOneWholeResult) {
  PM_SKIP_UNLESS_ROOT();
  const auto plain = [](Root r) { return r.Build({"zkt-plain", "1.0"}); };
  const auto byName = [](Root r) { r.Repo({r.Build({"zkt-byname", "1.0"})}); };
  pmtest::ExpectScriptCases(
      "rpm",
      {
          {"option-like name", [](Root) { return "--root=/"; }, 3, 2, "is refused"},
          {"window over", plain, 3, 1, "window is over", "-5"},
          {"missing file", [](Root r) { return r.packages + "/zkt-none.rpm"; }, 3, 1, "no such package"},
          {"not a package", [](Root r) { return r.root + "/bin/sh"; }, 3, 1, "not a readable .rpm"},
          {"bad name", [](Root) { return "zkt bad;rm"; }, 3, 2, "is not a package name"},
          {"version no repository offers",
           [&](Root r) {
             byName(r);
             return "zkt-byname-9.0";
           },
           2, 0, "no configured repository offers zkt-byname-9.0"},
          // Held past the window end: the script stops waiting there.
          {"rpm lock until the window ends", plain, 4, 1, "can't create transaction lock", "+3",
           "var/lib/rpm/.rpm.lock"},
          // dnf's lock is a file naming a live owner, here this test; dnf
          // itself never waits for it.
          {"dnf lock until the window ends",
           [&](Root r) {
             byName(r);
             std::filesystem::create_directories(r.root + "/var/lib/dnf");
             pmtest::WriteTextFile(r.root + "/var/lib/dnf/rpmdb_lock.pid", std::to_string(getpid()));
             return "zkt-byname";
           },
           4, 200, "RPMDB already locked by " + std::to_string(getpid()), "+4"},
          // Killed while it waits: the failed result it wrote first stays.
          {"killed waiting for the lock", plain, 3, 1, "waiting until", "+600", "var/lib/rpm/.rpm.lock", 3},
      });
}

}  // namespace
