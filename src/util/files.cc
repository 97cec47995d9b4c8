#include "util/files.h"

#include <Poco/Exception.h>
#include <Poco/File.h>
#include <Poco/RegularExpression.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "util/log.h"
#include "zelkor/command.h"
#include "zelkor/filerep.h"
#include "zelkor/strerror.h"

namespace patchmgmt {

namespace {

// Result and interim documents may name hosts, jobs and packages; what the
// tool creates for them is for root's eyes only, whatever mask the agent
// started it with.
class PrivateFileCreationMask {
 public:
  PrivateFileCreationMask() : previous_(umask(077)) {}
  ~PrivateFileCreationMask() { umask(previous_); }
  PrivateFileCreationMask(const PrivateFileCreationMask&) = delete;
  PrivateFileCreationMask& operator=(const PrivateFileCreationMask&) = delete;

 private:
  mode_t previous_;
};

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

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::in | std::ios::binary);
  if (!in.is_open()) {
    const int error = errno;
    const std::string text = "[Patch]:Failed to open file: " + path + ", error: " + util::strerror(error);
    PM_ERROR(text);
    throw std::runtime_error(text);
  }
  try {
    // A read error (a directory, an I/O fault) must reach the caller as a
    // failure, not as a short or empty content.
    in.exceptions(std::ios::badbit);
    FileRep file(path);
    if (FileRep::loadFile(file) != 0 || file.size() == 0) return "";
    // Read straight into the text that is returned: a manifest can run to
    // megabytes, and a second copy of it is wasted memory at the peak.
    std::string content(file.size(), '\0');
    in.read(content.data(), static_cast<std::streamsize>(file.size()));
    content.resize(static_cast<size_t>(in.gcount()));
    return content;
  } catch (const std::exception& e) {
    PM_ERROR("std::exception is reading file: " << e.what());
    throw;
  } catch (...) {
    PM_ERROR("Error in reading file: " << path);
    throw;
  }
}

void CreateDirectory(const std::string& path) {
  try {
    Poco::File directory(path);
    if (directory.exists()) return;
    PrivateFileCreationMask mask;
    directory.createDirectories();
  } catch (const Poco::Exception& e) {
    PM_ERROR("[Patch]:Exception occurred in create directory for path: " << path
                                                                         << " error: " << e.displayText());
  } catch (const std::exception& e) {
    PM_ERROR("[Patch]:Exception occurred in create directory for path: " << path << " error: " << e.what());
  }
}

void CreateFile(const std::string& path) {
  try {
    Poco::File file(path);
    if (file.exists()) return;
    PrivateFileCreationMask mask;
    file.createFile();
  } catch (const Poco::Exception& e) {
    PM_ERROR("[Patch]:Exception occurred in create for path: " << path << " error: " << e.displayText());
  } catch (const std::exception& e) {
    PM_ERROR("[Patch]:Exception occurred in create for path: " << path << " error: " << e.what());
  }
}

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
