// The reference deployment script for dpkg hosts against real dpkg and apt on
// a sandbox root: a whole job through the built tool, and the script's own
// guards run directly.

#include "support/packages.h"

namespace {

using Root = const pmtest::PackageRoot&;

TEST(DebPackages, AJobThroughTheToolReportsEachOutcomeAsTheDatabaseShowsIt) {
  PM_SKIP_UNLESS_ROOT();
  const pmtest::PackageRoot deb("deb");
  const std::string locked = deb.Build({"zkt-locked", "1.0"});
  const std::string plain1 = deb.Build({"zkt-plain", "1.0"});
  const std::string plain2 = deb.Build({"zkt-plain", "2.0"});
  const std::string foreign = deb.Build({"zkt-foreign", "1.0", "s390x"});
  const std::string nodeps = deb.Build({"zkt-nodeps", "1.0", "--depends", "zkt-nothere"});
  const std::string postinst = deb.Build({"zkt-postinst", "1.0", "--postinst-exit", "1"});
  deb.Repo({deb.Build({"zkt-byname", "1.0"})});
  // apt exits 100 on the by-name install, as it configures the failed package
  // again in the same run; the database says ours is installed.
  pmtest::ExpectJob(
      deb, "var/lib/dpkg/lock-frontend",
      {{"P1-LOCKED", {locked}, 2, 4, "dpkg frontend lock was locked by another process"},
       {"P2-PLAIN", {plain1}, 0, 0},
       {"P3-NEWER", {plain2}, 0, 0, "", true},
       {"P4-SAME", {plain1}, 0, 1},
       {"P5-FOREIGN", {foreign, "zkt-unknown"}, 0, 2},
       {"P6-NODEPS", {nodeps}, 1, 3, "zkt-nodeps depends on zkt-nothere"},
       {"P7-POSTINST", {postinst}, 1, 3, "post-installation script subprocess returned error exit status 1"},
       {"P8-BYNAME", {"zkt-byname=1.0"}, 100, 0},
       {"P9-REFUSED", {"--force-all"}, 2, 3, "begins with '-' and is refused"}});
  // The package without its dependency was taken out again.
  EXPECT_EQ(deb.Installed(),
            (std::vector<std::string>{"iF zkt-postinst 1.0", "ii zkt-byname 1.0", "ii zkt-plain 2.0"}));
  EXPECT_EQ(pmtest::ReadTextFile("/var/log/dpkg.log").find("zkt-"), std::string::npos)
      << "dpkg logged into the host's log";
}

TEST(DebPackages, TheScriptRefusesWhatItMustNotRunAndAlwaysLeavesOneWholeResult) {
  PM_SKIP_UNLESS_ROOT();
  const auto plain = [](Root r) { return r.Build({"zkt-plain", "1.0"}); };
  pmtest::ExpectScriptCases(
      "deb",
      {
          {"option-like name", [](Root) { return "--admindir=/"; }, 3, 2, "is refused"},
          {"empty name", [](Root) { return ""; }, 3, 2, "empty package argument"},
          {"window over", plain, 3, 1, "window is over", "-5"},
          {"window not a time", [](Root) { return "zkt-x"; }, 3, 2, "not a number of seconds", "soon"},
          {"missing file", [](Root r) { return r.packages + "/zkt-none.deb"; }, 3, 1, "no such package"},
          {"not a package", [](Root r) { return r.root + "/bin/sh"; }, 3, 2, "not a readable .deb"},
          {"bad name", [](Root) { return "Zkt_Bad;rm"; }, 3, 2, "is not a package name"},
          {"interrupted dpkg",
           [&](Root r) {
             pmtest::WriteTextFile(r.root + "/var/lib/dpkg/updates/0001", "");
             return plain(r);
           },
           3, 2, "interrupted dpkg run"},
          {"version no source offers",
           [](Root r) {
             r.Repo({r.Build({"zkt-byname", "1.0"})});
             return "zkt-byname=9.0";
           },
           2, 0, "no configured source offers zkt-byname at version 9.0"},
          // Held past the window end: the script stops waiting there.
          {"lock until the window ends", plain, 4, 2, "database lock was locked by another process", "+3",
           "var/lib/dpkg/lock"},
          // Killed while it waits: the failed result it wrote first stays.
          {"killed waiting for the lock", plain, 3, 1, "waiting until", "+600", "var/lib/dpkg/lock-frontend",
           3},
      });
}

}  // namespace
