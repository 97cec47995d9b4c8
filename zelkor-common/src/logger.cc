#include "zelkor/logger.h"

#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>
#include <Poco/Util/AbstractConfiguration.h>
#include <Poco/Util/LoggingConfigurator.h>
#include <Poco/Util/PropertyFileConfiguration.h>
#include <sys/stat.h>

#include <cerrno>
#include <exception>
#include <fstream>
#include <vector>

namespace util::logger {
namespace {

using Poco::Util::AbstractConfiguration;

// The log file paths of every FileChannel the configuration defines, either
// under "logging.channels" or inline as a logger's "channel", with ${...}
// already expanded.
std::vector<std::string> FileChannelPaths(const AbstractConfiguration& config) {
  std::vector<std::string> paths;
  auto collect = [&](const std::string& channelKey) {
    if (config.getString(channelKey + ".class", "") != "FileChannel") return;
    std::string path = config.getString(channelKey + ".path", "");
    if (!path.empty()) paths.push_back(path);
  };
  AbstractConfiguration::Keys names;
  config.keys("logging.channels", names);
  for (const auto& name : names) collect("logging.channels." + name);
  names.clear();
  config.keys("logging.loggers", names);
  for (const auto& name : names) collect("logging.loggers." + name + ".channel");
  return paths;
}

// Creates every missing directory above `filePath`, readable by the owner
// only: log files may carry package names and host details.
bool CreateParentDirectories(const std::string& filePath) {
  const auto lastSlash = filePath.rfind('/');
  if (lastSlash == std::string::npos || lastSlash == 0) return true;
  const std::string dir = filePath.substr(0, lastSlash);
  for (std::string::size_type pos = 1; pos <= dir.size(); ++pos) {
    if (pos != dir.size() && dir[pos] != '/') continue;
    const std::string prefix = dir.substr(0, pos);
    if (::mkdir(prefix.c_str(), 0700) != 0 && errno != EEXIST) return false;
  }
  struct stat info {};
  return ::stat(dir.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace

bool InitializeLogger(const std::string& configPath, const std::string& logDir) {
  try {
    // PropertyFileConfiguration reads whatever the stream yields, so an
    // unreadable file must be caught here rather than applied as empty.
    struct stat info {};
    if (::stat(configPath.c_str(), &info) != 0 || S_ISDIR(info.st_mode)) return false;
    std::ifstream file(configPath);
    if (!file) return false;
    Poco::AutoPtr<Poco::Util::PropertyFileConfiguration> config(
        new Poco::Util::PropertyFileConfiguration(file));
    if (file.bad()) return false;
    config->setString("logdir", logDir);
    for (const auto& path : FileChannelPaths(*config)) {
      if (!CreateParentDirectories(path)) return false;
    }
    Poco::Util::LoggingConfigurator configurator;
    configurator.configure(config);
    return true;
  } catch (const Poco::Exception&) {
    return false;
  } catch (const std::exception&) {
    return false;
  }
}

Poco::Logger& GetLogger(const std::string& name) { return Poco::Logger::get(name); }

}  // namespace util::logger
