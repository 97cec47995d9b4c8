#include "zelkor/filerep.h"

#include "gtest/gtest.h"

namespace {

TEST(FileRep, Sha256Digests) {
  std::string digest;
  ASSERT_EQ(FileRep::calculateDigest(FileRep::kDigestSha256, "", 0, digest, false), 0);
  EXPECT_EQ(digest, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  ASSERT_EQ(FileRep::calculateDigest(FileRep::kDigestSha256, "abc", 3, digest, true), 0);
  EXPECT_EQ(digest, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_NE(FileRep::calculateDigest(1999, "abc", 3, digest, false), 0);
}

}  // namespace
