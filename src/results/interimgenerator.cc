#include "results/interimgenerator.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fstream>

#include "healthstatus/patchstatushelper.h"
#include "results/resultdocument.h"
#include "util/json.h"
#include "util/log.h"
#include "util/timestamps.h"
#include "zelkor/filerep.h"
#include "zelkor/strerror.h"

namespace patchmgmt {

namespace {

using rapidjson::Value;

// The states' arrays in the order they appear in the document; a code's array
// is kStateArrays[code - kInterimPendingExecution].
constexpr const char* kStateArrays[] = {
    "pendingExecution", "executing",  "pendingReboot", "pendingVerification", "success",
    "failed",           "superseded", "notApplicable", "alreadyInstalled",
};
constexpr size_t kStateCount = sizeof(kStateArrays) / sizeof(kStateArrays[0]);
// Where each array goes in the document, by state index.
constexpr size_t kDocumentOrder[] = {0, 1, 2, 3, 4, 5, 8, 6, 7};

int64_t NowMilliseconds() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

int64_t NowSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

Value StateElement(uint32_t code, const std::string& patchId, const InterimResult& record,
                   JsonAllocator& allocator) {
  Value id(rapidjson::StringRef(patchId.data(), patchId.size()));
  if (code == kInterimFailed) return EmptyFailedPatchEntry(std::move(id), allocator);
  if (code == kInterimSuperseded) {
    Value element(rapidjson::kObjectType);
    element.AddMember("patchId", id, allocator);
    element.AddMember(
        "supersedingPatchId",
        Value(rapidjson::StringRef(record.supersedingPatchId.data(), record.supersedingPatchId.size())),
        allocator);
    return element;
  }
  return id;
}

}  // namespace

InterimDocument BuildInterimDocument(const InterimResultMap& snapshot, const JobRunInfo& jobRunInfo) {
  rapidjson::Document document(rapidjson::kObjectType);
  JsonAllocator& allocator = document.GetAllocator();

  Value result = ResultHeader(jobRunInfo, false, "INTERIM", allocator);
  Value arrays[kStateCount];
  for (auto& array : arrays) array.SetArray();
  for (const auto& [patchId, record] : snapshot) {
    if (!record || record->code < kInterimPendingExecution || record->code > kInterimAlreadyInstalled)
      continue;
    const size_t state = record->code - kInterimPendingExecution;
    arrays[state].PushBack(StateElement(record->code, patchId, *record, allocator), allocator);
  }
  for (size_t state : kDocumentOrder) {
    result.AddMember(rapidjson::StringRef(kStateArrays[state]), arrays[state], allocator);
  }

  InterimDocument interim;
  // The end time is left out of the digest so that documents with the same
  // content carry the same name whenever they were written.
  rapidjson::StringBuffer withoutEndTime;
  SerializeCompact(result, withoutEndTime);
  FileRep::calculateDigest(FileRep::kDigestSha256, withoutEndTime.GetString(), withoutEndTime.GetSize(),
                           interim.digest, true);

  const std::string endTime = FormatUtcMilliseconds(static_cast<uint64_t>(NowMilliseconds()));
  result.AddMember("endDateTime",
                   Value(endTime.data(), static_cast<rapidjson::SizeType>(endTime.size()), allocator),
                   allocator);
  document.AddMember("deploymentResult", result, allocator);

  rapidjson::StringBuffer text;
  SerializeCompact(document, text);
  interim.text.assign(text.GetString(), text.GetSize());
  return interim;
}

bool WriteInterimResult(const InterimResultMap& snapshot, const JobRunInfo& jobRunInfo,
                        const std::string& interimDirectory) {
  const std::string tempPath =
      interimDirectory + "/" + "PatchInterimResult_" + std::to_string(NowSeconds()) + ".json" + ".tmp";
  PM_DEBUG("Using temp file name " << tempPath << " for interim result generation.");

  const InterimDocument document = BuildInterimDocument(snapshot, jobRunInfo);
  PM_DEBUG("Created digest as - " << document.digest);

  const std::string finalPath = interimDirectory + "/" + "PatchInterimResult_" +
                                std::to_string(NowSeconds()) + "_" + document.digest + ".json";
  PM_DEBUG("Using file name " << finalPath << " for interim result generation");

  {
    std::ofstream file(tempPath, std::ios::out | std::ios::trunc | std::ios::binary);
    if (!file) {
      const int error = errno;
      PM_ERROR("Failed to open file " << tempPath << " in write mode. "
                                      << " error :" << util::strerror(error));
      return false;
    }
    file.write(document.text.data(), static_cast<std::streamsize>(document.text.size()));
  }

  PM_TRACE("Renaming file " << tempPath << "  to " << finalPath);
  if (std::rename(tempPath.c_str(), finalPath.c_str()) != 0) {
    const int renameError = errno;
    PM_ERROR("Failed to rename file " << tempPath << " error :" << util::strerror(renameError));
    PM_INFO("Removing file: " << tempPath);
    if (std::remove(tempPath.c_str()) != 0) {
      const int removeError = errno;
      PM_ERROR("Failed to remove file name: " << tempPath << " error :" << util::strerror(removeError));
    }
  }
  // The period is done even when its document could not be put in place.
  return true;
}

InterimResultGeneratorThread::InterimResultGeneratorThread(const JobRunInfo& jobRunInfo,
                                                           std::string interimDirectory,
                                                           uint32_t periodSeconds, bool generateOnStart)
    : jobRunInfo_(jobRunInfo),
      interimDirectory_(std::move(interimDirectory)),
      periodSeconds_(periodSeconds),
      generateOnStart_(generateOnStart) {}

InterimResultGeneratorThread::~InterimResultGeneratorThread() {
  Shutdown();
  if (worker_.joinable()) worker_.join();
}

void InterimResultGeneratorThread::Start() {
  worker_ = std::thread(&InterimResultGeneratorThread::Run, this);
}

void InterimResultGeneratorThread::Run() {
  running_ = true;
  PM_INFO("Interim Result Generator Thread Started");
  while (!stop_) {
    // Held across the wait and the generation: a stop request waits for a
    // document under way to be finished.
    std::unique_lock<std::mutex> lock(mutex_);
    const auto deadline = std::chrono::system_clock::now() + std::chrono::seconds(periodSeconds_);
    while (!stop_ && std::chrono::system_clock::now() < deadline) {
      condition_.wait_until(lock, deadline);
    }
    if (!stop_) PatchStatusHelper::FlushQueuedStatuses();
    if (!stop_) {
      const InterimResultMap snapshot = InterimResults::instance_.Snapshot();
      PM_INFO("Generating interim result");
      if (!WriteInterimResult(snapshot, jobRunInfo_, interimDirectory_)) {
        PM_ERROR("Failed to generate interim Result");
      }
    }
  }
  {
    // Cleared under the mutex so that a stopper between its check of the flag
    // and its wait cannot miss the notification below.
    std::lock_guard<std::mutex> lock(mutex_);
    running_ = false;
  }
  PM_INFO("Interim Result Generator Thread exiting");
  // Lets a stopper in its 100 ms wait return now instead of at its deadline.
  condition_.notify_all();
}

void InterimResultGeneratorThread::Shutdown() {
  PM_INFO("Shutting down InterimResultGeneratorThread");
  stop_ = true;
  // The flag is set without the mutex, so a worker that checked it just before
  // starting to wait misses one notification; repeating it reaches that worker.
  while (running_) {
    condition_.notify_all();
    std::unique_lock<std::mutex> lock(mutex_);
    const auto deadline = std::chrono::system_clock::now() + std::chrono::milliseconds(100);
    while (running_ && std::chrono::system_clock::now() < deadline) {
      condition_.wait_until(lock, deadline);
    }
  }
}

}  // namespace patchmgmt
