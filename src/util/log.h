#pragma once

#include <Poco/Logger.h>
#include <Poco/Message.h>

#include <sstream>
#include <string>

#include "zelkor/agent.h"
#include "zelkor/logger.h"

namespace patchmgmt {

// The tool's logger, named by zagent::LOGGER_NAME.
inline Poco::Logger& ToolLogger() { return util::logger::GetLogger(zagent::LOGGER_NAME); }

// Whether the tool's logger admits `priority` (Poco::Message priorities).
inline bool IsLogged(int priority) { return ToolLogger().getLevel() >= priority; }

// Logs "[" + thread id + "]:" + text at `priority`. Never throws: a log file
// system that is full or gone (Poco's FileChannel then throws on every write)
// costs the line, never the run. Callers include catch handlers, destructors,
// the interim thread and the save of the exit code.
// Takes the text by value, so that a caller can hand over a large one (a
// script's output) without a copy.
void LogText(int priority, std::string text) noexcept;

// Room to reserve at the end of a text for the "[" + thread id + "]:" that
// LogText puts before it, so that a large text is not moved to make room.
constexpr size_t kLogPrefixRoom = 48;

}  // namespace patchmgmt

// Logs a message built with stream insertion, e.g.
//   PM_LOG(Poco::Message::PRIO_ERROR, "Failed to open file: " << path);
// The text is only formatted when the logger's level admits the priority.
// Like LogText it never throws, not even when memory runs out while the text
// is formatted.
#define PM_LOG(priority, stream_expr)                           \
  do {                                                          \
    if (::patchmgmt::IsLogged(priority)) {                      \
      try {                                                     \
        std::ostringstream pm_log_stream_;                      \
        pm_log_stream_ << stream_expr;                          \
        ::patchmgmt::LogText((priority), pm_log_stream_.str()); \
      } catch (...) {                                           \
      }                                                         \
    }                                                           \
  } while (0)

#define PM_ERROR(stream_expr) PM_LOG(Poco::Message::PRIO_ERROR, stream_expr)
#define PM_WARNING(stream_expr) PM_LOG(Poco::Message::PRIO_WARNING, stream_expr)
#define PM_INFO(stream_expr) PM_LOG(Poco::Message::PRIO_INFORMATION, stream_expr)
#define PM_DEBUG(stream_expr) PM_LOG(Poco::Message::PRIO_DEBUG, stream_expr)
#define PM_TRACE(stream_expr) PM_LOG(Poco::Message::PRIO_TRACE, stream_expr)
