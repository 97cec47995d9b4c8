#include "zelkor/logger.h"

#include <sys/stat.h>

#include "gtest/gtest.h"
#include "support/sandbox.h"

namespace {

std::string Config(const std::string& logger, const std::string& path, const std::string& extra = "") {
  return "logging.formatters.plain.class = PatternFormatter\n"
         "logging.formatters.plain.pattern = %p|%t\n"
         "logging.channels.file.class = FileChannel\n"
         "logging.channels.file.path = " +
         path +
         "\n"
         "logging.channels.file.formatter = plain\n"
         "logging.loggers.l.name = " +
         logger +
         "\n"
         "logging.loggers.l.channel = file\n"
         "logging.loggers.l.level = trace\n" +
         extra;
}

TEST(Logger, WritesUnderTheLogDirectoryItCreatesOwnerOnly) {
  pmtest::TempDir dir;
  const std::string config = dir.Join("log.conf");
  pmtest::WriteTextFile(config, Config("zc-logdir", "${logdir}tool.log"));
  const std::string logDir = dir.Join("var/log/zelkor/");
  ASSERT_TRUE(util::logger::InitializeLogger(config, logDir));
  struct stat info {};
  ASSERT_EQ(stat(logDir.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0700u);
  util::logger::GetLogger("zc-logdir").information("written where expected");
  EXPECT_EQ(pmtest::ReadTextFile(logDir + "tool.log"), "Information|written where expected\n");
}

TEST(Logger, RefusesBrokenConfigurationsWithoutThrowing) {
  pmtest::TempDir dir;
  const std::string config = dir.Join("log.conf");
  const std::string log = dir.Join("tool.log");
  EXPECT_FALSE(util::logger::InitializeLogger(dir.Join("missing.conf"), dir.path() + "/"));
  pmtest::WriteTextFile(config, Config("zc-broken", log, "logging.loggers.l.level = loudest\n"));
  EXPECT_FALSE(util::logger::InitializeLogger(config, dir.path() + "/"));
  pmtest::WriteTextFile(config, Config("zc-broken", log, "logging.channels.file.class = NoSuchChannel\n"));
  EXPECT_FALSE(util::logger::InitializeLogger(config, dir.path() + "/"));
  pmtest::WriteTextFile(config, Config("zc-broken", "${a}", "a = ${b}\nb = ${a}\n"));
  EXPECT_FALSE(util::logger::InitializeLogger(config, dir.path() + "/"));
}

}  // namespace
