#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "healthstatus/patchstatushelper.h"
#include "zelkor/statusdb.h"

namespace patchmgmt {

// The tool's rows in the agent's "Status" table: record type 4 and the SQL
// texts the agent's readers of that table expect.
class PatchStatusDatabase final : public util::modulestatus::StatusDatabase {
 public:
  explicit PatchStatusDatabase(std::string path);

  // Always 4.
  int GetRecordType() const override;
  // The row's values between single quotes, unescaped, cut off at 1023
  // characters. A value holding a quote yields a text SQLite rejects (or, at
  // worst, one statement); the executor never runs a second statement.
  std::string GetInsertQuery(const util::modulestatus::Status& status) const override;
  std::string GetSelectQuery() const override;
  std::string GetDeleteQuery(int64_t rowId) const override;
  // Used exactly as the agent created it, including the trailing column
  // definition "INTEGER PRIMARY KEY" (a column named INTEGER).
  std::string GetCreateTableQuery() const override;
};

// Turns health-status records into rows of the process-wide status database.
class PatchStatusDBHelper {
 public:
  // Replaces the process-wide database object by one for `dbPath`, opens or
  // creates the file and makes the table. False (logged) when the file cannot
  // be opened or the table cannot be made; the object is kept even then, and
  // every later write through it fails until the next successful call.
  static bool InitialiseStatusDB(const std::string& dbPath);

  // Write one row of `record`'s context id with the given status code and
  // state, time stamped `epochSeconds` (UTC "%FT%TZ"). 0 when written.
  // REQUIRES: InitialiseStatusDB was called; without a database object the
  // result is -1.
  static int32_t AddStatusRow(int64_t epochSeconds, const PatchMgmtHealthStatus& record, uint32_t statusCode,
                              uint32_t state);
  static int32_t AddStatusRowWithExtraFields(int64_t epochSeconds, const PatchMgmtHealthStatus& record,
                                             uint32_t statusCode, uint32_t state,
                                             const std::map<std::string, std::string>& extraFields);

  // Read and replaced through std::atomic_load / std::atomic_store, so that a
  // direct writer holding a copy keeps its object alive while SetStatusPaths
  // switches to another database.
  static std::shared_ptr<PatchStatusDatabase> statusDBObjPtr_;

 private:
  static int32_t WriteRow(const util::modulestatus::Status& status);
};

}  // namespace patchmgmt
