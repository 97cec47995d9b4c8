#include "util/log.h"

#include <thread>

namespace patchmgmt {

void LogText(int priority, std::string text) noexcept {
  try {
    std::ostringstream prefix;
    prefix << "[" << std::this_thread::get_id() << "]:";
    text.insert(0, prefix.str());
    Poco::Logger& logger = ToolLogger();
    const Poco::Message message(logger.name(), text, static_cast<Poco::Message::Priority>(priority));
    // The message holds its own copy; a text of megabytes is not kept twice
    // while the channel formats and writes it.
    std::string().swap(text);
    logger.log(message);
  } catch (...) {
    // Nowhere left to report it: the log is the place that failed.
  }
}

}  // namespace patchmgmt
