// Repair of invalid UTF-8: each maximal invalid subpart becomes one U+FFFD and
// nothing valid is lost around it.
#include "util/utf8.h"

#include <gtest/gtest.h>

namespace patchmgmt {
namespace {

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

}  // namespace
}  // namespace patchmgmt
