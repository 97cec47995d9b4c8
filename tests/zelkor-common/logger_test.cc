#include "zelkor/logger.h"

#include <sys/stat.h>

#include "support/sandbox.h"

namespace {

TEST(Logger, WritesUnderTheLogDirectoryItCreatesOwnerOnly) {
  pmtest::TempDir dir;
  const std::string config = pmtest::WriteLogConfig(dir.Join("log.conf"), "${logdir}tool.log");
  const std::string logDir = dir.Join("var/log/zelkor/");
  ASSERT_TRUE(util::logger::InitializeLogger(config, logDir));
  struct stat info {};
  ASSERT_EQ(stat(logDir.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700u);
  util::logger::GetLogger("zelkor-patchmgmt-tool").information("written where expected");
  EXPECT_EQ(pmtest::ReadTextFile(logDir + "tool.log"), "Information|written where expected\n");
}

}  // namespace
