// The tool as it is installed: by `cmake --install`, from the .deb into a
// dpkg root and from the .rpm into an rpm root. Each installed tool runs one
// small job with the log configuration installed beside it and the reference
// script installed with it.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <filesystem>
#include <stdexcept>

#include "support/packages.h"

namespace {

using namespace std::chrono_literals;
using pmtest::RunCommand;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// The package that CPack's `generator` builds from the build tree, in `out`.
std::string BuildPackage(const pmtest::TempDir& out, const std::string& generator, const char* suffix) {
  const auto run = RunCommand({"cpack", "--config", std::string(PM_BINARY_DIR) + "/CPackConfig.cmake", "-G",
                               generator, "-B", out.path()},
                              300);
  for (const auto& name : pmtest::ListDir(out.path())) {
    if (run.status == 0 && std::filesystem::path(name).extension() == suffix) return out.Join(name);
  }
  throw std::runtime_error("cpack made no " + generator + " package: " + run.output);
}

// Checks what an install left under `root`, then runs the tool installed
// there, as the agent would, on a job of one patch whose package the
// installed `family` script installs into a package root of its own. The
// tool's default log directory, /var/log/zelkor, is the test's own here.
void ExpectInstalledToolRuns(const std::string& root, const std::string& family) {
  // The binary and the log configuration show in the run below.
  for (const char* script : {"deploy-deb", "deploy-rpm", "deploy-lib.sh"}) {
    EXPECT_TRUE(pmtest::PathExists(root + "/opt/zelkor-agent/scripts/" + script)) << script;
  }
  const std::string tool = root + "/opt/zelkor-agent/bin/zelkor-patchmgmt-tool";
  const auto sections = RunCommand({"readelf", "-S", "-W", tool}).output;
  // Stripped, without debug information; .text shows that readelf read it.
  EXPECT_THAT(sections, AllOf(HasSubstr(".text"), Not(HasSubstr(".symtab")), Not(HasSubstr(".debug_info"))));

  const pmtest::PackageRoot job(family);
  pmtest::ToolSandbox sandbox;
  sandbox.patchArgs().mutable_deploymentscriptspaths()->set_deploymentscriptpath(
      root + "/opt/zelkor-agent/scripts/deploy-" + family);
  sandbox.WriteManifest(
      pmtest::ManifestWithPatches(pmtest::PatchJson("P1", {job.Build({"zkt-installed", "1.0"})})));
  const pmtest::TempDir logs, emptyRunSystemd;
  std::vector<pmtest::BindMount> binds = {{logs.path(), "/var/log"}};
  if (pmtest::PathExists("/sys/fs/cgroup/systemd"))
    binds.push_back({sandbox.cgroupDir, "/sys/fs/cgroup/systemd"});
  if (pmtest::PathExists("/run/systemd/system")) binds.push_back({emptyRunSystemd.path(), "/run/systemd"});
  // As a subreaper this process inherits the detached run, which is done
  // when nothing of it is left to reap.
  ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  // Neither the host's control groups nor its systemd are the run's to use.
  const auto run = RunCommand(
      {"env", "ZELKOR_AGENT_CONFIG_DIR=" + root + "/etc/zelkor-agent",
       "ZELKOR_AGENT_DATA_DIR=" + root + "/opt/zelkor-agent",
       "DBUS_SYSTEM_BUS_ADDRESS=unix:path=" + sandbox.root.Join("no-system-bus"), tool, sandbox.WriteArgs()},
      60, binds);
  ASSERT_EQ(run.status, 0) << run.output;
  const bool finished = pmtest::WaitFor([] { return waitpid(-1, nullptr, WNOHANG) < 0; }, 60s);
  for (const pid_t pid : pmtest::ProcessesBelowThisOne()) kill(pid, SIGKILL);
  ASSERT_TRUE(finished) << "the installed tool did not finish its job";
  EXPECT_EQ(sandbox.ExitCodeText(), "0");

  const auto log = pmtest::ReadTextFile(logs.Join("zelkor/zelkor-patchmgmt-tool.log"));
  EXPECT_THAT(log, HasSubstr("[Information] zelkor-patchmgmt-tool: ["));
  EXPECT_THAT(pmtest::ReadTextFile(sandbox.resultDir + "/job1_7_status.json"),
              HasSubstr("\"success\":[\"P1\"]"))
      << log;
}

TEST(Install, CmakeInstallPutsTheToolAndItsConfigurationWhereTheyAreRead) {
  PM_SKIP_UNLESS_ROOT();
  const pmtest::TempDir destdir;
  const auto install =
      RunCommand({"env", "DESTDIR=" + destdir.path(), "cmake", "--install", PM_BINARY_DIR, "--strip"});
  ASSERT_EQ(install.status, 0) << install.output;
  ExpectInstalledToolRuns(destdir.path(), "deb");
}

TEST(Install, TheDebInstallsIntoADpkgRootAndItsToolRuns) {
  PM_SKIP_UNLESS_ROOT();
  const pmtest::TempDir out;
  const std::string deb = BuildPackage(out, "DEB", ".deb");
  const pmtest::PackageRoot target("deb");
  // The root's database knows none of the host's libraries that the package
  // depends on; the binary runs with the host's.
  const auto install =
      RunCommand({"dpkg", "--root=" + target.root, "--log=" + target.root + "/var/log/dpkg.log",
                  "--force-depends", "-i", "--", deb});
  ASSERT_EQ(install.status, 0) << install.output;
  EXPECT_THAT(RunCommand({"dpkg-query", "--admindir=" + target.root + "/var/lib/dpkg", "-W",
                          "-f=${Version} ${Conffiles}\n", "zelkor-patchmgmt-tool"})
                  .output,
              StartsWith("1.0.0  /etc/zelkor-agent/zagent-patchmgmt-log.conf "));
  EXPECT_THAT(RunCommand({"dpkg-deb", "-f", deb, "Depends"}).output, HasSubstr("libpocofoundation"));
  ExpectInstalledToolRuns(target.root, "deb");
}

TEST(Install, TheRpmInstallsIntoAnRpmRootAndItsToolRuns) {
  PM_SKIP_UNLESS_ROOT();
  const pmtest::TempDir out;
  const std::string rpm = BuildPackage(out, "RPM", ".rpm");
  const pmtest::PackageRoot target("rpm");
  // As for the .deb: the root's database knows none of the host's libraries.
  const auto install =
      RunCommand({"rpm", "--root", target.root, "--dbpath", "/var/lib/rpm", "-U", "--nodeps", "--", rpm});
  ASSERT_EQ(install.status, 0) << install.output;
  EXPECT_EQ(
      RunCommand({"rpm", "--root", target.root, "--dbpath", "/var/lib/rpm", "-qc", "zelkor-patchmgmt-tool"})
          .output,
      "/etc/zelkor-agent/zagent-patchmgmt-log.conf\n");
  ExpectInstalledToolRuns(target.root, "rpm");
}

}  // namespace
