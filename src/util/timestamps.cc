#include "util/timestamps.h"

#include <Poco/DateTime.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/DateTimeParser.h>
#include <Poco/Exception.h>
#include <time.h>

#include <cstdio>
#include <cstdlib>

#include "util/log.h"

namespace patchmgmt {

namespace {

constexpr const char* kResultTimeFormat = "%Y-%m-%dT%H:%M:%S.%iZ";

// The only shape a result time may have: "YYYY-MM-DDTHH:MM:SS.mmmZ". The date
// library's parser skips what it does not recognise, so without this check a
// manifest time that lost its milliseconds or its zone marker (or is not a
// time at all) would silently become some other instant instead of failing.
bool HasResultTimeShape(const std::string& text) {
  static constexpr char kShape[] = "dddd-dd-ddTdd:dd:dd.dddZ";
  if (text.size() != sizeof(kShape) - 1) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool digit = text[i] >= '0' && text[i] <= '9';
    if (kShape[i] == 'd' ? !digit : text[i] != kShape[i]) return false;
  }
  return true;
}

std::string FormatWithStrftime(const std::tm& broken, const char* format) {
  char buffer[64];
  size_t length = std::strftime(buffer, sizeof buffer, format, &broken);
  return std::string(buffer, length);
}

}  // namespace

std::string FormatUtcMilliseconds(uint64_t ms) {
  return FormatUtcMicroseconds(static_cast<int64_t>(ms) * 1000);
}

std::string FormatUtcSeconds(int64_t s) { return FormatUtcMicroseconds(s * 1000000); }

std::string FormatUtcMicroseconds(int64_t us) {
  std::string text;
  try {
    text.reserve(64);
    Poco::DateTime dateTime{Poco::Timestamp(us)};
    Poco::DateTimeFormatter::append(text, dateTime, kResultTimeFormat, Poco::DateTimeFormatter::UTC);
  } catch (const Poco::Exception& e) {
    PM_ERROR("Exception in formating timeStamp to string, error: " << e.displayText());
    text.clear();
  }
  return text;
}

Poco::Timestamp ParseUtcTimestamp(const std::string& text) {
  try {
    if (!HasResultTimeShape(text)) {
      throw Poco::SyntaxException("expected YYYY-MM-DDTHH:MM:SS.mmmZ", text);
    }
    Poco::DateTime dateTime;
    int zoneDifferential = 0;
    Poco::DateTimeParser::parse(kResultTimeFormat, text, dateTime, zoneDifferential);
    // The trailing "Z" is a literal of the format, so the parsed calendar
    // time already is UTC; the differential is not applied.
    return dateTime.timestamp();
  } catch (const Poco::SyntaxException& e) {
    PM_ERROR("Syntax Exception in parsing: " << text << " to time stamp, error: " << e.displayText());
    throw;
  } catch (const Poco::Exception& e) {
    PM_ERROR("Exception in parsing: " << text << " to time stamp, error: " << e.displayText());
    throw;
  }
}

int64_t ParseUtcSeconds(const std::string& text) {
  try {
    return ParseUtcTimestamp(text).epochMicroseconds() / 1000000;
  } catch (const Poco::Exception&) {
    return 0;
  }
}

std::string FormatStatusTime(int64_t seconds) {
  const time_t value = static_cast<time_t>(seconds);
  std::tm broken{};
  if (gmtime_r(&value, &broken) == nullptr) return "";
  return FormatWithStrftime(broken, "%FT%TZ");
}

}  // namespace patchmgmt
