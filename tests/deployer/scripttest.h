#pragma once

#include <set>
#include <string>
#include <vector>

#include "deployer/patcher.h"
#include "support/sandbox.h"

namespace patchmgmt::deployer {

using Names = std::set<std::string>;
using Lines = std::vector<std::string>;

// A real /bin/sh deployment script in a temporary directory, and the tool's
// logger writing to a file beside it.
class ScriptTest : public pmtest::LogCaptureTest {
 protected:
  void SetUp() override {
    LogCaptureTest::SetUp();
    // Records its arguments; the package name's last "-N" is the outcome N,
    // reported with exit code N + 10 so that it differs from the process's 0.
    WriteScript("printf '%s|' \"$@\" >> '" + callsPath_ + "'; echo >> '" + callsPath_ +
                "'\n"
                "printf 'out:%s' \"$1\"; printf 'err:%s' \"$1\" >&2\n"
                "code=${1##*-}\n"
                "printf '{\"customExitCode\":%d,\"exitCode\":%d}' \"$code\" \"$((code + 10))\" > \"$2\"");
  }

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
};

}  // namespace patchmgmt::deployer
