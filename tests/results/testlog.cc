#include "testlog.h"

#include <gtest/gtest.h>

#include "zelkor/agent.h"
#include "zelkor/logger.h"

namespace pmtest {

std::string LogToSandbox(const TempDir& dir) {
  zagent::LOGGER_NAME = "zelkor-patchmgmt-tool";
  const std::string logPath = dir.Join("tool.log");
  const std::string config = WriteLogConfig(dir.Join("log.conf"), logPath);
  EXPECT_TRUE(util::logger::InitializeLogger(config, dir.path()));
  return logPath;
}

}  // namespace pmtest
