#pragma once

#include <algorithm>
#include <cerrno>
#include <string>

#include "util/filewriter.h"

namespace pmtest {

// Puts a file system in place under every file the tool writes, for the life
// of the object, that fails one kind of call with `error`. Writes succeed for
// the first `writeBudget` bytes, so that a disk filling in the middle of a
// document can be played.
class FaultyFileSystem : public patchmgmt::FileSystem {
 public:
  enum Call { kOpen, kWrite, kSync, kClose, kRename };

  FaultyFileSystem(Call failing, int error, size_t writeBudget = 0)
      : failing_(failing), error_(error), writeBudget_(writeBudget) {
    SetForTesting(this);
  }
  ~FaultyFileSystem() override { SetForTesting(nullptr); }

  int Open(const std::string& path, int flags, mode_t mode) override {
    return Fails(kOpen) ? -1 : FileSystem::Open(path, flags, mode);
  }
  ssize_t Write(int fd, const char* data, size_t size) override {
    if (failing_ != kWrite || writeBudget_ == 0)
      return Fails(kWrite) ? -1 : FileSystem::Write(fd, data, size);
    const size_t taken = std::min(size, writeBudget_);
    writeBudget_ -= taken;
    return FileSystem::Write(fd, data, taken);
  }
  int Sync(int fd) override { return Fails(kSync) ? -1 : FileSystem::Sync(fd); }
  int Close(int fd) override {
    const int closed = FileSystem::Close(fd);
    return Fails(kClose) ? -1 : closed;
  }
  int Rename(const std::string& from, const std::string& to) override {
    return Fails(kRename) ? -1 : FileSystem::Rename(from, to);
  }

 private:
  bool Fails(Call call) {
    if (call != failing_) return false;
    errno = error_;
    return true;
  }

  Call failing_;
  int error_;
  size_t writeBudget_;
};

}  // namespace pmtest
