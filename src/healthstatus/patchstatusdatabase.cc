#include "healthstatus/patchstatusdatabase.h"

#include <cstdio>
#include <exception>
#include <utility>

#include "util/log.h"
#include "util/timestamps.h"

namespace patchmgmt {

namespace ms = util::modulestatus;

namespace {

// The agent's readers of the table were written against these lengths.
constexpr size_t kQueryBufferSize = 1024;

}  // namespace

std::shared_ptr<PatchStatusDatabase> PatchStatusDBHelper::statusDBObjPtr_;

PatchStatusDatabase::PatchStatusDatabase(std::string path) : StatusDatabase(std::move(path)) {}

int PatchStatusDatabase::GetRecordType() const { return 4; }

std::string PatchStatusDatabase::GetInsertQuery(const ms::Status& status) const {
  const std::string extraFields = ms::StatusDBHelper::CreateAdditionFieldsToJsonString(status.extraFields);
  char query[kQueryBufferSize];
  std::snprintf(
      query, sizeof query,
      "INSERT INTO Status (dateTime, ProtoType, contextId, statusCode,              state, extraFields) "
      "VALUES ('%s','%d','%s','%d','%d','%s')",
      status.dateTime.c_str(), GetRecordType(), status.contextId.c_str(), static_cast<int>(status.statusCode),
      static_cast<int>(status.state), extraFields.c_str());
  return query;
}

std::string PatchStatusDatabase::GetSelectQuery() const {
  static const std::string query = "SELECT rowid,* FROM Status WHERE ProtoType=4;";
  return query;
}

std::string PatchStatusDatabase::GetDeleteQuery(int64_t rowId) const {
  char query[kQueryBufferSize];
  std::snprintf(query, sizeof query, "DELETE FROM Status Where rowid = %ld", static_cast<long>(rowId));
  return query;
}

std::string PatchStatusDatabase::GetCreateTableQuery() const {
  static const std::string query =
      "CREATE TABLE IF NOT EXISTS Status (DateTime TEXT NOT NULL,ProtoType INTEGER NOT NULL,ContextId TEXT "
      "NOT "
      "NULL,StatusCode INTEGER NOT NULL,State INTEGER NOT NULL,ExtraFields TEXT,INTEGER PRIMARY KEY);";
  return query;
}

bool PatchStatusDBHelper::InitialiseStatusDB(const std::string& dbPath) {
  PM_TRACE("Intializing patch status DB: " << dbPath);
  try {
    auto database = std::make_shared<PatchStatusDatabase>(dbPath);
    std::atomic_store(&statusDBObjPtr_, database);
    database->CreateDatabase();
    return database->CreateTables() == 0;
  } catch (const ms::StatusDBOpenError& e) {
    PM_ERROR("StatusDBOpenError exception in InitialiseStatusDB: " << e.what());
  } catch (const std::exception& e) {
    PM_ERROR("exception in InitialiseStatusDB: " << e.what());
  }
  return false;
}

int32_t PatchStatusDBHelper::AddStatusRow(int64_t epochSeconds, const PatchMgmtHealthStatus& record,
                                          uint32_t statusCode, uint32_t state) {
  return AddStatusRowWithExtraFields(epochSeconds, record, statusCode, state, {});
}

int32_t PatchStatusDBHelper::AddStatusRowWithExtraFields(
    int64_t epochSeconds, const PatchMgmtHealthStatus& record, uint32_t statusCode, uint32_t state,
    const std::map<std::string, std::string>& extraFields) {
  PM_TRACE("Adding AHS Status into DB");
  ms::Status status;
  status.dateTime = FormatStatusTime(epochSeconds);
  status.contextId = record.contextId;
  status.statusCode = statusCode;
  status.state = state;
  status.extraFields = extraFields;
  return WriteRow(status);
}

int32_t PatchStatusDBHelper::WriteRow(const ms::Status& status) {
  // A write before the first InitialiseStatusDB fails like any other failed
  // write, so the record is kept for a later retry instead of ending the run.
  const std::shared_ptr<PatchStatusDatabase> database = std::atomic_load(&statusDBObjPtr_);
  if (!database) return -1;
  ms::StatusDBWriter writer(*database);
  return writer.WriteStatusRow(status);
}

}  // namespace patchmgmt
