#include "results/interimgenerator.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <vector>

#include "results/resultdocument.h"
#include "util/filewriter.h"
#include "util/json.h"
#include "util/log.h"
#include "util/timestamps.h"
#include "zelkor/filerep.h"
#include "zelkor/strerror.h"

namespace patchmgmt {

namespace {

using Entry = InterimResultMap::value_type;

// The states' arrays in the order they appear in the document.
constexpr struct {
  uint32_t code;
  const char* key;
} kStateArrays[] = {
    {kInterimPendingExecution, "pendingExecution"},
    {kInterimExecuting, "executing"},
    {kInterimPendingReboot, "pendingReboot"},
    {kInterimPendingVerification, "pendingVerification"},
    {kInterimSuccess, "success"},
    {kInterimFailed, "failed"},
    {kInterimAlreadyInstalled, "alreadyInstalled"},
    {kInterimSuperseded, "superseded"},
    {kInterimNotApplicable, "notApplicable"},
};
constexpr size_t kStateCount = kInterimAlreadyInstalled - kInterimPendingExecution + 1;

int64_t NowMilliseconds() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

int64_t NowSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
      .count();
}

void StateElement(ResultWriter& out, uint32_t code, const Entry& entry) {
  if (code == kInterimFailed) {
    out.EmptyFailedPatch(entry.first);
  } else if (code == kInterimSuperseded) {
    out.StartObject();
    out.Key("patchId");
    out.String(entry.first);
    out.Key("supersedingPatchId");
    out.String(entry.second->supersedingPatchId);
    out.EndObject();
  } else {
    out.String(entry.first);
  }
}

}  // namespace

InterimDocument BuildInterimDocument(const InterimResultMap& snapshot, const JobRunInfo& jobRunInfo) {
  // The table's codes are consecutive, so a code's array is its offset.
  std::vector<const Entry*> states[kStateCount];
  for (const Entry& entry : snapshot) {
    const auto& record = entry.second;
    if (!record || record->code < kInterimPendingExecution || record->code > kInterimAlreadyInstalled)
      continue;
    states[record->code - kInterimPendingExecution].push_back(&entry);
  }

  rapidjson::StringBuffer text;
  ResultWriter out(text);
  out.StartObject();
  out.Key("deploymentResult");
  out.StartObject();
  // Where the result object's "{" stands in the text.
  const size_t resultObject = text.GetSize() - 1;
  out.ResultHeader(jobRunInfo, false, "INTERIM");
  for (const auto& state : kStateArrays) {
    out.Key(state.key);
    out.StartArray();
    for (const Entry* entry : states[state.code - kInterimPendingExecution]) {
      StateElement(out, state.code, *entry);
    }
    out.EndArray();
  }

  // The end time is left out of the digest so that documents with the same
  // content carry the same name whenever they were written: the digest is
  // taken over the result object as it would close here.
  InterimDocument interim;
  text.Put('}');
  FileRep::calculateDigest(FileRep::kDigestSha256, text.GetString() + resultObject,
                           text.GetSize() - resultObject, interim.digest, true);
  text.Pop(1);

  out.Key("endDateTime");
  out.String(FormatUtcMilliseconds(static_cast<uint64_t>(NowMilliseconds())));
  out.EndObject();
  out.EndObject();
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

  // A document that cannot be written in full is removed again: the agent
  // must never pick up half of one.
  const FileWriteError failure = WriteNewFile(tempPath, document.text);
  if (failure.step == FileWriteError::kOpen) {
    PM_ERROR("Failed to open file " << tempPath << " in write mode. "
                                    << " error :" << failure.Text());
    return false;
  }
  if (failure) {
    PM_ERROR("Failed to write result in file: " << tempPath << " error :" << failure.Text());
    return false;
  }

  PM_TRACE("Renaming file " << tempPath << "  to " << finalPath);
  FileSystem& fileSystem = FileSystem::Current();
  if (fileSystem.Rename(tempPath, finalPath) != 0) {
    const int renameError = errno;
    PM_ERROR("Failed to rename file " << tempPath << " error :" << util::strerror(renameError));
    PM_INFO("Removing file: " << tempPath);
    if (fileSystem.Remove(tempPath) != 0) {
      const int removeError = errno;
      PM_ERROR("Failed to remove file name: " << tempPath << " error :" << util::strerror(removeError));
    }
  }
  // The period is done even when its document could not be put in place.
  return true;
}

void GenerateInterimResult(const InterimResults& table, const JobRunInfo& jobRunInfo,
                           const std::string& interimDirectory) {
  const InterimResultMap snapshot = table.Snapshot();
  PM_INFO("Generating interim result");
  if (!WriteInterimResult(snapshot, jobRunInfo, interimDirectory))
    PM_ERROR("Failed to generate interim Result");
}

InterimResultGeneratorThread::InterimResultGeneratorThread(uint32_t periodSeconds, bool generateOnStart,
                                                           PeriodSteps steps)
    : periodSeconds_(periodSeconds), generateOnStart_(generateOnStart), steps_(std::move(steps)) {
  // The agent hands this flag over; no behaviour of the generator depends on it.
  static_cast<void>(generateOnStart_);
}

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
    for (const auto& step : steps_) {
      if (stop_) break;
      step();
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
