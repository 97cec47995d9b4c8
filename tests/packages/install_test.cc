// The tool as it is installed: by `cmake --install`, from the .deb into a
// dpkg root and from the .rpm into an rpm root. Each installed tool runs one
// small job with the log configuration installed beside it and the reference
// script installed with it.

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

#include "support/packages.h"
#include "support/sandbox.h"

namespace {

using namespace std::chrono_literals;
using pmtest::Fixture;
using pmtest::RunCommand;

const char* const kInstalledFiles[] = {
    "opt/zelkor-agent/bin/zelkor-patchmgmt-tool", "etc/zelkor-agent/zagent-patchmgmt-log.conf",
    "opt/zelkor-agent/scripts/deploy-deb",        "opt/zelkor-agent/scripts/deploy-rpm",
    "opt/zelkor-agent/scripts/deploy-lib.sh",
};

void ExpectInstalledLayout(const std::string& root) {
  for (const char* file : kInstalledFiles) EXPECT_TRUE(pmtest::PathExists(root + "/" + file)) << file;
  const auto sections =
      RunCommand({"readelf", "-S", "-W", root + "/opt/zelkor-agent/bin/zelkor-patchmgmt-tool"}).output;
  EXPECT_NE(sections.find(".text"), std::string::npos) << sections;
  EXPECT_EQ(sections.find(".symtab"), std::string::npos) << "the installed binary is not stripped";
  EXPECT_EQ(sections.find(".debug_info"), std::string::npos)
      << "the installed binary carries debug information";
}

// Packages built with CPack from the build tree into a directory of their own.
std::string BuildPackage(const pmtest::TempDir& out, const std::string& generator) {
  const auto run = RunCommand({"cpack", "--config", std::string(PM_BINARY_DIR) + "/CPackConfig.cmake", "-G",
                               generator, "-B", out.path()},
                              300);
  EXPECT_EQ(run.status, 0) << run.output;
  for (const auto& name : pmtest::ListDir(out.path())) {
    const std::string suffix = generator == "DEB" ? ".deb" : ".rpm";
    if (name.size() > suffix.size() &&
        name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
      return out.Join(name);
    }
  }
  ADD_FAILURE() << "cpack made no " << generator << " package: " << run.output;
  return "";
}

// Runs the tool installed under `root`, as the agent would, on a job of one
// patch whose package `script` (also installed under `root`) installs into a
// package root of its own. The tool's default log directory, /var/log/zelkor,
// is the test's own directory here.
void RunsOneJob(const std::string& root, const std::string& script, const std::string& package) {
  pmtest::ToolSandbox sandbox;
  sandbox.patchArgs().mutable_deploymentscriptspaths()->set_deploymentscriptpath(
      root + "/opt/zelkor-agent/scripts/" + script);
  sandbox.WriteManifest(pmtest::ManifestWithPatches(pmtest::PatchJson("P1", {package})));
  const std::string args = sandbox.WriteArgs();
  const pmtest::TempDir logs;
  setenv("ZELKOR_AGENT_CONFIG_DIR", (root + "/etc/zelkor-agent").c_str(), 1);
  setenv("ZELKOR_AGENT_DATA_DIR", (root + "/opt/zelkor-agent").c_str(), 1);
  // Neither the host's control groups nor its systemd are the run's to use.
  setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + sandbox.root.Join("no-system-bus")).c_str(), 1);
  std::vector<pmtest::BindMount> binds = {{logs.path(), "/var/log"}};
  if (pmtest::PathExists("/sys/fs/cgroup/systemd"))
    binds.push_back({sandbox.cgroupDir, "/sys/fs/cgroup/systemd"});
  if (pmtest::PathExists("/run/systemd/system")) {
    std::filesystem::create_directories(sandbox.root.Join("run-systemd"));
    binds.push_back({sandbox.root.Join("run-systemd"), "/run/systemd"});
  }
  const auto run = RunCommand({root + "/opt/zelkor-agent/bin/zelkor-patchmgmt-tool", args}, 60, binds);
  ASSERT_EQ(run.status, 0) << run.output;
  // The detached run is done when it has logged its last line and is gone
  // (or, when this process is a subreaper, left for it to reap).
  const std::string logPath = logs.Join("zelkor/zelkor-patchmgmt-tool.log");
  const bool finished = pmtest::WaitFor(
      [&] {
        const pid_t child = pmtest::DetachedPid(sandbox);
        return pmtest::ReadTextFile(logPath).find("]:Tool execution completed") != std::string::npos &&
               child > 0 &&
               (pmtest::ProcessState(child) == '\0' || waitpid(child, nullptr, WNOHANG) == child);
      },
      60s);
  if (!finished && pmtest::DetachedPid(sandbox) > 0) kill(pmtest::DetachedPid(sandbox), SIGKILL);
  ASSERT_TRUE(finished) << "the installed tool did not finish its job";
  EXPECT_EQ(sandbox.ExitCodeText(), "0");

  const auto log = pmtest::ReadTextFile(logPath);
  EXPECT_NE(log.find("[Information] zelkor-patchmgmt-tool: ["), std::string::npos) << log;
  const auto document = pmtest::ReadJson(sandbox.resultDir + "/job1_7_status.json");
  ASSERT_TRUE(document.IsObject());
  EXPECT_EQ(pmtest::Strings(document["deploymentResult"], "success"), std::vector<std::string>{"P1"}) << log;
}

