// The one writer of the tool's files: a failure at any step leaves what stood
// at the path untouched and no partial file anywhere.
#include "util/filewriter.h"

#include <sys/stat.h>

#include "support/faultyfs.h"
#include "support/sandbox.h"
#include "zelkor/strerror.h"

namespace patchmgmt {
namespace {

using pmtest::FaultyFileSystem;

TEST(FileWriterTest, EveryFailedStepKeepsThePreviousContentAndLeavesNoPartialFile) {
  const struct {
    FaultyFileSystem::Call call;
    int error;
    size_t writeBudget;
    FileWriteError::Step step;
  } cases[] = {
      {FaultyFileSystem::kOpen, EACCES, 0, FileWriteError::kOpen},
      {FaultyFileSystem::kWrite, ENOSPC, 5, FileWriteError::kWrite},  // a short write, then a full disk
      {FaultyFileSystem::kWrite, EIO, 0, FileWriteError::kWrite},
      {FaultyFileSystem::kSync, EIO, 0, FileWriteError::kWrite},
      {FaultyFileSystem::kClose, EDQUOT, 0, FileWriteError::kWrite},
      {FaultyFileSystem::kRename, EXDEV, 0, FileWriteError::kRename},
  };
  pmtest::TempDir dir;
  const std::string path = dir.Join("doc.json");
  umask(022);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.call);
    pmtest::WriteTextFile(path, "previous");
    FileWriteError failure;
    {
      FaultyFileSystem faulty(c.call, c.error, c.writeBudget);
      failure = ReplaceFile(path, "the new document");
    }
    EXPECT_EQ(failure.step, c.step);
    EXPECT_EQ(failure.Text(), util::strerror(c.error));
    EXPECT_EQ(pmtest::ReadTextFile(path), "previous");
    EXPECT_EQ(pmtest::ListDir(dir.path()), std::vector<std::string>{"doc.json"});
  }
  EXPECT_FALSE(ReplaceFile(path, "the new document"));
  EXPECT_EQ(pmtest::ReadTextFile(path), "the new document");
  struct stat info {};
  ASSERT_EQ(stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0644u);
}

TEST(FileWriterTest, ReservedFileIsEmptyUntilOverwrittenAndTakesAShorterText) {
  pmtest::TempDir dir;
  const std::string path = dir.Join(".job.1.2.exit");
  ASSERT_FALSE(CreateReservedFile(path, 16));
  EXPECT_EQ(pmtest::ReadTextFile(path), "");
  ASSERT_FALSE(OverwriteFile(path, "-2147483648"));
  ASSERT_FALSE(OverwriteFile(path, "49"));
  EXPECT_EQ(pmtest::ReadTextFile(path), "49");
  EXPECT_EQ(OverwriteFile(dir.Join("absent"), "0").step, FileWriteError::kOpen);
}

}  // namespace
}  // namespace patchmgmt
