#include "zelkor/statusdb.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
#include <exception>
#include <thread>

#include "zelkor/json.h"

namespace util::modulestatus {
namespace {

// SQLite waits this long for a lock by itself before a query is retried.
constexpr int kBusyTimeoutMs = 100;
// Pause between two attempts of a query that found the database locked.
constexpr std::chrono::milliseconds kRetryPause{50};

bool IsTransient(int rc) {
  const int primary = rc & 0xff;
  return primary == SQLITE_BUSY || primary == SQLITE_LOCKED;
}

class Statement {
 public:
  Statement() = default;
  ~Statement() { sqlite3_finalize(stmt_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  sqlite3_stmt* get() const { return stmt_; }
  void reset() {
    sqlite3_finalize(stmt_);
    stmt_ = nullptr;
  }
  // Where sqlite3_prepare_v2 stores a new statement.
  sqlite3_stmt** out() {
    reset();
    return &stmt_;
  }

 private:
  sqlite3_stmt* stmt_ = nullptr;
};

// Whether `rest` holds nothing SQLite would run: only blanks, comments and
// empty statements. Compiling it runs none of it.
bool HoldsNoStatement(sqlite3* db, const char* rest, const char* end) {
  while (rest < end) {
    Statement next;
    const char* tail = nullptr;
    int rc = sqlite3_prepare_v2(db, rest, static_cast<int>(end - rest), next.out(), &tail);
    if (rc != SQLITE_OK || next.get() != nullptr) return false;
    if (tail == nullptr || tail <= rest) break;
    rest = tail;
  }
  return true;
}

// Compiles the one statement of `query` into `stmt`. A text with anything
// runnable after its first statement is refused before any of it ran: the
// insert texts put values between quotes unescaped, and this is what keeps a
// quote inside a value from smuggling in a statement of its own.
int PrepareSingleStatement(sqlite3* db, const std::string& query, Statement& stmt) {
  if (query.find('\0') != std::string::npos) return SQLITE_MISUSE;
  const char* begin = query.c_str();
  const char* end = begin + query.size();
  const char* tail = nullptr;
  int rc = sqlite3_prepare_v2(db, begin, static_cast<int>(query.size()), stmt.out(), &tail);
  if (rc != SQLITE_OK) return rc;
  if (stmt.get() == nullptr) return SQLITE_MISUSE;
  if (tail != nullptr && !HoldsNoStatement(db, tail, end)) {
    stmt.reset();
    return SQLITE_MISUSE;
  }
  return SQLITE_OK;
}

// Runs `query` once; rows go to `rows` when given.
int RunOnce(sqlite3* db, const std::string& query, Rows* rows) {
  Statement stmt;
  int rc = PrepareSingleStatement(db, query, stmt);
  if (rc != SQLITE_OK) return rc;
  while ((rc = sqlite3_step(stmt.get())) == SQLITE_ROW) {
    if (rows == nullptr) continue;
    const int columns = sqlite3_column_count(stmt.get());
    std::vector<std::string> row;
    row.reserve(static_cast<size_t>(columns));
    for (int i = 0; i < columns; ++i) {
      const auto* text = sqlite3_column_text(stmt.get(), i);
      const int length = sqlite3_column_bytes(stmt.get(), i);
      row.emplace_back(text != nullptr ? std::string(reinterpret_cast<const char*>(text), length) : "");
    }
    rows->push_back(std::move(row));
  }
  return rc == SQLITE_DONE ? SQLITE_OK : rc;
}

int RunWithRetries(sqlite3* db, const std::string& query, Rows* rows, int retries) {
  if (db == nullptr) return SQLITE_MISUSE;
  for (int attempt = 0;; ++attempt) {
    if (rows != nullptr) rows->clear();
    const int rc = RunOnce(db, query, rows);
    if (!IsTransient(rc) || attempt >= retries) return rc;
    std::this_thread::sleep_for(kRetryPause);
  }
}

// An in-memory or URI name is not a file this library should create.
bool NamesPlainFile(const std::string& path) {
  return !path.empty() && path != ":memory:" && path.rfind("file:", 0) != 0;
}

}  // namespace

StatusDatabase::StatusDatabase(std::string path) : path_(std::move(path)) {}

StatusDatabase::~StatusDatabase() { sqlite3_close_v2(db_); }

void StatusDatabase::CreateDatabase() {
  if (db_ != nullptr) return;
  // SQLite creates new files with 0644; created here first, the database and
  // the journals SQLite derives from its mode stay readable by the owner only.
  if (NamesPlainFile(path_)) {
    int fd = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd >= 0) ::close(fd);
  }
  sqlite3* db = nullptr;
  int rc = sqlite3_open_v2(path_.c_str(), &db,
                           SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX, nullptr);
  if (rc == SQLITE_OK) {
    sqlite3_busy_timeout(db, kBusyTimeoutMs);
    // Opening is lazy: a file that is no database at all only shows when read.
    rc = sqlite3_exec(db, "SELECT count(*) FROM sqlite_master", nullptr, nullptr, nullptr);
    if (IsTransient(rc)) rc = SQLITE_OK;
  }
  if (rc != SQLITE_OK) {
    std::string text = db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
    sqlite3_close_v2(db);
    throw StatusDBOpenError(text + ": " + path_);
  }
  db_ = db;
}

int StatusDatabase::CreateTables() {
  return ExecuteQueryTillMaxRetry(GetCreateTableQuery(), StatusDBWriter::kMaxRetries);
}

int StatusDatabase::ExecuteQueryTillMaxRetry(const std::string& query, int retries) {
  return RunWithRetries(db_, query, nullptr, retries);
}

int StatusDatabase::ExecuteSelectQueryTillMaxRetry(const std::string& query, Rows& rows, int retries) {
  return RunWithRetries(db_, query, &rows, retries);
}

int StatusDBWriter::WriteStatusRow(const Status& status) {
  try {
    return database_.ExecuteQueryTillMaxRetry(database_.GetInsertQuery(status), kMaxRetries);
  } catch (const std::exception&) {
    return SQLITE_ERROR;
  }
}

std::string StatusDBHelper::CreateAdditionFieldsToJsonString(
    const std::map<std::string, std::string>& fields) {
  rapidjson::StringBuffer buffer;
  rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
  writer.StartObject();
  for (const auto& [key, value] : fields) {
    writer.Key(key.c_str(), static_cast<rapidjson::SizeType>(key.size()));
    writer.String(value.c_str(), static_cast<rapidjson::SizeType>(value.size()));
  }
  writer.EndObject();
  return std::string(buffer.GetString(), buffer.GetSize());
}

}  // namespace util::modulestatus
