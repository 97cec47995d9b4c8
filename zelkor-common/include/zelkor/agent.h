#pragma once

#include <string>

namespace zagent {

// Name of the logger that every component of the process logs to. Empty until
// the process sets it.
extern std::string LOGGER_NAME;

// strftime form of the agent's shared configuration times.
extern const char* const ConfigDateFormat;

// $ZELKOR_AGENT_CONFIG_DIR when set and non-empty, else "/etc/zelkor-agent".
// Never ends with a slash.
std::string GetConfigBaseDirPath();

// $ZELKOR_AGENT_DATA_DIR when set and non-empty, else "/opt/zelkor-agent/".
// Always ends with exactly one slash.
std::string GetProjectDataDir();

}  // namespace zagent
