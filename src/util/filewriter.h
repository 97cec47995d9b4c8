#pragma once

#include <fcntl.h>
#include <sys/types.h>

#include <string>
#include <string_view>

namespace patchmgmt {

// The system calls behind every file the tool writes: documents, the exit-code
// file, health-status message files, argument files. Tests put their own in
// place to make any of them fail (ENOSPC, EIO) without filling a disk. Each
// operation returns what the system call returns, with errno set on failure.
class FileSystem {
 public:
  virtual ~FileSystem() = default;

  virtual int Open(const std::string& path, int flags, mode_t mode);
  virtual ssize_t Write(int fd, const char* data, size_t size);
  virtual int Sync(int fd);
  virtual int Close(int fd);
  // fallocate(FALLOC_FL_KEEP_SIZE): disk space for `length` bytes, size unchanged.
  virtual int Reserve(int fd, off_t length);
  virtual int Truncate(int fd, off_t length);
  virtual int Rename(const std::string& from, const std::string& to);
  virtual int Remove(const std::string& path);

  // The file system in use: the real one unless a test has put another there.
  static FileSystem& Current();
  // REQUIRES: no file is being written. nullptr puts the real one back.
  static void SetForTesting(FileSystem* fileSystem);
};

// Where writing a file failed, and why. Empty (false) on success.
struct FileWriteError {
  enum Step { kNone, kOpen, kWrite, kRename };
  Step step = kNone;
  int error = 0;

  explicit operator bool() const { return step != kNone; }
  // The system's text for `error`.
  std::string Text() const;
};

// Files of the tool are never writable by group or others.
constexpr mode_t kToolFileMode = 0644;

// Writes `data` as the whole content of `path` (created, or truncated) and
// makes it durable: every write is checked, then fsync and close. A failure
// after the open removes the file, so no reader ever finds a short one.
FileWriteError WriteNewFile(const std::string& path, std::string_view data, mode_t mode = kToolFileMode);

// Replaces `path` by a file holding `data`: written in full to `path` + ".tmp"
// (WriteNewFile), then renamed over `path`. Until the rename, whatever stood at
// `path` stays as it was; on failure the temporary file is removed.
FileWriteError ReplaceFile(const std::string& path, std::string_view data, mode_t mode = kToolFileMode);

// Creates `path` empty (truncating what was there) with disk space for
// `reserve` bytes set aside, so that writing at most that many bytes later
// cannot fail for lack of space. A file system that cannot reserve space still
// gets the empty file.
FileWriteError CreateReservedFile(const std::string& path, off_t reserve, mode_t mode = kToolFileMode);

// Writes `data` over the start of the existing file `path`, cuts the file to
// that length and makes it durable. Space reserved by CreateReservedFile is
// used, never released first.
FileWriteError OverwriteFile(const std::string& path, std::string_view data);

}  // namespace patchmgmt
