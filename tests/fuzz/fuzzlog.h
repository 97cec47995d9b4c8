#pragma once

#include <Poco/Logger.h>
#include <Poco/NullChannel.h>

#include "zelkor/agent.h"

// Every target's start-up: every message of the code under test is
// formatted, as at the most verbose level, and then dropped.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  zagent::LOGGER_NAME = "zelkor-patchmgmt-tool";
  Poco::Logger& logger = Poco::Logger::get(zagent::LOGGER_NAME);
  logger.setChannel(new Poco::NullChannel);
  logger.setLevel(Poco::Message::PRIO_TRACE);
  return 0;
}
