#include "util/log.h"

#include <thread>

namespace patchmgmt {

void LogText(int priority, const std::string& text) noexcept {
  try {
    std::ostringstream line;
    line << "[" << std::this_thread::get_id() << "]:" << text;
    Poco::Logger& logger = ToolLogger();
    logger.log(Poco::Message(logger.name(), line.str(), static_cast<Poco::Message::Priority>(priority)));
  } catch (...) {
    // Nowhere left to report it: the log is the place that failed.
  }
}

}  // namespace patchmgmt
