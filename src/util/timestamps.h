#pragma once

#include <Poco/Timestamp.h>

#include <cstdint>
#include <ctime>
#include <string>

namespace patchmgmt {

// Result time "%Y-%m-%dT%H:%M:%S.%iZ" (UTC, milliseconds), e.g.
// 2024-01-31T17:05:09.123Z. On a library error the failure is logged and the
// result is empty text.
std::string FormatUtcMilliseconds(uint64_t ms);
std::string FormatUtcSeconds(int64_t s);
std::string FormatUtcMicroseconds(int64_t us);

// Parses result-time text strictly: the milliseconds and the trailing "Z"
// are required. Logs and rethrows on failure.
Poco::Timestamp ParseUtcTimestamp(const std::string& text);

// Whole seconds since the epoch of a result-time text; 0 when it fails to
// parse (a bad manifest time reads as the epoch).
int64_t ParseUtcSeconds(const std::string& text);

// Status-row time "%FT%TZ" in UTC, e.g. 2024-01-31T17:05:09Z.
std::string FormatStatusTime(int64_t seconds);

}  // namespace patchmgmt
