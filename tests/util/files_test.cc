#include "util/files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

#include "support/sandbox.h"

namespace {

using FilesTest = pmtest::LogCaptureTest;

mode_t ModeOf(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

TEST_F(FilesTest, CreatesMissingLevelsOwnerOnlyAndLeavesExistingPathsAlone) {
  const mode_t before = umask(022);
  const std::string level1 = dir_.Join("one");
  const std::string level3 = level1 + "/two/three";
  ASSERT_EQ(mkdir(level1.c_str(), 0755), 0);
  patchmgmt::CreateDirectory(level3);
  EXPECT_EQ(ModeOf(level1), 0755u);
  EXPECT_EQ(ModeOf(level1 + "/two"), 0700u);
  EXPECT_EQ(ModeOf(level3), 0700u);

  const std::string file = level3 + "/notes.txt";
  patchmgmt::CreateFile(file);
  EXPECT_EQ(ModeOf(file), 0600u);
  pmtest::WriteTextFile(file, "kept", 0644);
  patchmgmt::CreateFile(file);
  EXPECT_EQ(ModeOf(file), 0644u);
  EXPECT_EQ(pmtest::ReadTextFile(file), "kept");
  EXPECT_EQ(umask(before), 022u) << "the caller's file-creation mask must come back";

  patchmgmt::CreateDirectory(file + "/below");
  EXPECT_TRUE(pmtest::HasLogPrefix(
      Log(), "[Patch]:Exception occurred in create directory for path: " + file + "/below error: "));
}

TEST_F(FilesTest, ReadsWholeFilesAndFailsOnMissingOnes) {
  const std::string empty = dir_.Join("empty");
  pmtest::WriteTextFile(empty, "");
  EXPECT_EQ(patchmgmt::ReadFile(empty), "");

  const std::string binary("{\"a\":1}\0tail\n", 13);
  pmtest::WriteTextFile(dir_.Join("data"), binary);
  EXPECT_EQ(patchmgmt::ReadFile(dir_.Join("data")), binary);

  const std::string missing = dir_.Join("missing.json");
  EXPECT_THROW(patchmgmt::ReadFile(missing), std::runtime_error);
  EXPECT_TRUE(pmtest::HasLogLine(
      Log(), "[Patch]:Failed to open file: " + missing + ", error: No such file or directory", "Error"));
  EXPECT_ANY_THROW(patchmgmt::ReadFile(dir_.path()));
}

}  // namespace
