#include "results/resultdocument.h"

#include "util/timestamps.h"
#include "util/utf8.h"

namespace patchmgmt {

void ResultWriter::String(std::string_view text) {
  if (IsValidUtf8(text)) {
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
