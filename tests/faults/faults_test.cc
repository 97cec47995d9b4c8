// Faults and hostile input as a fleet meets them, each through the built tool
// end to end: the outcome is recorded (exit-code file, documents) and nothing
// of the run is left running. Full file systems are tiny tmpfs mounts in this
// test process's own mount namespace, which the tool inherits.

#include <Poco/File.h>
#include <sched.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <thread>

#include "support/sandbox.h"
#include "util/utf8.h"

namespace {

using namespace std::chrono_literals;
using pmtest::ToolProcess;
using pmtest::ToolSandbox;

const std::string kReportSuccess = R"(echo '{"customExitCode":0,"exitCode":0}' > "$2")";

bool OwnMountNamespace() {
  static const bool own = geteuid() == 0 && unshare(CLONE_NEWNS) == 0 &&
                          mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
  return own;
}

#define REQUIRE_OWN_MOUNTS() \
  if (!OwnMountNamespace()) GTEST_SKIP() << "needs root: tmpfs mounts in a private mount namespace"

// A tmpfs of `kib` KiB over `dir`.
class Tmpfs {
 public:
  Tmpfs(const std::string& dir, int kib) : dir_(dir) {
    Poco::File(dir).createDirectories();
    mounted_ = mount("tmpfs", dir.c_str(), "tmpfs", 0, ("size=" + std::to_string(kib) + "k").c_str()) == 0;
    EXPECT_TRUE(mounted_) << dir;
  }
  ~Tmpfs() {
    if (mounted_) umount2(dir_.c_str(), MNT_DETACH);
  }
  void ReadOnly() const {
    EXPECT_EQ(mount(nullptr, dir_.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  }
  // Takes every free block.
  void Fill() const {
    std::ofstream filler(dir_ + "/filler", std::ios::binary);
    const std::string chunk(4096, 'x');
    while (filler.write(chunk.data(), chunk.size()) && filler.flush()) {
    }
  }

 private:
  std::string dir_;
  bool mounted_ = false;
};

// A script line that fills the file system of `dir` when the package is `package`.
std::string FillWhen(const std::string& package, const std::string& dir) {
  return "[ \"$1\" = " + package + " ] && head -c 100M /dev/zero > " + dir + "/filler 2>/dev/null\n";
}

struct Outcome {
  int parent = -1;
  int child = -1;
  std::string exitCode;
  std::string document;
  // The names of the run's processes still there once it has ended.
  std::vector<std::string> leftOver;
};

Outcome RunJob(const ToolSandbox& sandbox, const std::function<void(ToolProcess&)>& meanwhile = {}) {
  ToolProcess tool(sandbox, {sandbox.WriteArgs()});
  Outcome outcome;
  outcome.parent = tool.WaitParent();
  if (meanwhile) meanwhile(tool);
  outcome.child = tool.WaitChild(180s);
  outcome.exitCode = sandbox.ExitCodeText();
  outcome.document = pmtest::ReadTextFile(sandbox.resultDir + "/job1_7_status.json");
  for (pid_t pid : pmtest::ProcessesBelowThisOne()) {
    outcome.leftOver.push_back(pmtest::ReadTextFile("/proc/" + std::to_string(pid) + "/comm"));
  }
  return outcome;
}

bool Has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

std::string Manifest(const std::string& patches, bool continueAfterFailure = false) {
  std::string manifest = pmtest::ManifestWithPatches(patches);
  if (continueAfterFailure) {
    const std::string key = "\"continueafterpackagefailedforpatch\":false";
    manifest.replace(manifest.find(key), key.size(), "\"continueafterpackagefailedforpatch\":true");
  }
  return manifest;
}

TEST(Faults, FullLogFileSystemCostsLogLinesNeverTheRun) {
  REQUIRE_OWN_MOUNTS();
  for (bool fullFromTheStart : {true, false}) {
    SCOPED_TRACE(fullFromTheStart);
    ToolSandbox sandbox;
    const std::string logDir = sandbox.root.Join("log");
    Tmpfs logs(logDir, 64);
    if (fullFromTheStart) logs.Fill();
    sandbox.WriteManifest(Manifest(pmtest::PatchJson("P1", {"fill", "b"})));
    sandbox.WriteScript(FillWhen("fill", logDir) + kReportSuccess);
    const Outcome outcome = RunJob(sandbox);
    EXPECT_EQ(outcome.parent, 0);
    EXPECT_EQ(outcome.child, 0);
    EXPECT_EQ(outcome.exitCode, "0");
    EXPECT_TRUE(Has(outcome.document, R"("success":["P1"])")) << outcome.document;
    EXPECT_TRUE(outcome.leftOver.empty());
  }
}

TEST(Faults, ResultFileSystemFillingMidRunEndsWith49AndTheCodeIsStillSaved) {
  REQUIRE_OWN_MOUNTS();
  ToolSandbox sandbox;
  Tmpfs results(sandbox.resultDir, 256);
  sandbox.WriteManifest(Manifest(pmtest::PatchJson("P1", {"fill"}) + "," + pmtest::PatchJson("P2", {"b"})));
  sandbox.WriteScript(FillWhen("fill", sandbox.resultDir) + kReportSuccess);
  const Outcome outcome = RunJob(sandbox);
  EXPECT_EQ(outcome.child, 49);
  EXPECT_EQ(outcome.exitCode, "49");
  EXPECT_EQ(outcome.document, "");
  for (const auto& name : pmtest::ListDir(sandbox.resultDir)) EXPECT_FALSE(Has(name, "status.json")) << name;
  EXPECT_TRUE(pmtest::HasLogLine(sandbox.Log(),
                                 "Failed to write result in file: " + sandbox.resultDir +
                                     "/job1_7_status.json error :No space left on device",
                                 "Error"));
  EXPECT_TRUE(outcome.leftOver.empty());
}

// One interim period (60 s) passes while the only package runs.
TEST(Faults, MissingOrReadOnlyInterimDirectoryCostsInterimDocumentsOnly) {
  REQUIRE_OWN_MOUNTS();
  ToolSandbox missing, readOnly;
  Tmpfs interim(readOnly.interimDir, 64);
  for (ToolSandbox* sandbox : {&missing, &readOnly}) {
    sandbox->patchArgs().mutable_interimresultoption()->set_isinterimresultenable(true);
    sandbox->WriteManifest(Manifest(pmtest::PatchJson("P1", {"slow"})));
    sandbox->WriteScript("sleep 64\n" + kReportSuccess);
  }
  missing.patchArgs().mutable_interimresultoption()->set_interimresultdir(missing.root.Join("absent"));
  ToolProcess first(missing, {missing.WriteArgs()});
  ToolProcess second(readOnly, {readOnly.WriteArgs()});
  EXPECT_EQ(first.WaitParent(), 0);
  EXPECT_EQ(second.WaitParent(), 0);
  interim.ReadOnly();
  EXPECT_EQ(first.WaitChild(180s), 0);
  EXPECT_EQ(second.WaitChild(180s), 0);
  for (const ToolSandbox* sandbox : {&missing, &readOnly}) {
    const std::string dir = sandbox->args.patchargs().interimresultoption().interimresultdir();
    EXPECT_EQ(sandbox->ExitCodeText(), "0");
    EXPECT_TRUE(Has(pmtest::ReadTextFile(sandbox->resultDir + "/job1_7_status.json"), R"("success":["P1"])"));
    const auto log = sandbox->Log();
    EXPECT_TRUE(pmtest::HasLogPrefix(log, "Failed to open file " + dir + "/PatchInterimResult_")) << dir;
    EXPECT_TRUE(pmtest::HasLogLine(log, "Failed to generate interim Result", "Error")) << dir;
  }
  EXPECT_TRUE(pmtest::ListDir(readOnly.interimDir).empty());
}

TEST(Faults, StatusDatabaseHeldExclusivelyForTheWholeRunHoldsNothingUp) {
  ToolSandbox sandbox;
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(sandbox.args.patchargs().statusdbpath().c_str(), &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "CREATE TABLE held(x); BEGIN EXCLUSIVE; INSERT INTO held VALUES(1);", nullptr,
                         nullptr, nullptr),
            SQLITE_OK);
  sandbox.WriteManifest(Manifest(pmtest::PatchJson("P1", {"a"})));
  const Outcome outcome = RunJob(sandbox);
  sqlite3_close_v2(db);
  EXPECT_EQ(outcome.child, 0);
  EXPECT_EQ(outcome.exitCode, "0");
  EXPECT_TRUE(Has(outcome.document, R"("success":["P1"])")) << outcome.document;
  EXPECT_TRUE(outcome.leftOver.empty());
}

// Each failing package follows a successful one, whose output file it must
// not be credited with. A package's background child that keeps the output
// pipe open does not hold the run, and is left running: it may be a service.
TEST(Faults, ScriptThatDiesOrWritesNothingIsNeverCreditedWithTheOutcomeBefore) {
  ToolSandbox sandbox;
  sandbox.WriteManifest(Manifest(
      pmtest::PatchJson("P1", {"ok1", "kill9", "ok2", "segv", "ok3", "silent", "ok4", "exit1", "daemon"}),
      true));
  sandbox.WriteScript(
      "case \"$1\" in\n"
      "  kill9) kill -KILL $$ ;;\n"
      "  segv) kill -SEGV $$ ;;\n"
      "  silent) exit 0 ;;\n"
      "  exit1) exit 1 ;;\n"
      "  daemon) sleep 300 & ;;\n"
      "esac\n" +
      kReportSuccess);
  const Outcome outcome = RunJob(sandbox);
  EXPECT_EQ(outcome.child, 0);
  EXPECT_EQ(outcome.exitCode, "0");
  std::string failed;
  for (const auto& [name, code] :
       std::vector<std::pair<std::string, int>>{{"kill9", 137}, {"segv", 139}, {"silent", 0}, {"exit1", 1}}) {
    failed += std::string(failed.empty() ? "" : ",") + R"({"name":")" + name + R"(","exitCode":)" +
              std::to_string(code) +
              R"(,"errorMessage":"stdError: [Failed to locate result file after deployment, ]"})";
  }
  EXPECT_TRUE(Has(outcome.document,
                  R"("successPackages":["daemon","ok1","ok2","ok3","ok4"],"pendingExecutionPackages":[],)"
                  R"("alreadyInstalledPackages":[],"notApplicablePackages":[],"failedPackages":[)" +
                      failed + "]"))
      << outcome.document;
  EXPECT_EQ(outcome.leftOver, std::vector<std::string>{"sleep\n"}) << "only the daemon's sleep";
}

TEST(Faults, DocumentsNestedTwoHundredThousandDeepAreFailuresNotCrashes) {
  const std::string deep = std::string(200000, '[') + std::string(200000, ']');
  ToolSandbox manifest;
  manifest.WriteManifest(deep);
  Outcome outcome = RunJob(manifest);
  EXPECT_EQ(outcome.child, 45);
  EXPECT_EQ(outcome.exitCode, "45");

  ToolSandbox output;
  output.WriteManifest(Manifest(pmtest::PatchJson("P1", {"deep"}) + "," + pmtest::PatchJson("P2", {"b"})));
  pmtest::WriteTextFile(output.root.Join("deep.json"), deep);
  output.WriteScript("[ \"$1\" = deep ] && cp " + output.root.Join("deep.json") + " \"$2\" && exit 0\n" +
                     kReportSuccess);
  outcome = RunJob(output);
  EXPECT_EQ(outcome.child, 0);
  EXPECT_TRUE(Has(outcome.document, R"("success":["P2"],"failed":[{"id":"P1")")) << outcome.document;
  EXPECT_TRUE(Has(outcome.document, "Failed to parse json result output")) << outcome.document;
}

TEST(Faults, JobIdsThatWouldLeaveTheResultDirectoryAreRefused) {
  for (const std::string& jobId : {std::string("../escaped"), std::string("a/b"), std::string(300, 'j')}) {
    ToolSandbox sandbox;
    sandbox.patchArgs().set_jobid(jobId);
    sandbox.WriteManifest(Manifest(pmtest::PatchJson("P1", {"a"})));
    ToolProcess tool(sandbox, {sandbox.WriteArgs()});
    EXPECT_EQ(tool.WaitParent(), 46) << jobId;
    EXPECT_TRUE(pmtest::HasLogLine(sandbox.Log(), "job ID is not usable in a file name: " + jobId, "Error"));
    EXPECT_TRUE(pmtest::ListDir(sandbox.resultDir).empty());
    EXPECT_EQ(pmtest::ListDir(sandbox.root.path()),
              (std::vector<std::string>{"args.bin", "cgroup", "config", "deploy.sh", "interim", "log",
                                        "manifests", "results"}));
  }
}

// The year 9999 lies past any deadline a steady clock can hold; an interim
// period of 2^32 s is past what the generator counts in 32 bits.
TEST(Faults, FarFutureWindowAndPeriodLeaveTheScriptItsNaturalRun) {
  ToolSandbox sandbox;
  std::string manifest = Manifest(pmtest::PatchJson("P1", {"a"}));
  manifest.replace(manifest.find("\"datetime\":\"") + 12, 24, "9999-12-31T23:59:59.000Z");
  sandbox.WriteManifest(manifest);
  auto* interim = sandbox.patchArgs().mutable_interimresultoption();
  interim->set_isinterimresultenable(true);
  interim->set_interimresultgeneratetimeinseconds(uint64_t{1} << 32);
  const std::string seen = sandbox.root.Join("window");
  sandbox.WriteScript("sleep 2\necho \"$3\" > " + seen + "\n" + kReportSuccess);
  const Outcome outcome = RunJob(sandbox);
  EXPECT_EQ(outcome.child, 0);
  EXPECT_TRUE(Has(outcome.document, R"("success":["P1"])")) << outcome.document;
  EXPECT_EQ(pmtest::ReadTextFile(seen), "253402304399\n");
  EXPECT_TRUE(pmtest::ListDir(sandbox.interimDir).empty());
}

TEST(Faults, InvalidUtf8FromAFailingScriptKeepsTheDocumentValid) {
  ToolSandbox sandbox;
  sandbox.WriteManifest(Manifest(pmtest::PatchJson("P1", {"a"})));
  sandbox.WriteScript(
      "printf 'caf\\351 \\377'; printf 'r\\303\\251sum\\303' >&2\n"
      "echo '{\"customExitCode\":3,\"exitCode\":3}' > \"$2\"");
  const Outcome outcome = RunJob(sandbox);
  EXPECT_EQ(outcome.child, 0);
  EXPECT_TRUE(patchmgmt::IsValidUtf8(outcome.document));
  EXPECT_TRUE(Has(
      outcome.document,
      "\"errorMessage\":\"stdOut: [caf\xEF\xBF\xBD \xEF\xBF\xBD], stdError: [, r\xC3\xA9sum\xEF\xBF\xBD]\""))
      << outcome.document;
}

// While the last package is held, the tool reaps the background children of
// all the packages before it.
TEST(Faults, ThousandsOfPackagesWithBackgroundChildrenLeaveNoZombies) {
  ToolSandbox sandbox;
  std::vector<std::string> packages;
  for (int i = 0; i < 2000; ++i) packages.push_back("p" + std::to_string(i));
  packages.push_back("last");
  sandbox.WriteManifest(Manifest(pmtest::PatchJson("P1", packages)));
  const std::string started = sandbox.root.Join("started");
  const std::string release = sandbox.root.Join("release");
  sandbox.WriteScript("sleep 0.01 &\nif [ \"$1\" = last ]; then touch " + started + "; while [ ! -e " +
                      release + " ]; do sleep 0.05; done; fi\n" + kReportSuccess);
  size_t zombies = 0;
  const Outcome outcome = RunJob(sandbox, [&](ToolProcess& tool) {
    ASSERT_TRUE(pmtest::WaitFor([&] { return pmtest::PathExists(started); }, 150s));
    std::this_thread::sleep_for(1500ms);
    for (pid_t child : pmtest::ChildrenOf(tool.ChildPid())) zombies += pmtest::ProcessState(child) == 'Z';
    pmtest::WriteTextFile(release, "");
  });
  EXPECT_EQ(zombies, 0u);
  EXPECT_EQ(outcome.child, 0);
  EXPECT_TRUE(Has(outcome.document, R"("success":["P1"])"));
}

// An agent that starts the tool with a permissive mask, in a directory of its
// own and with relative paths, still gets private files where it looked.
TEST(Faults, RelativePathsAreUsedWhereTheyWereCheckedAndNoFileIsWritableByOthers) {
  ToolSandbox sandbox;
  ASSERT_EQ(chdir(sandbox.root.path().c_str()), 0);
  auto& patch = sandbox.patchArgs();
  patch.set_manifestdirectorypath("manifests");
  patch.set_resultdirectory("results");
  patch.set_statusdbpath("status.db");
  patch.set_ahsmessagedir("ahs");
  patch.mutable_deploymentscriptspaths()->set_deploymentscriptpath("./deploy.sh");
  sandbox.WriteManifest(Manifest(pmtest::PatchJson("P1", {"a"})));
  sandbox.WriteScript("echo made > \"$(dirname \"$2\")/by-script\"\n" + kReportSuccess);
  sandbox.WriteArgs();
  umask(0);
  ToolProcess tool(sandbox, {"args.bin"});
  EXPECT_EQ(tool.WaitParent(), 0);
  EXPECT_EQ(tool.WaitChild(), 0);
  for (const std::string& name : {std::string("job1_7_status.json"), std::string("by-script"),
                                  std::string("scriptOutput.json"), sandbox.ExitCodeFileName()}) {
    struct stat info {};
    ASSERT_EQ(stat((sandbox.resultDir + "/" + name).c_str(), &info), 0) << name;
    EXPECT_EQ(info.st_mode & 022, 0u) << name;
  }
}

}  // namespace
