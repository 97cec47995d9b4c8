#include "zelkor/filerep.h"

#include <Poco/DigestEngine.h>
#include <Poco/SHA2Engine.h>
#include <sys/stat.h>

#include <cerrno>

int FileRep::loadFile(FileRep& file) {
  struct stat info {};
  if (::stat(file.path_.c_str(), &info) != 0) return errno;
  file.size_ = static_cast<uint64_t>(info.st_size);
  file.mode_ = info.st_mode;
  file.modifiedSeconds_ = static_cast<int64_t>(info.st_mtim.tv_sec);
  return 0;
}

int FileRep::calculateDigest(int type, const void* data, size_t length, std::string& out, bool /*flag*/) {
  if (type != kDigestSha256) return 1;
  if (data == nullptr && length != 0) return 2;
  Poco::SHA2Engine engine(Poco::SHA2Engine::SHA_256);
  if (length != 0) engine.update(data, length);
  out = Poco::DigestEngine::digestToHex(engine.digest());
  return 0;
}