TEST(Install, CmakeInstallPutsTheToolAndItsConfigurationWhereTheyAreRead) {
  PM_SKIP_UNLESS_ROOT();
  const pmtest::TempDir destdir;
  setenv("DESTDIR", destdir.path().c_str(), 1);
  const auto install = RunCommand({"cmake", "--install", PM_BINARY_DIR, "--strip"});
  unsetenv("DESTDIR");
  ASSERT_EQ(install.status, 0) << install.output;
  ExpectInstalledLayout(destdir.path());

  const pmtest::TempDir work;
  const std::string dpkgRoot = work.Join("root");
  Fixture({"deb-root", dpkgRoot});
  setenv("ZELKOR_DPKG_ROOT", dpkgRoot.c_str(), 1);
  RunsOneJob(destdir.path(), "deploy-deb", Fixture({"deb", work.path(), "zkt-installed", "1.0"}));
}

TEST(Install, TheDebInstallsIntoADpkgRootAndItsToolRuns) {
  PM_SKIP_UNLESS_ROOT();
  const pmtest::TempDir out;
  const std::string deb = BuildPackage(out, "DEB");
  ASSERT_FALSE(deb.empty());
  const std::string root = out.Join("root");
  Fixture({"deb-root", root});
  // The root's database knows none of the host's libraries that the package
  // depends on; the binary runs with the host's.
  const auto install = RunCommand(
      {"dpkg", "--root=" + root, "--log=" + root + "/var/log/dpkg.log", "--force-depends", "-i", "--", deb});
  ASSERT_EQ(install.status, 0) << install.output;
  ExpectInstalledLayout(root);
  const auto query = RunCommand({"dpkg-query", "--admindir=" + root + "/var/lib/dpkg", "-W",
                                 "-f=${Version} ${Conffiles}\n", "zelkor-patchmgmt-tool"});
  EXPECT_EQ(query.output.rfind("1.0.0  /etc/zelkor-agent/zagent-patchmgmt-log.conf ", 0), 0u) << query.output;
  const auto depends = RunCommand({"dpkg-deb", "-f", deb, "Depends"}).output;
  EXPECT_NE(depends.find("libpocofoundation"), std::string::npos) << depends;

  const std::string dpkgRoot = out.Join("jobroot");
  Fixture({"deb-root", dpkgRoot});
  setenv("ZELKOR_DPKG_ROOT", dpkgRoot.c_str(), 1);
  RunsOneJob(root, "deploy-deb", Fixture({"deb", out.path(), "zkt-installed", "1.0"}));
}

TEST(Install, TheRpmInstallsIntoAnRpmRootAndItsToolRuns) {
  PM_SKIP_UNLESS_ROOT();
  const pmtest::TempDir out;
  const std::string rpm = BuildPackage(out, "RPM");
  ASSERT_FALSE(rpm.empty());
  const std::string root = out.Join("root");
  Fixture({"rpm-root", root});
  // As for the .deb: the root's database knows none of the host's libraries.
  const auto install =
      RunCommand({"rpm", "--root", root, "--dbpath", "/var/lib/rpm", "-U", "--nodeps", "--", rpm});
  ASSERT_EQ(install.status, 0) << install.output;
  ExpectInstalledLayout(root);
  const auto config =
      RunCommand({"rpm", "--root", root, "--dbpath", "/var/lib/rpm", "-qc", "zelkor-patchmgmt-tool"});
  EXPECT_EQ(config.output, "/etc/zelkor-agent/zagent-patchmgmt-log.conf\n");

  const std::string rpmRoot = out.Join("jobroot");
  Fixture({"rpm-root", rpmRoot});
  setenv("ZELKOR_RPM_ROOT", rpmRoot.c_str(), 1);
  RunsOneJob(root, "deploy-rpm", Fixture({"rpm", out.path(), "zkt-installed", "1.0"}));
}

}  // namespace
