#include "util/files.h"

#include <Poco/Exception.h>
#include <Poco/File.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <stdexcept>

#include "util/log.h"
#include "zelkor/filerep.h"
#include "zelkor/strerror.h"

namespace patchmgmt {

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

// Result and interim documents may name hosts, jobs and packages: what the
// tool creates for them is for root's eyes only. The modes are given to each
// call instead of through the process's file-creation mask, which the
// interim thread would see change under its feet.
constexpr mode_t kPrivateDirectoryMode = 0700;
constexpr mode_t kPrivateFileMode = 0600;

void CreateDirectory(const std::string& path) {
  struct stat info {};
  if (path.empty() || ::stat(path.c_str(), &info) == 0) return;
  // Each missing level from the top down; an existing one keeps its mode.
  for (size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    const std::string level = path.substr(0, end);
    if (!level.empty() && ::mkdir(level.c_str(), kPrivateDirectoryMode) != 0 && errno != EEXIST) {
      PM_ERROR("[Patch]:Exception occurred in create directory for path: " << path << " error: "
                                                                           << util::strerror(errno));
      return;
    }
    if (end == std::string::npos) break;
  }
  if (::stat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
    PM_ERROR("[Patch]:Exception occurred in create directory for path: " << path << " error: "
                                                                         << util::strerror(ENOTDIR));
  }
}

void CreateFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kPrivateFileMode);
  if (fd >= 0) {
    ::close(fd);
  } else if (errno != EEXIST) {
    PM_ERROR("[Patch]:Exception occurred in create for path: " << path
                                                               << " error: " << util::strerror(errno));
  }
}

}  // namespace patchmgmt
