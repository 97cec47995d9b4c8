#include "zelkor/filerep.h"

#include <cerrno>

#include "gtest/gtest.h"
#include "support/sandbox.h"

namespace {

TEST(FileRep, Sha256DigestsAndFileDetails) {
  std::string digest;
  ASSERT_EQ(FileRep::calculateDigest(FileRep::kDigestSha256, "", 0, digest, false), 0);
  EXPECT_EQ(digest, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  ASSERT_EQ(FileRep::calculateDigest(FileRep::kDigestSha256, "abc", 3, digest, true), 0);
  EXPECT_EQ(digest, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_NE(FileRep::calculateDigest(1999, "abc", 3, digest, false), 0);

  pmtest::TempDir dir;
  FileRep file(dir.Join("package.deb"));
  EXPECT_EQ(FileRep::loadFile(file), ENOENT);
  pmtest::WriteTextFile(file.path(), "0123456789", 0640);
  ASSERT_EQ(FileRep::loadFile(file), 0);
  EXPECT_EQ(file.size(), 10u);
  EXPECT_EQ(file.mode() & 0777, 0640u);
}

}  // namespace
