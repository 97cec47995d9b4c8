// The tool's helpers: files and the one writer of every file the tool writes,
// times in their several forms, UTF-8 repair, and the host tools.
#include <Poco/Exception.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

#include "support/faultyfs.h"
#include "support/sandbox.h"
#include "util/files.h"
#include "util/filewriter.h"
#include "util/hosttools.h"
#include "util/localtime.h"
#include "util/timestamps.h"
#include "util/utf8.h"
#include "zelkor/strerror.h"

namespace patchmgmt {
namespace {

using pmtest::FaultyFileSystem;
using pmtest::HasLogLine;
using pmtest::HasLogPrefix;
using UtilTest = pmtest::LogCaptureTest;

mode_t ModeOf(const std::string& path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 ? (st.st_mode & 07777) : 0;
}

TEST_F(UtilTest, CreatesMissingLevelsOwnerOnlyAndLeavesExistingPathsAlone) {
  const mode_t before = umask(022);
  const std::string level1 = dir_.Join("one");
  const std::string level3 = level1 + "/two/three";
  ASSERT_EQ(mkdir(level1.c_str(), 0755), 0);
  CreateDirectory(level3);
  EXPECT_EQ(ModeOf(level1), 0755u);
  EXPECT_EQ(ModeOf(level1 + "/two"), 0700u);
  EXPECT_EQ(ModeOf(level3), 0700u);

  const std::string file = level3 + "/notes.txt";
  CreateFile(file);
  EXPECT_EQ(ModeOf(file), 0600u);
  pmtest::WriteTextFile(file, "kept", 0644);
  CreateFile(file);
  EXPECT_EQ(ModeOf(file), 0644u);
  EXPECT_EQ(pmtest::ReadTextFile(file), "kept");
  EXPECT_EQ(umask(before), 022u) << "the caller's file-creation mask must come back";

  CreateDirectory(file + "/below");
  EXPECT_TRUE(HasLogPrefix(
      Log(), "[Patch]:Exception occurred in create directory for path: " + file + "/below error: "));
}

TEST_F(UtilTest, ReadsWholeFilesAndFailsOnMissingOnes) {
  pmtest::WriteTextFile(dir_.Join("empty"), "");
  EXPECT_EQ(ReadFile(dir_.Join("empty")), "");
  const std::string binary("{\"a\":1}\0tail\n", 13);
  pmtest::WriteTextFile(dir_.Join("data"), binary);
  EXPECT_EQ(ReadFile(dir_.Join("data")), binary);

  const std::string missing = dir_.Join("missing.json");
  EXPECT_THROW(ReadFile(missing), std::runtime_error);
  EXPECT_TRUE(HasLogLine(
      Log(), "[Patch]:Failed to open file: " + missing + ", error: No such file or directory", "Error"));
  EXPECT_ANY_THROW(ReadFile(dir_.path()));
}

// A failure at any step of the one writer leaves what stood at the path
// untouched and no partial file anywhere.
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
  EXPECT_EQ(ModeOf(path), 0644u);
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

// The document and status-row forms are checked whole in the documents and
// rows that carry them.
TEST_F(UtilTest, TimesAreWrittenInTheirOwnFormsReadBackAndMalformedOnesLogged) {
  EXPECT_EQ(FormatUtcSeconds(1706720709), "2024-01-31T17:05:09.000Z");
  EXPECT_EQ(ParseLocalTime(FormatLocalTime(1706720709)), 1706720709);
  EXPECT_EQ(ParseLocalTime("2024-01-31 17:05:09 tomorrow"), -1);
  EXPECT_EQ(ParseUtcSeconds("2024-01-31T17:05:09.999Z"), 1706720709);
  const uint64_t ms = 1706720709123;
  EXPECT_EQ(ParseUtcTimestamp(FormatUtcMilliseconds(ms)).epochMicroseconds(),
            static_cast<int64_t>(ms * 1000));
  for (const std::string bad :
       {"2024-01-31T17:05:09Z", "2024-01-31T17:05:09.123", "garbage", "", "2024-1-31T17:05:09.123Z",
        "2024-01-31 17:05:09.123Z", "2024-13-31T17:05:09.123Z", "2024-01-31T17:05:09.123Z "}) {
    SCOPED_TRACE(bad);
    EXPECT_EQ(ParseUtcSeconds(bad), 0);
    EXPECT_THROW(ParseUtcTimestamp(bad), Poco::SyntaxException);
    EXPECT_TRUE(HasLogPrefix(Log(), "Syntax Exception in parsing: " + bad + " to time stamp, error: "));
  }
}

// Each maximal invalid subpart becomes one U+FFFD and nothing valid is lost
// around it.
TEST(Utf8, InvalidSequencesBecomeOneReplacementEachAndValidTextStays) {
  const std::string r = "\xEF\xBF\xBD";
  const struct {
    std::string in;
    std::string out;
  } cases[] = {
      {"plain ascii", "plain ascii"},
      {std::string("nul\0inside", 10), std::string("nul\0inside", 10)},
      {"h\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80 \xF4\x8F\xBF\xBF",
       "h\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80 \xF4\x8F\xBF\xBF"},
      {"caf\xE9", "caf" + r},               // Latin-1
      {"\xFF\xFE", r + r},                  // never a lead byte
      {"\x80x", r + "x"},                   // lone continuation byte
      {"\xE2\x82zz", r + "zz"},             // truncated: the 'z's stay
      {"a\xE2\x82", "a" + r},               // truncated at the end
      {"\xC0\xAF", r + r},                  // overlong '/'
      {"\xE0\x80\xAF", r + r + r},          // overlong three-byte form
      {"\xED\xA0\x80", r + r + r},          // surrogate
      {"\xF4\x90\x80\x80", r + r + r + r},  // above U+10FFFF
      {"\xF0\x9F\x98", r},                  // one subpart, one replacement
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ToValidUtf8(c.in), c.out) << c.in;
    EXPECT_EQ(IsValidUtf8(c.in), c.in == c.out) << c.in;
    EXPECT_TRUE(IsValidUtf8(ToValidUtf8(c.in))) << c.in;
  }
}

TEST_F(UtilTest, OsFilterIsCaseInsensitiveAndUnanchoredAndProcessesAreFoundByCommandLine) {
  EXPECT_TRUE(CheckOSFilter("Debian GNU/Linux 12", "debian"));
  EXPECT_TRUE(CheckOSFilter("Ubuntu 22.04 LTS", "22\\.04"));
  EXPECT_FALSE(CheckOSFilter("Debian GNU/Linux 12", "^linux"));
  EXPECT_FALSE(CheckOSFilter("Debian GNU/Linux 12", "(debian"));
  EXPECT_TRUE(HasLogPrefix(Log(), "[Patch]: CheckOSFilter caught exception: "));

  const std::string self = pmtest::ReadTextFile("/proc/self/cmdline").c_str();
  const std::vector<int> found = FindProcessIds(self);
  EXPECT_NE(std::find(found.begin(), found.end(), getpid()), found.end()) << self;
  // A stop that finds nothing to signal is logged.
  const std::string nobody = "no-such-command-" + std::to_string(getpid());
  SendStopSignal(nobody);
  EXPECT_TRUE(HasLogPrefix(Log(), "[Patch]:command failed. Cmd: [pkill -SIGUSR1 -f " + nobody));
}

}  // namespace
}  // namespace patchmgmt
