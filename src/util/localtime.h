#pragma once

// Outside the patch run: local-time conversions that the agent's other callers
// use. No step of the run calls them; the run works in UTC throughout.

#include <Poco/Timestamp.h>

#include <cstdint>
#include <ctime>
#include <string>

namespace patchmgmt {

// Local time "%Y-%m-%d %H:%M:%S"; -1 when the text does not parse.
time_t ParseLocalTime(const std::string& text);
std::string FormatLocalTime(time_t seconds);
// Like FormatLocalTime, but "1970-01-01 00:00:00" when the conversion fails.
std::string FormatLocalTimeOrEpoch(time_t seconds);
// "UTC+hh:mm" / "UTC-hh:mm" of the host's zone.
std::string GetTimezoneText();
Poco::Timestamp CurrentUtcTimestamp();
int64_t MillisecondsToSeconds(uint64_t ms);

}  // namespace patchmgmt
