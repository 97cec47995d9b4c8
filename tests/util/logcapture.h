#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/sandbox.h"
#include "zelkor/agent.h"
#include "zelkor/logger.h"

namespace pmtest {

// Routes the tool's logger into a file of the test's own temporary directory,
// at trace level, so that a test can assert the exact messages of a call.
class LogCaptureTest : public ::testing::Test {
 protected:
  void SetUp() override {
    zagent::LOGGER_NAME = "zelkor-patchmgmt-tool";
    ASSERT_TRUE(
        util::logger::InitializeLogger(WriteLogConfig(dir_.Join("log.conf"), logPath_), dir_.path() + "/"));
  }

  std::vector<LogLine> Log() const { return ReadLog(logPath_); }

  TempDir dir_;
  std::string logPath_ = dir_.Join("tool.log");
};

}  // namespace pmtest
