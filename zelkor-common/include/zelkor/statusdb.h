#pragma once

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

struct sqlite3;

namespace util::modulestatus {

class StatusDBOpenError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// One row of a status table.
struct Status {
  std::string dateTime;
  std::string contextId;
  uint32_t statusCode = 0;
  uint32_t state = 0;
  std::map<std::string, std::string> extraFields;
};

using Rows = std::vector<std::vector<std::string>>;

// One SQLite connection to a status database. A derived class supplies the
// record type and the SQL texts of its own table.
class StatusDatabase {
 public:
  explicit StatusDatabase(std::string path);
  StatusDatabase(const StatusDatabase&) = delete;
  StatusDatabase& operator=(const StatusDatabase&) = delete;

  virtual int GetRecordType() const = 0;
  virtual std::string GetInsertQuery(const Status& status) const = 0;
  virtual std::string GetSelectQuery() const = 0;
  virtual std::string GetDeleteQuery(int64_t rowId) const = 0;
  virtual std::string GetCreateTableQuery() const = 0;

  // Runs `query` as exactly one statement (a text holding anything after its
  // first statement is refused and nothing of it runs), retrying on
  // SQLITE_BUSY and SQLITE_LOCKED with a short pause up to `retries` times.
  // 0 on success.
  virtual int ExecuteQueryTillMaxRetry(const std::string& query, int retries);
  // The same for a query that returns rows; each row's columns as text (NULL
  // as empty text). 0 on success.
  virtual int ExecuteSelectQueryTillMaxRetry(const std::string& query, Rows& rows, int retries);

  virtual ~StatusDatabase();

  // Opens or creates the file (owner-only) and sets a busy timeout.
  // Throws StatusDBOpenError with SQLite's text when it cannot.
  void CreateDatabase();
  // Runs GetCreateTableQuery(); 0 on success.
  int CreateTables();

  const std::string& path() const { return path_; }

 private:
  std::string path_;
  sqlite3* db_ = nullptr;
};

// Writes Status rows through a database's own insert text and retrying executor.
class StatusDBWriter {
 public:
  static constexpr int kMaxRetries = 10;

  explicit StatusDBWriter(StatusDatabase& database) : database_(database) {}

  // 0 on success.
  int WriteStatusRow(const Status& status);

 private:
  StatusDatabase& database_;
};

struct StatusDBHelper {
  // Compact JSON object of the pairs in key order, escaped as JSON requires.
  static std::string CreateAdditionFieldsToJsonString(const std::map<std::string, std::string>& fields);
};

}  // namespace util::modulestatus
