// The package loop of one patch, through real deployment scripts.
#include <ctime>
#include <memory>

#include "scripttest.h"

namespace patchmgmt::deployer {
namespace {

using pmtest::HasLogLine;

class PackageLoopTest : public ScriptTest {
 protected:
  // Deploys one patch with an hour of window left.
  PatchResult& Deploy(const std::string& id, const Lines& packages, bool continueAfterFailure) {
    DeploymentPatch patch;
    patch.patchId = id;
    patch.hostPackages = packages;
    results_.push_back(std::make_shared<PatchResult>());
    PatchResultMap one{{id, results_.back()}};
    patcher_.DeployPatch(patch, continueAfterFailure, false, std::time(nullptr) + 3600, one, &stop_);
    return *results_.back();
  }

  Patcher patcher_{settings_};
  std::vector<std::shared_ptr<PatchResult>> results_;
  std::atomic<bool> stop_{false};
};

TEST_F(PackageLoopTest, EveryOutcomeIsFiledAndThePatchClassifiedFromItsPackages) {
  PatchResult& r = Deploy("P1", {"a-0", "b-1", "c-2", "d-3", "e-7", "f-4", "g-0"}, true);
  PatchResult& notApplicable = Deploy("N", {"x-2", "y-2"}, false);
  PatchResult& installed = Deploy("I", {"x-2", "y-1"}, false);
  PatchResult& mixed = Deploy("S", {"x-1", "y-0", "z-2"}, false);
  // A code beyond the known ones is a failure like 3.
  PatchResult& stopped = Deploy("STOP", {"a-7", "b-0"}, false);
  PatchResult& continued = Deploy("GO", {"c-3", "d-0"}, true);

  // A locked package manager ends the patch even when failures are tolerated.
  EXPECT_EQ(Packages().size(), 6u + 2 + 2 + 3 + 1 + 2);
  EXPECT_EQ(r.successPackages, Names{"a-0"});
  EXPECT_EQ(r.alreadyInstalledPackages, Names{"b-1"});
  EXPECT_EQ(r.notApplicablePackages, Names{"c-2"});
  EXPECT_EQ(r.pendingExecutionPackages, Names{"g-0"});
  EXPECT_EQ(FailedRecords(r),
            (Lines{"13|d-3|stdError: [, err:d-3]|out:d-3", "17|e-7|stdError: [, err:e-7]|out:e-7",
                   "14|f-4|stdError: [, err:f-4]|out:f-4"}));
  EXPECT_TRUE(r.failed && r.status == kPackageManagerLocked && r.exitCode == 14);

  EXPECT_TRUE(notApplicable.notApplicable && !notApplicable.alreadyInstalled);
  EXPECT_TRUE(installed.alreadyInstalled && !installed.notApplicable);
  EXPECT_FALSE(mixed.alreadyInstalled || mixed.notApplicable);
  for (const PatchResult* ok : {&notApplicable, &installed, &mixed}) EXPECT_FALSE(ok->failed);
  EXPECT_TRUE(stopped.failed && stopped.status == kInstallFailed);
  EXPECT_EQ(stopped.pendingExecutionPackages, Names{"b-0"});
  // The last package succeeded, yet the patch is failed for the first one.
  EXPECT_TRUE(continued.failed);
  EXPECT_EQ(continued.successPackages, Names{"d-0"});
  const auto log = Log();
  for (const char* line :
       {"[FAILED]: P1", "[NOT-APPLICABLE]: N", "[ALREADY-INSTALLED]: I", "[SUCCESS]: S", "[FAILED]: GO"}) {
    EXPECT_TRUE(HasLogLine(log, line, "Information")) << line;
  }
  EXPECT_TRUE(HasLogLine(log, "Package: b-1 is already installed", "Trace"));
}

TEST_F(PackageLoopTest, UnusableOutputFileFailsThePackageWithItsReason) {
  WriteScript(
      "echo \"$1\" >> '" + callsPath_ +
      "'\n"
      "printf 'err:%s' \"$1\" >&2\n"
      "case \"$1\" in\n"
      "  missing) rm -f \"$2\"; exit 9 ;;\n"
      "  invalid) printf '{\"customExitCode\":' > \"$2\" ;;\n"
      "  nocustom) printf '{\"customExitCode\":\"0\",\"exitCode\":5}' > \"$2\"; exit 6 ;;\n"
      "  noexit) printf '{\"customExitCode\":1}' > \"$2\"; exit 8 ;;\n"
      "  ok) printf '{\"customExitCode\":0,\"exitCode\":0}' > \"$2\" ;;\n"
      "  segv) kill -SEGV $$ ;;\n"
      "  silent) exit 1 ;;\n"
      "  fifo) mkfifo \"$2\" ;;\n"
      "  deep) { head -c 200000 /dev/zero | tr '\\0' '['; head -c 200000 /dev/zero | tr '\\0' ']'; } > "
      "\"$2\" ;;\n"
      "  huge) { head -c 2000000 /dev/zero | tr '\\0' ' '; printf '{\"customExitCode\":0,\"exitCode\":0}'; } "
      "> \"$2\" ;;\n"
      "  dir) mkdir \"$2\"; touch \"$2/x\" ;;\n"
      "esac");
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

}  // namespace
}  // namespace patchmgmt::deployer
