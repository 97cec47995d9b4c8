#pragma once

#include <Poco/Logger.h>

#include <string>

namespace util::logger {

// Reads `configPath` as a Poco properties file, defines the property "logdir"
// as `logDir` (so values may say ${logdir}), creates the missing parent
// directories of every FileChannel path it names (owner-only) and applies it.
// Returns false, never throws, when the file cannot be read, parsed or
// applied.
bool InitializeLogger(const std::string& configPath, const std::string& logDir);

// Poco::Logger::get(name).
Poco::Logger& GetLogger(const std::string& name);

}  // namespace util::logger
