#include "util/filewriter.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "zelkor/strerror.h"

namespace patchmgmt {

namespace {

FileSystem realFileSystem;
FileSystem* currentFileSystem = &realFileSystem;

// Writes all of `data` at the descriptor's position; false with errno set.
bool WriteAll(FileSystem& fs, int fd, std::string_view data) {
  while (!data.empty()) {
    const ssize_t written = fs.Write(fd, data.data(), data.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) {
      // A write that takes nothing without an error would loop for ever.
      if (written == 0) errno = ENOSPC;
      return false;
    }
    data.remove_prefix(static_cast<size_t>(written));
  }
  return true;
}

// Syncs and closes `fd`; every failure counts, the close's included (NFS and
// some full-disk paths report the lost write only there).
bool SyncAndClose(FileSystem& fs, int fd) {
  const bool synced = fs.Sync(fd) == 0;
  const int syncError = errno;
  const bool closed = fs.Close(fd) == 0;
  if (!synced) errno = syncError;
  return synced && closed;
}

FileWriteError Failed(FileWriteError::Step step, int error) { return FileWriteError{step, error}; }

}  // namespace

int FileSystem::Open(const std::string& path, int flags, mode_t mode) {
  return ::open(path.c_str(), flags | O_CLOEXEC, mode);
}
ssize_t FileSystem::Write(int fd, const char* data, size_t size) { return ::write(fd, data, size); }
int FileSystem::Sync(int fd) { return ::fsync(fd); }
int FileSystem::Close(int fd) { return ::close(fd); }
int FileSystem::Reserve(int fd, off_t length) { return ::fallocate(fd, FALLOC_FL_KEEP_SIZE, 0, length); }
int FileSystem::Truncate(int fd, off_t length) { return ::ftruncate(fd, length); }
int FileSystem::Rename(const std::string& from, const std::string& to) {
  return std::rename(from.c_str(), to.c_str());
}
int FileSystem::Remove(const std::string& path) { return ::unlink(path.c_str()); }

FileSystem& FileSystem::Current() { return *currentFileSystem; }

void FileSystem::SetForTesting(FileSystem* fileSystem) {
  currentFileSystem = fileSystem != nullptr ? fileSystem : &realFileSystem;
}

std::string FileWriteError::Text() const { return util::strerror(error); }

FileWriteError WriteNewFile(const std::string& path, std::string_view data, mode_t mode) {
  FileSystem& fs = FileSystem::Current();
  const int fd = fs.Open(path, O_WRONLY | O_CREAT | O_TRUNC, mode);
  if (fd < 0) return Failed(FileWriteError::kOpen, errno);
  if (!WriteAll(fs, fd, data)) {
    const int error = errno;
    fs.Close(fd);
    fs.Remove(path);
    return Failed(FileWriteError::kWrite, error);
  }
  if (!SyncAndClose(fs, fd)) {
    const int error = errno;
    fs.Remove(path);
    return Failed(FileWriteError::kWrite, error);
  }
  return {};
}

FileWriteError ReplaceFile(const std::string& path, std::string_view data, mode_t mode) {
  const std::string temporary = path + ".tmp";
  if (FileWriteError failure = WriteNewFile(temporary, data, mode)) return failure;
  FileSystem& fs = FileSystem::Current();
  if (fs.Rename(temporary, path) != 0) {
    const int error = errno;
    fs.Remove(temporary);
    return Failed(FileWriteError::kRename, error);
  }
  return {};
}

FileWriteError CreateReservedFile(const std::string& path, off_t reserve, mode_t mode) {
  FileSystem& fs = FileSystem::Current();
  const int fd = fs.Open(path, O_WRONLY | O_CREAT | O_TRUNC, mode);
  if (fd < 0) return Failed(FileWriteError::kOpen, errno);
  // Not every file system can reserve; the empty file is what matters most.
  fs.Reserve(fd, reserve);
  if (!SyncAndClose(fs, fd)) return Failed(FileWriteError::kWrite, errno);
  return {};
}

FileWriteError OverwriteFile(const std::string& path, std::string_view data) {
  FileSystem& fs = FileSystem::Current();
  // No O_TRUNC: truncating first would hand the reserved space back.
  const int fd = fs.Open(path, O_WRONLY, 0);
  if (fd < 0) return Failed(FileWriteError::kOpen, errno);
  if (!WriteAll(fs, fd, data) || fs.Truncate(fd, static_cast<off_t>(data.size())) != 0) {
    const int error = errno;
    fs.Close(fd);
    return Failed(FileWriteError::kWrite, error);
  }
  if (!SyncAndClose(fs, fd)) return Failed(FileWriteError::kWrite, errno);
  return {};
}

}  // namespace patchmgmt
