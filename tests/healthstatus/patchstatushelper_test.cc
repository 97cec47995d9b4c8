#include "healthstatus/patchstatushelper.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <atomic>
#include <ctime>
#include <fstream>
#include <thread>

#include "healthstatus/healthstatustoolhelper.h"
#include "healthstatus/patchstatusdatabase.h"
#include "support/sandbox.h"
#include "util/timestamps.h"

namespace patchmgmt {
namespace {

using Helper = PatchStatusHelper;
using Texts = std::vector<std::string>;

// The "Status" table as the agent reads it back, in insertion order: per row
// DateTime, ProtoType, ContextId, StatusCode, State, ExtraFields.
std::vector<Texts> ReadRows(const std::string& dbPath) {
  std::vector<Texts> rows;
  auto collect = [](void* out, int columns, char** values, char**) {
    auto& row = static_cast<std::vector<Texts>*>(out)->emplace_back();
    for (int column = 0; column < std::min(columns, 6); ++column)
      row.emplace_back(values[column] ? values[column] : "");
    return 0;
  };
  sqlite3* db = nullptr;
  EXPECT_EQ(sqlite3_open_v2(dbPath.c_str(), &db, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(db, "SELECT * FROM Status ORDER BY rowid", collect, &rows, nullptr), SQLITE_OK)
      << sqlite3_errmsg(db);
  sqlite3_close(db);
  return rows;
}

std::vector<PatchMgmtHealthStatus> Queued() {
  std::lock_guard<std::mutex> guard(Helper::lock_);
  std::vector<PatchMgmtHealthStatus> queued;
  for (auto copy = Helper::queOfAhsMessages_; !copy.empty(); copy.pop()) queued.push_back(copy.front());
  return queued;
}

Texts QueuedContexts() {
  Texts contexts;
  for (const auto& record : Queued()) contexts.push_back(record.contextId);
  return contexts;
}

// The one message file that `dir` must hold, decoded.
ahs::PatchAHSMessages ReadMessageFile(const std::string& dir) {
  const auto files = pmtest::ListDir(dir);
  EXPECT_EQ(files.size(), 1u) << dir;
  ahs::PatchAHSMessages messages;
  std::ifstream in(dir + "/" + (files.empty() ? "" : files[0]), std::ios::binary);
  EXPECT_TRUE(messages.ParseFromIstream(&in)) << dir;
  return messages;
}

// "context|status code|state|key=value,..." per message, in file order.
Texts Describe(const ahs::PatchAHSMessages& messages) {
  Texts described;
  for (const auto& m : messages.patchahsmessages()) {
    described.push_back(m.contextid() + "|" + std::to_string(m.statuscode()) + "|" +
                        std::to_string(m.state()) + "|");
    for (const auto& field : m.extrafieldsarray())
      described.back() += field.key() + "=" + field.value() + ",";
  }
  return described;
}

// The queue and `writer` are process-wide; each test starts and ends with
// both empty.
class PatchStatusTest : public pmtest::LogCaptureTest {
 protected:
  void SetUp() override {
    LogCaptureTest::SetUp();
    Drain();
  }
  void TearDown() override { Drain(); }
  static void Drain() {
    Helper::CollectQueuedStatuses();
    std::lock_guard<std::mutex> guard(Helper::lock_);
    Helper::writer.Clear();
  }
};

TEST_F(PatchStatusTest, RowsLandInStatusTableWithTheirColumns) {
  const std::string dbPath = dir_.Join("status.db");
  ASSERT_TRUE(PatchStatusDBHelper::InitialiseStatusDB(dbPath));
  ASSERT_TRUE(PatchStatusDBHelper::InitialiseStatusDB(dbPath));
  struct stat info {};
  ASSERT_EQ(stat(dbPath.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 077, 0u) << "owner-only";

  PatchMgmtHealthStatus plain("ctx-plain", 0, 0);
  EXPECT_EQ(PatchStatusDBHelper::AddStatusRow(0, plain, 17, ahs::Success), 0);
  EXPECT_EQ(PatchStatusDBHelper::AddStatusRowWithExtraFields(1706702400, plain, 18, ahs::Failed,
                                                             {{"b", "x\"y\nz"}, {"a", "1"}}),
            0);
  EXPECT_EQ(Helper::ReportManifestOsStatus("ctx-mos", 19, ahs::InProgress, "m1", "mi1", 7, -3), 0);

  const auto rows = ReadRows(dbPath);
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(rows[0], (Texts{"1970-01-01T00:00:00Z", "4", "ctx-plain", "17", "1", "{}"}));
  EXPECT_EQ(rows[1],
            (Texts{"2024-01-31T12:00:00Z", "4", "ctx-plain", "18", "2", R"({"a":"1","b":"x\"y\nz"})"}));
  EXPECT_EQ(rows[2][5], R"({"manifestId":"m1","manifestInstanceId":"mi1","osStatus":"-3","runId":"7"})");

  // The select and delete texts address the same rows the agent reads back.
  auto& database = *PatchStatusDBHelper::statusDBObjPtr_;
  util::modulestatus::Rows selected;
  ASSERT_EQ(database.ExecuteSelectQueryTillMaxRetry(database.GetSelectQuery(), selected, 1), 0);
  ASSERT_EQ(selected.size(), 3u);
  ASSERT_EQ(database.ExecuteQueryTillMaxRetry(database.GetDeleteQuery(std::stol(selected[0][0])), 1), 0);
  EXPECT_EQ(ReadRows(dbPath).size(), 2u);
}

TEST_F(PatchStatusTest, WriteWaitsOutAnotherConnectionsWriteLock) {
  PatchStatusDatabase db(dir_.Join("status.db"));
  db.CreateDatabase();
  ASSERT_EQ(db.CreateTables(), 0);
  sqlite3* other = nullptr;
  ASSERT_EQ(sqlite3_open(db.path().c_str(), &other), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(other, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
  const util::modulestatus::Status status{"2024-01-31T12:00:00Z", "after release", 8976, 2, {}};
  EXPECT_EQ(db.ExecuteQueryTillMaxRetry(db.GetInsertQuery(status), 0), SQLITE_BUSY)
      << "one attempt cannot pass while the lock is held";

  std::thread holder([other] {
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    sqlite3_exec(other, "COMMIT", nullptr, nullptr, nullptr);
  });
  const int written = util::modulestatus::StatusDBWriter(db).WriteStatusRow(status);
  holder.join();
  sqlite3_close(other);
  EXPECT_EQ(written, 0);
  const auto rows = ReadRows(db.path());
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0][2], "after release");
}

TEST_F(PatchStatusTest, UnavailableDatabaseQueuesInOrderAndOneFlushWritesAll) {
  const int64_t before = std::time(nullptr);
  Helper::SetStatusPaths(dir_.path(), dir_.Join("missing/status.db"));
  Helper::AddHealthStatus(PatchMgmtHealthStatus("first", 1, ahs::Success));
  Helper::AddHealthStatus(PatchMgmtHealthStatus("second", 2, ahs::Failed));
  pmtest::WriteTextFile(dir_.Join("notadb"), "this is not an SQLite database, just some text\n");
  Helper::SetStatusPaths(dir_.path(), dir_.Join("notadb"));
  PatchMgmtHealthStatus third("third", 3, ahs::InProgress);
  third.extraFields["k"] = "v";
  Helper::AddHealthStatus(third);
  EXPECT_EQ(Helper::FlushQueuedStatuses(), 1);
  const int64_t after = std::time(nullptr);

  ASSERT_EQ(QueuedContexts(), (Texts{"first", "second", "third"}));
  const auto queued = Queued();
  for (const auto& record : queued) {
    EXPECT_GE(record.dateTime, before);
    EXPECT_LE(record.dateTime, after);
  }
  EXPECT_TRUE(pmtest::HasLogPrefix(Log(), "StatusDBOpenError exception in InitialiseStatusDB: "));

  // A retry in a later second must still write the time of the first attempt.
  while (std::time(nullptr) <= after) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  const std::string dbPath = dir_.Join("status.db");
  Helper::SetStatusPaths(dir_.path(), dbPath);
  EXPECT_EQ(Helper::FlushQueuedStatuses(), 1);
  EXPECT_TRUE(QueuedContexts().empty());
  const auto rows = ReadRows(dbPath);
  ASSERT_EQ(rows.size(), 3u);
  for (size_t i = 0; i < rows.size(); ++i) {
    EXPECT_EQ(rows[i][0], FormatStatusTime(queued[i].dateTime));
    EXPECT_EQ(rows[i][2], queued[i].contextId);
  }
  EXPECT_EQ(rows[2][5], R"({"k":"v"})");
}

TEST_F(PatchStatusTest, QuotedContextIdStaysQueuedWithoutHarmingOtherRows) {
  const std::string dbPath = dir_.Join("status.db");
  // Closes the insert's quote and tries a second statement after it.
  const std::string hostile = "x','2','1','{}'); DELETE FROM Status; --";
  Helper::SetStatusPaths(dir_.Join("ahs"), dbPath);
  Helper::AddHealthStatus(PatchMgmtHealthStatus("before", 1, ahs::Success));
  Helper::AddHealthStatus(PatchMgmtHealthStatus(hostile, 2, ahs::Failed));
  Helper::AddHealthStatus(PatchMgmtHealthStatus("job's patch", 2, ahs::Failed));
  Helper::AddHealthStatus(PatchMgmtHealthStatus("after", 3, ahs::Success));
  EXPECT_EQ(QueuedContexts(), (Texts{hostile, "job's patch"}));

  // A record queued behind the refused ones waits for them: rows keep event order.
  Helper::SetStatusPaths(dir_.Join("ahs"), dir_.Join("missing/status.db"));
  Helper::AddHealthStatus(PatchMgmtHealthStatus("queued later", 4, ahs::Success));
  Helper::SetStatusPaths(dir_.Join("ahs"), dbPath);
  Helper::FlushQueuedStatuses();
  EXPECT_EQ(QueuedContexts(), (Texts{hostile, "job's patch", "queued later"}));
  auto rows = ReadRows(dbPath);
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0][2], "before");
  EXPECT_EQ(rows[1][2], "after");

  // At the end of the run they reach the message file, nothing is lost.
  EXPECT_TRUE(Helper::SaveQueuedStatuses());
  EXPECT_EQ(Describe(ReadMessageFile(dir_.Join("ahs"))),
            (Texts{hostile + "|2|2|", "job's patch|2|2|", "queued later|4|1|"}));
  EXPECT_EQ(ReadRows(dbPath).size(), 2u);
}

TEST_F(PatchStatusTest, MessageFilesDecodeThroughGeneratedClasses) {
  const std::string ahsDir = dir_.Join("ahs");
  auto helper = HealthStatusToolHelper::GetInstance("job-ctx", "agent-1", "m1", "mi1", ahsDir,
                                                    dir_.Join("missing/status.db"));
  ASSERT_TRUE(helper);
  // Nothing to write: no file, not even the directory.
  ahs::PatchAHSMessages empty;
  EXPECT_TRUE(Helper::WriteAhsMessages(empty, ahsDir + "/empty.dat"));
  EXPECT_TRUE(pmtest::HasLogLine(Log(), "No AHS messages to be written", "Debug"));
  EXPECT_TRUE(Helper::SaveQueuedStatuses());
  EXPECT_FALSE(pmtest::PathExists(ahsDir));

  helper->QueueManifestStatus(8976, ahs::InProgress);
  PatchMgmtHealthStatus extra("extra", 4000000000u, ahs::Enable);
  extra.dateTime = 1700000000;
  extra.extraFields = {{"zeta", "3"}, {"alpha", "1"}};
  Helper::AddHealthStatus(extra);
  helper->QueueManifestOsStatus(8977, ahs::Failed, "12");
  const int64_t before = std::time(nullptr);
  EXPECT_EQ(Helper::CollectQueuedStatuses(), 1);
  EXPECT_TRUE(QueuedContexts().empty());
  {
    std::lock_guard<std::mutex> guard(Helper::lock_);
    EXPECT_FALSE(Helper::WriteAhsMessages(Helper::writer, ""));
    const std::string missing = dir_.Join("missing/x.dat");
    EXPECT_FALSE(Helper::WriteAhsMessages(Helper::writer, missing));
    EXPECT_TRUE(pmtest::HasLogLine(
        Log(), "Failed to open file: " + missing + " error: No such file or directory", "Error"));
    EXPECT_EQ(Helper::writer.patchahsmessages_size(), 3) << "kept for the next attempt";
  }
  EXPECT_TRUE(Helper::SaveQueuedStatuses());
  const auto files = pmtest::ListDir(ahsDir);
  ASSERT_EQ(files.size(), 1u);
  const int64_t seconds = std::stoll(files[0].substr(std::string("PatchAHSMessage_").size()));
  EXPECT_EQ(files[0], "PatchAHSMessage_" + std::to_string(seconds) + ".dat");
  EXPECT_GE(seconds, before);
  const auto messages = ReadMessageFile(ahsDir);
  EXPECT_EQ(Describe(messages), (Texts{"job-ctx|8976|3|manifestId=m1,manifestInstanceId=mi1,",
                                       "extra|4000000000|4|alpha=1,zeta=3,",
                                       "job-ctx|8977|2|manifestId=m1,manifestInstanceId=mi1,osStatus=12,"}));
  EXPECT_EQ(messages.patchahsmessages(1).datetimeepoch(), 1700000000);
}

// Several threads report while the interim thread's periodic flush runs and
// the database comes and goes: every record ends up exactly once as a row.
TEST(HealthStatusConcurrencyTest, AddersAndFlusherNeitherLoseNorDuplicate) {
  constexpr int kThreads = 4;
  constexpr int kPerThread = 30;
  pmtest::TempDir dir;
  const std::string good = dir.Join("status.db");
  const std::string bad = dir.Join("missing/status.db");

  Helper::SetStatusPaths(dir.path(), good);

  std::atomic<int> addersLeft{kThreads};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t, &addersLeft] {
      for (int i = 0; i < kPerThread; ++i) {
        Helper::AddHealthStatus(PatchMgmtHealthStatus(std::to_string(t) + "-" + std::to_string(i), 2, 1));
        // Spreads the reports over several switches of the database.
        std::this_thread::sleep_for(std::chrono::microseconds(500));
      }
      --addersLeft;
    });
  }
  threads.emplace_back([&] {
    while (addersLeft > 0) Helper::FlushQueuedStatuses();
  });
  threads.emplace_back([&] {
    for (bool available = true; addersLeft > 0; available = !available) {
      Helper::SetStatusPaths(dir.path(), available ? good : bad);
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  });
  for (auto& thread : threads) thread.join();

  // Whatever is still queued follows once the database stays available.
  Helper::SetStatusPaths(dir.path(), good);
  Helper::FlushQueuedStatuses();
  std::map<std::string, int> rows;
  for (const auto& row : ReadRows(good)) ++rows[row[2]];
  EXPECT_EQ(rows.size(), size_t{kThreads * kPerThread});
  for (const auto& [context, count] : rows) EXPECT_EQ(count, 1) << context;
  EXPECT_TRUE(QueuedContexts().empty());
}

}  // namespace
}  // namespace patchmgmt
