#include "util/hosttools.h"

#include <Poco/Exception.h>
#include <Poco/RegularExpression.h>
#include <unistd.h>

#include <sstream>

#include "util/log.h"
#include "zelkor/agent.h"
#include "zelkor/command.h"

namespace patchmgmt {

namespace {

// The process tools are looked up in the system's own directories, never
// through PATH: the tool runs as root and must not run whatever an inherited
// environment puts first.
std::string SystemProgram(const std::string& name) {
  for (const char* dir : {"/usr/bin/", "/bin/", "/usr/sbin/", "/sbin/"}) {
    std::string candidate = dir + name;
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return "/usr/bin/" + name;
}

// Runs a process tool with its pattern as the last argument. "--" keeps a
// pattern that starts with "-" from being taken for an option (for pkill, a
// different signal).
bool RunProcessTool(const std::string& commandLine, std::vector<std::string> argv,
                    util::CommandResult& result) {
  argv[0] = SystemProgram(argv[0]);
  util::CommandDetails details{commandLine, std::move(argv)};
  result = util::CommandResult{"", "", 0, 0, 30, 0, 5120, 0};
  return util::ExecuteCommand(details, result);
}

}  // namespace

bool CheckOSFilter(const std::string& hostOs, const std::string& filter) {
  PM_DEBUG("Host OS: " << hostOs << ", OS Filter " << filter);
  try {
    Poco::RegularExpression expression(filter, Poco::RegularExpression::RE_CASELESS, true);
    Poco::RegularExpression::Match match;
    return expression.match(hostOs, 0, match, 0) > 0;
  } catch (const Poco::Exception& e) {
    PM_ERROR("[Patch]: CheckOSFilter caught exception: " << e.displayText());
    return false;
  }
}

std::vector<int> FindProcessIds(const std::string& pattern) {
  util::CommandResult result;
  RunProcessTool("pgrep -f " + pattern, {"pgrep", "-f", "--", pattern}, result);

  std::vector<int> ids;
  std::istringstream lines(result.stdOut);
  std::string line;
  std::string listed;
  while (std::getline(lines, line)) {
    if (line.empty() || line.size() > 9 || line.find_first_not_of("0123456789") != std::string::npos)
      continue;
    ids.push_back(std::stoi(line));
    listed += (listed.empty() ? "" : ", ") + line;
  }
  PM_DEBUG("[Patch]:Found process id: " << listed);
  return ids;
}

void SendStopSignal(const std::string& pattern) {
  const std::string command = "pkill -SIGUSR1 -f " + pattern;
  util::CommandResult result;
  const bool started = RunProcessTool(command, {"pkill", "-SIGUSR1", "-f", "--", pattern}, result);
  if (!started || result.exitCode != 0) {
    PM_ERROR("[Patch]:command failed. Cmd: [" << command << "] stderr: [" << result.stdErr << "] stdout: ["
                                              << result.stdOut << "]");
    return;
  }
  PM_INFO("SIGUSR1 send to processes matching: " << pattern);
}

std::string GetToolPath() { return zagent::GetProjectDataDir() + "bin/zelkor-patchmgmt-tool"; }

}  // namespace patchmgmt
