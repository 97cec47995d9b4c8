#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

// A file named by path, with what stat() said of it after loadFile().
class FileRep {
 public:
  static constexpr int kDigestSha256 = 2000;

  explicit FileRep(std::string path) : path_(std::move(path)) {}

  const std::string& path() const { return path_; }
  uint64_t size() const { return size_; }
  mode_t mode() const { return mode_; }
  int64_t modifiedSeconds() const { return modifiedSeconds_; }

  // Fills size, mode and modification time from stat(); 0 on success, the
  // errno value otherwise.
  static int loadFile(FileRep& file);

  // Digest of `length` bytes at `data`. Type 2000 is SHA-256, written to `out`
  // as 64 lower-case hexadecimal characters. 0 on success, non-zero for an
  // unknown type. `flag` is accepted for compatibility and has no effect.
  static int calculateDigest(int type, const void* data, size_t length, std::string& out,
                             bool flag);

 private:
  std::string path_;
  uint64_t size_ = 0;
  mode_t mode_ = 0;
  int64_t modifiedSeconds_ = 0;
};
