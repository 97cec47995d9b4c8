#include "util/timestamps.h"

#include <Poco/Exception.h>

#include "support/sandbox.h"
#include "util/localtime.h"

namespace {

using TimestampsTest = pmtest::LogCaptureTest;

TEST(Timestamps, TimesAreWrittenInTheirOwnFormsAndReadBack) {
  EXPECT_EQ(patchmgmt::FormatUtcMilliseconds(0), "1970-01-01T00:00:00.000Z");
  EXPECT_EQ(patchmgmt::FormatUtcMilliseconds(1500), "1970-01-01T00:00:01.500Z");
  EXPECT_EQ(patchmgmt::FormatUtcSeconds(1706720709), "2024-01-31T17:05:09.000Z");
  EXPECT_EQ(patchmgmt::FormatStatusTime(1706720709), "2024-01-31T17:05:09Z");
  EXPECT_EQ(patchmgmt::FormatStatusTime(0), "1970-01-01T00:00:00Z");
  EXPECT_EQ(patchmgmt::ParseLocalTime(patchmgmt::FormatLocalTime(1706720709)), 1706720709);
  EXPECT_EQ(patchmgmt::ParseLocalTime("2024-01-31 17:05:09 tomorrow"), -1);
  EXPECT_EQ(patchmgmt::ParseUtcSeconds("2024-01-31T17:05:09.999Z"), 1706720709);
  const uint64_t ms = 1706720709123;
  EXPECT_EQ(patchmgmt::ParseUtcTimestamp(patchmgmt::FormatUtcMilliseconds(ms)).epochMicroseconds(),
            static_cast<int64_t>(ms * 1000));
}

TEST_F(TimestampsTest, MalformedManifestTimesReadAsTheEpochAndAreLogged) {
  for (const std::string bad :
       {"2024-01-31T17:05:09Z", "2024-01-31T17:05:09.123", "garbage", "", "2024-1-31T17:05:09.123Z",
        "2024-01-31 17:05:09.123Z", "2024-13-31T17:05:09.123Z", "2024-01-31T17:05:09.123Z "}) {
    SCOPED_TRACE(bad);
    EXPECT_EQ(patchmgmt::ParseUtcSeconds(bad), 0);
    EXPECT_THROW(patchmgmt::ParseUtcTimestamp(bad), Poco::SyntaxException);
    EXPECT_TRUE(
        pmtest::HasLogPrefix(Log(), "Syntax Exception in parsing: " + bad + " to time stamp, error: "));
  }
}

}  // namespace
