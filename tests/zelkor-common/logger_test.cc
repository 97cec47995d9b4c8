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

TEST(Logger, RefusesBrokenConfigurationsWithoutThrowing) {
  pmtest::TempDir dir;
  EXPECT_FALSE(util::logger::InitializeLogger(dir.Join("missing.conf"), dir.path() + "/"));
  for (const std::string broken :
       {"logging.loggers.tool.level = loudest\n", "logging.channels.file.class = NoSuchChannel\n",
        "logging.channels.file.path = ${a}\na = ${b}\nb = ${a}\n"}) {
    const std::string config = pmtest::WriteLogConfig(dir.Join("log.conf"), dir.Join("tool.log"));
    pmtest::WriteTextFile(config, pmtest::ReadTextFile(config) + broken);
    EXPECT_FALSE(util::logger::InitializeLogger(config, dir.path() + "/")) << broken;
  }
}

}  // namespace
