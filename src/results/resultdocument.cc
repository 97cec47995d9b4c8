#include "results/resultdocument.h"

#include "util/timestamps.h"

namespace patchmgmt {

using rapidjson::Value;

namespace {

Value CopyString(const std::string& text, JsonAllocator& allocator) {
  return Value(text.data(), static_cast<rapidjson::SizeType>(text.size()), allocator);
}

}  // namespace

Value ResultHeader(const JobRunInfo& jobRunInfo, bool withEndTime, const char* resultType,
                   JsonAllocator& allocator) {
  Value header(rapidjson::kObjectType);
  header.AddMember("jobId", CopyString(jobRunInfo.jobId, allocator), allocator);
  header.AddMember("manifestInstanceId", Value(jobRunInfo.manifestInstanceId), allocator);
  header.AddMember("runId", Value(jobRunInfo.runId), allocator);
  header.AddMember("vendorId", CopyString(jobRunInfo.vendorId, allocator), allocator);
  header.AddMember("agentVersion", CopyString(jobRunInfo.agentVersion, allocator), allocator);
  header.AddMember("startDateTime", CopyString(FormatUtcMilliseconds(jobRunInfo.startTime), allocator),
                   allocator);
  if (withEndTime) {
    header.AddMember("endDateTime", CopyString(FormatUtcMilliseconds(jobRunInfo.endTime), allocator),
                     allocator);
  }
  if (!jobRunInfo.jobReceivedDateTime.empty()) {
    header.AddMember("jobReceivedDateTime", CopyString(jobRunInfo.jobReceivedDateTime, allocator), allocator);
  }
  header.AddMember("resultType", Value(rapidjson::StringRef(resultType)), allocator);
  return header;
}

Value FailedPatchEntry(Value id, uint64_t size, Value successPackages, Value pendingExecutionPackages,
                       Value alreadyInstalledPackages, Value notApplicablePackages, Value failedPackages,
                       JsonAllocator& allocator) {
  Value entry(rapidjson::kObjectType);
  entry.AddMember("id", id, allocator);
  entry.AddMember("reason", 0, allocator);
  entry.AddMember("osstatus", 0, allocator);
  entry.AddMember("httpstatus", 0, allocator);
  entry.AddMember("size", Value(size), allocator);
  entry.AddMember("successPackages", successPackages, allocator);
  entry.AddMember("pendingExecutionPackages", pendingExecutionPackages, allocator);
  entry.AddMember("alreadyInstalledPackages", alreadyInstalledPackages, allocator);
  entry.AddMember("notApplicablePackages", notApplicablePackages, allocator);
  entry.AddMember("failedPackages", failedPackages, allocator);
  return entry;
}

Value EmptyFailedPatchEntry(Value id, JsonAllocator& allocator) {
  return FailedPatchEntry(std::move(id), 0, Value(rapidjson::kArrayType), Value(rapidjson::kArrayType),
                          Value(rapidjson::kArrayType), Value(rapidjson::kArrayType),
                          Value(rapidjson::kArrayType), allocator);
}

void SerializeCompact(const Value& value, rapidjson::StringBuffer& out) {
  rapidjson::Writer<rapidjson::StringBuffer> writer(out);
  value.Accept(writer);
}

}  // namespace patchmgmt
