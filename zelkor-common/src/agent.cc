#include "zelkor/agent.h"

#include <cstdlib>

namespace zagent {

std::string LOGGER_NAME;

const char* const ConfigDateFormat = "%F %T";

namespace {

// The value of `name` when it is set to something, else `fallback`.
std::string EnvironmentOr(const char* name, const char* fallback) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0' ? std::string(value) : std::string(fallback);
}

}  // namespace

std::string GetConfigBaseDirPath() {
  std::string dir = EnvironmentOr("ZELKOR_AGENT_CONFIG_DIR", "/etc/zelkor-agent");
  // Callers append "/" + file name themselves; "/" alone must stay the root.
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  return dir;
}

std::string GetProjectDataDir() {
  std::string dir = EnvironmentOr("ZELKOR_AGENT_DATA_DIR", "/opt/zelkor-agent/");
  // Callers append file names directly, so exactly one separator must end it.
  while (!dir.empty() && dir.back() == '/') dir.pop_back();
  return dir + '/';
}

}  // namespace zagent
