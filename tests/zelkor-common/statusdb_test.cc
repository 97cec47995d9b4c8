#include "zelkor/statusdb.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <chrono>
#include <thread>

#include "gtest/gtest.h"
#include "support/sandbox.h"

namespace {

using util::modulestatus::Rows;
using util::modulestatus::Status;
using util::modulestatus::StatusDatabase;
using util::modulestatus::StatusDBHelper;
using util::modulestatus::StatusDBWriter;

// A status table as the agent's modules define one.
class TestStatusDatabase : public StatusDatabase {
 public:
  using StatusDatabase::StatusDatabase;
  int GetRecordType() const override { return 4; }
  std::string GetInsertQuery(const Status& s) const override {
    return "INSERT INTO Status (dateTime, ProtoType, contextId, statusCode, state, extraFields) VALUES ('" +
           s.dateTime + "','4','" + s.contextId + "','" + std::to_string(s.statusCode) + "','" +
           std::to_string(s.state) + "','" + StatusDBHelper::CreateAdditionFieldsToJsonString(s.extraFields) +
           "')";
  }
  std::string GetSelectQuery() const override { return "SELECT rowid,* FROM Status WHERE ProtoType=4;"; }
  std::string GetDeleteQuery(int64_t rowId) const override {
    return "DELETE FROM Status Where rowid = " + std::to_string(rowId);
  }
  std::string GetCreateTableQuery() const override {
    return "CREATE TABLE IF NOT EXISTS Status (DateTime TEXT NOT NULL,ProtoType INTEGER NOT NULL,ContextId "
           "TEXT "
           "NOT NULL,StatusCode INTEGER NOT NULL,State INTEGER NOT NULL,ExtraFields TEXT,INTEGER PRIMARY "
           "KEY);";
  }

  Rows Select() {
    Rows rows;
    EXPECT_EQ(ExecuteSelectQueryTillMaxRetry(GetSelectQuery(), rows, 0), 0);
    return rows;
  }
};

Status MakeStatus(const std::string& contextId) {
  return Status{"2024-01-31T12:00:00Z", contextId, 8976, 2, {}};
}

TEST(StatusDatabase, CreatesItsTableTwiceAndStoresRowsWithJsonExtras) {
  pmtest::TempDir dir;
  TestStatusDatabase db(dir.Join("status.db"));
  db.CreateDatabase();
  ASSERT_EQ(db.CreateTables(), 0);
  ASSERT_EQ(db.CreateTables(), 0);
  struct stat info {};
  ASSERT_EQ(stat(db.path().c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 077, 0u) << "owner-only";

  Status status = MakeStatus("job1_7");
  status.extraFields = {{"reason", "say \"hi\""}, {"log", "line\nbreak"}};
  ASSERT_EQ(StatusDBWriter(db).WriteStatusRow(status), 0);
  Rows rows = db.Select();
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0][1], "2024-01-31T12:00:00Z");
  EXPECT_EQ(rows[0][3], "job1_7");
  EXPECT_EQ(rows[0][4], "8976");
  EXPECT_EQ(rows[0][6], R"({"log":"line\nbreak","reason":"say \"hi\""})");
}

TEST(StatusDatabase, RefusesATextHoldingASecondStatement) {
  pmtest::TempDir dir;
  TestStatusDatabase db(dir.Join("status.db"));
  db.CreateDatabase();
  ASSERT_EQ(db.CreateTables(), 0);
  ASSERT_EQ(StatusDBWriter(db).WriteStatusRow(MakeStatus("kept")), 0);

  const std::string insert = db.GetInsertQuery(MakeStatus("second"));
  EXPECT_NE(db.ExecuteQueryTillMaxRetry(insert + "; DELETE FROM Status", 3), 0);
  // A quote in a value that would close the insert and start a statement.
  EXPECT_NE(StatusDBWriter(db).WriteStatusRow(MakeStatus("x','4','1','1','{}'); DELETE FROM Status; --")), 0);
  Rows rows = db.Select();
  ASSERT_EQ(rows.size(), 1u) << "nothing of a refused text ran";
  EXPECT_EQ(rows[0][3], "kept");
}

TEST(StatusDatabase, WriteWaitsOutAnotherConnectionsWriteLock) {
  pmtest::TempDir dir;
  TestStatusDatabase db(dir.Join("status.db"));
  db.CreateDatabase();
  ASSERT_EQ(db.CreateTables(), 0);

  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(db.path().c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
  EXPECT_EQ(db.ExecuteQueryTillMaxRetry(db.GetInsertQuery(MakeStatus("early")), 0), SQLITE_BUSY)
      << "one attempt cannot pass while the lock is held";

  std::thread holder([other] {
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    sqlite3_exec(other, "COMMIT", nullptr, nullptr, nullptr);
  });
  const int written = StatusDBWriter(db).WriteStatusRow(MakeStatus("after release"));
  holder.join();
  sqlite3_close(other);
  EXPECT_EQ(written, 0);
  Rows rows = db.Select();
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0][3], "after release");
}

TEST(StatusDatabase, UnopenablePathThrowsWithSqlitesText) {
  pmtest::TempDir dir;
  TestStatusDatabase db(dir.Join("missing/status.db"));
  try {
    db.CreateDatabase();
    FAIL() << "opened a database in a missing directory";
  } catch (const util::modulestatus::StatusDBOpenError& error) {
    EXPECT_NE(std::string(error.what()).find("unable to open database file"), std::string::npos)
        << error.what();
  }
}

}  // namespace
