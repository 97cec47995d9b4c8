#include "results/resultdocument.h"

#include <algorithm>

#include "util/timestamps.h"

namespace patchmgmt {

void ResultTreeBuilder::JoinedString(std::initializer_list<std::string_view> parts) {
  size_t length = 0;
  for (auto part : parts) length += part.size();
  // The document's pool owns the text, as it would a copied string.
  char* text = static_cast<char*>(handler_.GetAllocator().Malloc(length + 1));
  char* end = text;
  for (auto part : parts) end = std::copy(part.begin(), part.end(), end);
  *end = '\0';
  RefString(std::string_view(text, length));
}

void ResultTreeBuilder::ResultHeader(const JobRunInfo& jobRunInfo, bool withEndTime, const char* resultType) {
  Key("jobId");
  CopyString(jobRunInfo.jobId);
  Key("manifestInstanceId");
  Uint64(jobRunInfo.manifestInstanceId);
  Key("runId");
  Uint64(jobRunInfo.runId);
  Key("vendorId");
  CopyString(jobRunInfo.vendorId);
  Key("agentVersion");
  CopyString(jobRunInfo.agentVersion);
  Key("startDateTime");
  CopyString(FormatUtcMilliseconds(jobRunInfo.startTime));
  if (withEndTime) {
    Key("endDateTime");
    CopyString(FormatUtcMilliseconds(jobRunInfo.endTime));
  }
  if (!jobRunInfo.jobReceivedDateTime.empty()) {
    Key("jobReceivedDateTime");
    CopyString(jobRunInfo.jobReceivedDateTime);
  }
  Key("resultType");
  RefString(resultType);
}

void ResultTreeBuilder::FailedPatchHead(const std::string& patchId, uint64_t size) {
  Key("id");
  RefString(patchId);
  Key("reason");
  Int(0);
  Key("osstatus");
  Int(0);
  Key("httpstatus");
  Int(0);
  Key("size");
  Uint64(size);
}

void ResultTreeBuilder::EmptyFailedPatch(const std::string& patchId) {
  StartObject();
  FailedPatchHead(patchId, 0);
  EmptyArray("successPackages");
  EmptyArray("pendingExecutionPackages");
  EmptyArray("alreadyInstalledPackages");
  EmptyArray("notApplicablePackages");
  EmptyArray("failedPackages");
  EndObject();
}

void ResultTreeBuilder::EmptyArray(const char* key) {
  Key(key);
  StartArray();
  EndArray();
}

void SerializeCompact(const rapidjson::Value& value, rapidjson::StringBuffer& out) {
  rapidjson::Writer<rapidjson::StringBuffer> writer(out);
  value.Accept(writer);
}

}  // namespace patchmgmt
