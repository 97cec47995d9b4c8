#include "healthstatus/patchstatushelper.h"

#include <cerrno>
#include <ctime>
#include <utility>

#include "healthstatus/patchstatusdatabase.h"
#include "util/files.h"
#include "util/filewriter.h"
#include "util/log.h"
#include "zelkor/strerror.h"

namespace patchmgmt {

std::queue<PatchMgmtHealthStatus> PatchStatusHelper::queOfAhsMessages_;
std::mutex PatchStatusHelper::lock_;
ahs::PatchAHSMessages PatchStatusHelper::writer;
std::string PatchStatusHelper::statusDBPath_;
std::string PatchStatusHelper::statusDirPath_;
std::string PatchStatusHelper::collectedFilePath_;

namespace {

void AppendMessage(const PatchMgmtHealthStatus& record, ahs::PatchAHSMessages& messages) {
  ahs::PatchAHSMessage* message = messages.add_patchahsmessages();
  message->set_statuscode(record.statusCode);
  message->set_state(static_cast<ahs::State>(record.state));
  message->set_contextid(record.contextId);
  message->set_datetimeepoch(record.dateTime);
  for (const auto& [key, value] : record.extraFields) {
    ahs::ExtraFields* field = message->add_extrafieldsarray();
    field->set_key(key);
    field->set_value(value);
  }
}

}  // namespace

void PatchStatusHelper::SetStatusPaths(const std::string& statusDirPath, const std::string& statusDBPath) {
  std::lock_guard<std::mutex> guard(lock_);
  statusDirPath_ = statusDirPath;
  statusDBPath_ = statusDBPath;
  // A database that cannot be opened now is not fatal: writes fail, records
  // queue, and whatever is still queued at the end goes to a message file.
  PatchStatusDBHelper::InitialiseStatusDB(statusDBPath);
}

void PatchStatusHelper::AddHealthStatus(PatchMgmtHealthStatus record) {
  std::lock_guard<std::mutex> guard(lock_);
  // StoreHealthStatus stamps the record before trying, so a queued record
  // keeps the time of the event, not the time of the retry that finally
  // writes it.
  if (StoreHealthStatus(record) != 0) queOfAhsMessages_.push(std::move(record));
}

int32_t PatchStatusHelper::FlushQueuedStatuses() {
  std::lock_guard<std::mutex> guard(lock_);
  // Stopping at the first failure keeps the rows in event order; a record the
  // database refuses for good stays at the head and goes to the message file
  // at the end of the run.
  while (!queOfAhsMessages_.empty()) {
    if (StoreHealthStatus(queOfAhsMessages_.front()) != 0) break;
    queOfAhsMessages_.pop();
  }
  return 1;
}

int32_t PatchStatusHelper::CollectQueuedStatuses() {
  // lock_ is not re-entrant: the flush takes and releases it on its own.
  FlushQueuedStatuses();
  std::lock_guard<std::mutex> guard(lock_);
  collectedFilePath_ = statusDirPath_ + "/PatchAHSMessage_" +
                       std::to_string(static_cast<int64_t>(std::time(nullptr))) + ".dat";
  while (!queOfAhsMessages_.empty()) {
    AppendMessage(queOfAhsMessages_.front(), writer);
    queOfAhsMessages_.pop();
  }
  return 1;
}

bool PatchStatusHelper::SaveQueuedStatuses() {
  // Records the database refused during the run exist only in this process.
  // The agent picks up message files from the health-status directory, so the
  // run hands them over here, before it saves the exit code by which the agent
  // learns that the run is over; after that nothing of them would survive.
  CollectQueuedStatuses();
  std::lock_guard<std::mutex> guard(lock_);
  if (writer.patchahsmessages_size() == 0) return true;
  // Without a health-status directory the name would point at the file
  // system's root; an empty path makes the write fail instead.
  if (statusDirPath_.empty()) return WriteAhsMessages(writer, std::string());
  CreateDirectory(statusDirPath_);
  return WriteAhsMessages(writer, collectedFilePath_);
}

bool PatchStatusHelper::WriteAhsMessages(ahs::PatchAHSMessages& messages, const std::string& path) {
  if (messages.patchahsmessages_size() == 0) {
    PM_DEBUG("No AHS messages to be written");
    return true;
  }
  PM_DEBUG("Number of AHS messages to be written : " << messages.patchahsmessages_size());
  if (path.empty()) return false;
  PM_DEBUG("Writting AHS messages to file " << path);

  std::string bytes;
  if (!messages.SerializeToString(&bytes)) {
    PM_ERROR("Failed to serialised ahs data to file: " << path);
    return false;
  }
  // A record is only dropped from `messages` once the whole file is on disk;
  // until then whatever stood at `path` stays as it was.
  const FileWriteError failure = ReplaceFile(path, bytes);
  if (failure.step == FileWriteError::kOpen) {
    PM_ERROR("Failed to open file: " << path << " error: " << failure.Text());
    return false;
  }
  if (failure) {
    PM_ERROR("Failed to serialised ahs data to file: " << path);
    return false;
  }
  messages.Clear();
  return true;
}

int32_t PatchStatusHelper::StoreHealthStatus(PatchMgmtHealthStatus& record) {
  if (record.dateTime == 0) record.dateTime = static_cast<int64_t>(std::time(nullptr));
  if (!record.extraFields.empty()) {
    return PatchStatusDBHelper::AddStatusRowWithExtraFields(record.dateTime, record, record.statusCode,
                                                            record.state, record.extraFields);
  }
  return PatchStatusDBHelper::AddStatusRow(record.dateTime, record, record.statusCode, record.state);
}

}  // namespace patchmgmt
