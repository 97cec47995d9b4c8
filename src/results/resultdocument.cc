#include "results/resultdocument.h"

#include <cstdint>
#include <cstring>

#include "util/timestamps.h"
#include "util/utf8.h"

namespace patchmgmt {

namespace {

// True when every byte is ASCII from the space up, other than a quote or a
// backslash: such text is valid UTF-8 and is its own JSON form, so it is
// copied as it stands. Names, ids and dates are nearly always such text; the
// rest goes through RapidJSON's escaping. Eight bytes at a time, with the
// usual word tricks for "some byte is zero" and "some byte is below 0x20".
bool IsPlainJsonText(std::string_view text) {
  constexpr uint64_t kOnes = 0x0101010101010101ULL;
  constexpr uint64_t kHighBits = 0x8080808080808080ULL;
  const auto hasZeroByte = [](uint64_t word) { return (word - kOnes) & ~word & kHighBits; };
  size_t at = 0;
  for (; at + 8 <= text.size(); at += 8) {
    uint64_t word = 0;
    std::memcpy(&word, text.data() + at, sizeof word);
    const uint64_t special = (word & kHighBits) | ((word - kOnes * 0x20) & ~word & kHighBits) |
                             hasZeroByte(word ^ (kOnes * '"')) | hasZeroByte(word ^ (kOnes * '\\'));
    if (special != 0) return false;
  }
  for (; at < text.size(); ++at) {
    const unsigned char byte = static_cast<unsigned char>(text[at]);
    if (byte < 0x20 || byte >= 0x80 || byte == '"' || byte == '\\') return false;
  }
  return true;
}

}  // namespace

void ResultWriter::String(std::string_view text) {
  if (IsPlainJsonText(text)) {
    writer_.PlainString(text.data(), text.size());
  } else if (IsValidUtf8(text)) {
    writer_.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
  } else {
    const std::string valid = ToValidUtf8(text);
    writer_.String(valid.data(), static_cast<rapidjson::SizeType>(valid.size()));
  }
}

void ResultWriter::JoinedString(std::string_view a, std::string_view b, std::string_view c,
                                std::string_view d) {
  // One buffer for every joined value of the document; it only ever grows.
  joined_.clear();
  joined_.append(a).append(b).append(c).append(d);
  String(joined_);
}

void ResultWriter::ResultHeader(const JobRunInfo& jobRunInfo, bool withEndTime, const char* resultType) {
  Key("jobId");
  String(jobRunInfo.jobId);
  Key("manifestInstanceId");
  Uint64(jobRunInfo.manifestInstanceId);
  Key("runId");
  Uint64(jobRunInfo.runId);
  Key("vendorId");
  String(jobRunInfo.vendorId);
  Key("agentVersion");
  String(jobRunInfo.agentVersion);
  Key("startDateTime");
  String(FormatUtcMilliseconds(jobRunInfo.startTime));
  if (withEndTime) {
    Key("endDateTime");
    String(FormatUtcMilliseconds(jobRunInfo.endTime));
  }
  if (!jobRunInfo.jobReceivedDateTime.empty()) {
    Key("jobReceivedDateTime");
    String(jobRunInfo.jobReceivedDateTime);
  }
  Key("resultType");
  String(resultType);
}

void ResultWriter::FailedPatchHead(std::string_view patchId, uint64_t size) {
  Key("id");
  String(patchId);
  Key("reason");
  Int(0);
  Key("osstatus");
  Int(0);
  Key("httpstatus");
  Int(0);
  Key("size");
  Uint64(size);
}

void ResultWriter::EmptyFailedPatch(std::string_view patchId) {
  StartObject();
  FailedPatchHead(patchId, 0);
  EmptyArray("successPackages");
  EmptyArray("pendingExecutionPackages");
  EmptyArray("alreadyInstalledPackages");
  EmptyArray("notApplicablePackages");
  EmptyArray("failedPackages");
  EndObject();
}

void ResultWriter::EmptyArray(const char* key) {
  Key(key);
  StartArray();
  EndArray();
}

}  // namespace patchmgmt
