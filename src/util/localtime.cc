#include "util/localtime.h"

#include <Poco/Timezone.h>
#include <time.h>

#include <cstdio>
#include <cstdlib>

#include "util/log.h"

namespace patchmgmt {

namespace {

constexpr const char* kLocalTimeFormat = "%Y-%m-%d %H:%M:%S";

std::string FormatLocal(time_t seconds, bool& converted) {
  std::tm broken{};
  converted = localtime_r(&seconds, &broken) != nullptr;
  if (!converted) return "";
  char buffer[64];
  return std::string(buffer, std::strftime(buffer, sizeof buffer, kLocalTimeFormat, &broken));
}

}  // namespace

time_t ParseLocalTime(const std::string& text) {
  std::tm broken{};
  const char* end = strptime(text.c_str(), kLocalTimeFormat, &broken);
  if (end == nullptr || *end != '\0') return -1;
  broken.tm_isdst = -1;
  return mktime(&broken);
}

std::string FormatLocalTime(time_t seconds) {
  bool converted = false;
  return FormatLocal(seconds, converted);
}

std::string FormatLocalTimeOrEpoch(time_t seconds) {
  bool converted = false;
  std::string text = FormatLocal(seconds, converted);
  if (converted) return text;
  PM_ERROR("[Patch]:Failed to convert time to localtime.");
  return "1970-01-01 00:00:00";
}

std::string GetTimezoneText() {
  const long offset = Poco::Timezone::tzd();
  const long magnitude = std::labs(offset);
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%s%c%02ld:%02ld", "UTC", offset < 0 ? '-' : '+', magnitude / 3600,
                (magnitude % 3600) / 60);
  return buffer;
}

Poco::Timestamp CurrentUtcTimestamp() { return Poco::Timestamp(); }

int64_t MillisecondsToSeconds(uint64_t ms) { return static_cast<int64_t>(static_cast<double>(ms) * 0.001); }

}  // namespace patchmgmt
