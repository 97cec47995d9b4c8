#include "healthstatus/patchstatushelper.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <ctime>
#include <fstream>
#include <regex>
#include <thread>

#include "healthstatus/healthstatustoolhelper.h"
#include "healthstatus/patchstatusdatabase.h"
#include "support/sandbox.h"
#include "util/timestamps.h"
#include "zelkor/agent.h"
#include "zelkor/logger.h"

namespace patchmgmt {
namespace {

using Helper = PatchStatusHelper;

struct Row {
  std::string dateTime, protoType, contextId, statusCode, state, extraFields;
};

std::vector<Row> ReadRows(const std::string& dbPath) {
  std::vector<Row> rows;
  sqlite3* db = nullptr;
  EXPECT_EQ(sqlite3_open_v2(dbPath.c_str(), &db, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
  sqlite3_stmt* stmt = nullptr;
  EXPECT_EQ(
      sqlite3_prepare_v2(db,
                         "SELECT DateTime, ProtoType, ContextId, StatusCode, State, ExtraFields, INTEGER "
                         "FROM Status ORDER BY rowid",
                         -1, &stmt, nullptr),
      SQLITE_OK)
      << sqlite3_errmsg(db);
  auto text = [&](int column) {
    const unsigned char* value = sqlite3_column_text(stmt, column);
    return value == nullptr ? std::string() : std::string(reinterpret_cast<const char*>(value));
  };
  while (stmt != nullptr && sqlite3_step(stmt) == SQLITE_ROW) {
    rows.push_back({text(0), text(1), text(2), text(3), text(4), text(5)});
  }
  sqlite3_finalize(stmt);
  sqlite3_close(db);
  return rows;
}

std::vector<std::string> QueuedContexts() {
  std::lock_guard<std::mutex> guard(Helper::lock_);
  std::vector<std::string> contexts;
  for (auto copy = Helper::queOfAhsMessages_; !copy.empty(); copy.pop())
    contexts.push_back(copy.front().contextId);
  return contexts;
}

ahs::PatchAHSMessages ReadMessageFile(const std::string& path) {
  ahs::PatchAHSMessages messages;
  std::ifstream in(path, std::ios::binary);
  EXPECT_TRUE(messages.ParseFromIstream(&in)) << path;
  return messages;
}

// One log file for the whole binary; each test looks for texts naming its own
// temporary paths.
const std::string& LogPath() {
  static const pmtest::TempDir dir;
  static const std::string path = [] {
    zagent::LOGGER_NAME = "zelkor-patchmgmt-tool";
    const std::string logPath = dir.Join("tool.log");
    util::logger::InitializeLogger(pmtest::WriteLogConfig(dir.Join("log.conf"), logPath), dir.path());
    return logPath;
  }();
  return path;
}

// The queue and `writer` are process-wide; each test starts and ends with
// both empty.
class PatchStatusTest : public ::testing::Test {
 protected:
  void SetUp() override {
    LogPath();
    Drain();
  }
  void TearDown() override { Drain(); }
  static void Drain() {
    Helper::CollectQueuedStatuses();
    std::lock_guard<std::mutex> guard(Helper::lock_);
    Helper::writer.Clear();
  }
  pmtest::TempDir dir;
};

TEST_F(PatchStatusTest, RowsLandInStatusTableWithTheirColumns) {
  const std::string dbPath = dir.Join("status.db");
  ASSERT_TRUE(PatchStatusDBHelper::InitialiseStatusDB(dbPath));
  ASSERT_TRUE(PatchStatusDBHelper::InitialiseStatusDB(dbPath));

  PatchMgmtHealthStatus plain("ctx-plain", 0, 0);
  EXPECT_EQ(PatchStatusDBHelper::AddStatusRow(0, plain, 17, ahs::Success), 0);
  EXPECT_EQ(PatchStatusDBHelper::AddStatusRowWithExtraFields(1706702400, plain, 18, ahs::Failed,
                                                             {{"b", "x\"y"}, {"a", "1"}}),
            0);
  EXPECT_EQ(Helper::ReportManifestOsStatus("ctx-mos", 19, ahs::InProgress, "m1", "mi1", 7, -3), 0);

  const auto rows = ReadRows(dbPath);
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(rows[0].dateTime, "1970-01-01T00:00:00Z");
  EXPECT_EQ(rows[0].protoType, "4");
  EXPECT_EQ(rows[0].contextId, "ctx-plain");
  EXPECT_EQ(rows[0].statusCode, "17");
  EXPECT_EQ(rows[0].state, "1");
  EXPECT_EQ(rows[1].dateTime, "2024-01-31T12:00:00Z");
  EXPECT_EQ(rows[1].statusCode, "18");
  EXPECT_EQ(rows[1].extraFields, R"({"a":"1","b":"x\"y"})");
  EXPECT_TRUE(std::regex_match(rows[2].dateTime, std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)")));
  EXPECT_EQ(rows[2].extraFields,
            R"({"manifestId":"m1","manifestInstanceId":"mi1","osStatus":"-3","runId":"7"})");

  // The select and delete texts address the same rows the agent reads back.
  auto& database = *PatchStatusDBHelper::statusDBObjPtr_;
  util::modulestatus::Rows selected;
  ASSERT_EQ(database.ExecuteSelectQueryTillMaxRetry(database.GetSelectQuery(), selected, 1), 0);
  ASSERT_EQ(selected.size(), 3u);
  ASSERT_EQ(database.ExecuteQueryTillMaxRetry(database.GetDeleteQuery(std::stol(selected[0][0])), 1), 0);
  EXPECT_EQ(ReadRows(dbPath).size(), 2u);
}

TEST_F(PatchStatusTest, UnavailableDatabaseQueuesInOrderAndOneFlushWritesAll) {
  const int64_t before = std::time(nullptr);
  Helper::SetStatusPaths(dir.path(), dir.Join("missing/status.db"));
  Helper::AddHealthStatus(PatchMgmtHealthStatus("first", 1, ahs::Success));
  Helper::AddHealthStatus(PatchMgmtHealthStatus("second", 2, ahs::Failed));
  pmtest::WriteTextFile(dir.Join("notadb"), "this is not an SQLite database, just some text\n");
  Helper::SetStatusPaths(dir.path(), dir.Join("notadb"));
  PatchMgmtHealthStatus third("third", 3, ahs::InProgress);
  third.extraFields["k"] = "v";
  Helper::AddHealthStatus(third);
  EXPECT_EQ(Helper::FlushQueuedStatuses(), 1);
  const int64_t after = std::time(nullptr);

  ASSERT_EQ(QueuedContexts(), (std::vector<std::string>{"first", "second", "third"}));
  std::vector<int64_t> stamps;
  {
    std::lock_guard<std::mutex> guard(Helper::lock_);
    for (auto copy = Helper::queOfAhsMessages_; !copy.empty(); copy.pop())
      stamps.push_back(copy.front().dateTime);
  }
  for (int64_t stamp : stamps) {
    EXPECT_GE(stamp, before);
    EXPECT_LE(stamp, after);
  }
  const auto log = pmtest::ReadLog(LogPath());
  EXPECT_TRUE(
      pmtest::HasLogLine(log, "Intializing patch status DB: " + dir.Join("missing/status.db"), "Trace"));
  EXPECT_TRUE(pmtest::HasLogPrefix(log, "StatusDBOpenError exception in InitialiseStatusDB: "));

  // A retry in a later second must still write the time of the first attempt.
  while (std::time(nullptr) <= after) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  const std::string dbPath = dir.Join("status.db");
  Helper::SetStatusPaths(dir.path(), dbPath);
  EXPECT_EQ(Helper::FlushQueuedStatuses(), 1);
  EXPECT_TRUE(QueuedContexts().empty());
  const auto rows = ReadRows(dbPath);
  ASSERT_EQ(rows.size(), 3u);
  for (size_t i = 0; i < rows.size(); ++i) EXPECT_EQ(rows[i].dateTime, FormatStatusTime(stamps[i]));
  EXPECT_EQ(rows[0].contextId, "first");
  EXPECT_EQ(rows[1].contextId, "second");
  EXPECT_EQ(rows[2].contextId, "third");
  EXPECT_EQ(rows[2].extraFields, R"({"k":"v"})");
  EXPECT_EQ(Helper::FlushQueuedStatuses(), 1);
  EXPECT_EQ(ReadRows(dbPath).size(), 3u);
}

TEST_F(PatchStatusTest, QuotedContextIdStaysQueuedWithoutHarmingOtherRows) {
  const std::string dbPath = dir.Join("status.db");
  Helper::SetStatusPaths(dir.Join("ahs"), dbPath);
  Helper::AddHealthStatus(PatchMgmtHealthStatus("before", 1, ahs::Success));
  Helper::AddHealthStatus(PatchMgmtHealthStatus("job's patch", 2, ahs::Failed));
  Helper::AddHealthStatus(PatchMgmtHealthStatus("after", 3, ahs::Success));
  EXPECT_EQ(QueuedContexts(), std::vector<std::string>{"job's patch"});

  // A record queued behind the refused one waits for it: rows keep event order.
  Helper::SetStatusPaths(dir.Join("ahs"), dir.Join("missing/status.db"));
  Helper::AddHealthStatus(PatchMgmtHealthStatus("queued later", 4, ahs::Success));
  Helper::SetStatusPaths(dir.Join("ahs"), dbPath);
  Helper::FlushQueuedStatuses();
  EXPECT_EQ(QueuedContexts(), (std::vector<std::string>{"job's patch", "queued later"}));
  auto rows = ReadRows(dbPath);
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].contextId, "before");
  EXPECT_EQ(rows[1].contextId, "after");

  // At the end of the run both reach the message file, nothing is lost.
  EXPECT_TRUE(Helper::SaveQueuedStatuses());
  const auto files = pmtest::ListDir(dir.Join("ahs"));
  ASSERT_EQ(files.size(), 1u);
  const auto messages = ReadMessageFile(dir.Join("ahs/" + files[0]));
  ASSERT_EQ(messages.patchahsmessages_size(), 2);
  EXPECT_EQ(messages.patchahsmessages(0).contextid(), "job's patch");
  EXPECT_EQ(messages.patchahsmessages(1).contextid(), "queued later");
  EXPECT_EQ(ReadRows(dbPath).size(), 2u);
}

TEST_F(PatchStatusTest, MessageFileDecodesThroughGeneratedClasses) {
  ahs::PatchAHSMessages empty;
  EXPECT_TRUE(Helper::WriteAhsMessages(empty, dir.Join("empty.dat")));
  EXPECT_FALSE(pmtest::PathExists(dir.Join("empty.dat")));

  Helper::SetStatusPaths(dir.path(), dir.Join("missing/status.db"));
  Helper::AddHealthStatus(PatchMgmtHealthStatus("plain", 7, ahs::Disable));
  PatchMgmtHealthStatus extra("extra", 4000000000u, ahs::Enable);
  extra.dateTime = 1700000000;
  extra.extraFields = {{"zeta", "3"}, {"alpha", "1"}, {"mid", "2"}};
  Helper::AddHealthStatus(extra);
  EXPECT_EQ(Helper::CollectQueuedStatuses(), 1);
  EXPECT_TRUE(QueuedContexts().empty());
  std::lock_guard<std::mutex> guard(Helper::lock_);
  const std::string path = Helper::collectedFilePath_;
  EXPECT_EQ(path.rfind(dir.Join("PatchAHSMessage_"), 0), 0u) << path;

  EXPECT_FALSE(Helper::WriteAhsMessages(Helper::writer, ""));
  EXPECT_FALSE(Helper::WriteAhsMessages(Helper::writer, dir.Join("missing/x.dat")));
  EXPECT_EQ(Helper::writer.patchahsmessages_size(), 2);
  EXPECT_EQ(pmtest::ListDir(dir.path()).size(), 0u);
  ASSERT_TRUE(Helper::WriteAhsMessages(Helper::writer, path));
  EXPECT_EQ(Helper::writer.patchahsmessages_size(), 0);

  const auto messages = ReadMessageFile(path);
  ASSERT_EQ(messages.patchahsmessages_size(), 2);
  EXPECT_EQ(messages.patchahsmessages(0).contextid(), "plain");
  EXPECT_EQ(messages.patchahsmessages(0).state(), ahs::Disable);
  EXPECT_GT(messages.patchahsmessages(0).datetimeepoch(), 0);
  EXPECT_EQ(messages.patchahsmessages(0).extrafieldsarray_size(), 0);
  const auto& second = messages.patchahsmessages(1);
  EXPECT_EQ(second.statuscode(), 4000000000u);
  EXPECT_EQ(second.state(), ahs::Enable);
  EXPECT_EQ(second.datetimeepoch(), 1700000000);
  ASSERT_EQ(second.extrafieldsarray_size(), 3);
  EXPECT_EQ(second.extrafieldsarray(0).key(), "alpha");
  EXPECT_EQ(second.extrafieldsarray(1).key(), "mid");
  EXPECT_EQ(second.extrafieldsarray(2).key(), "zeta");
  EXPECT_EQ(second.extrafieldsarray(2).value(), "3");

  const auto log = pmtest::ReadLog(LogPath());
  EXPECT_TRUE(pmtest::HasLogLine(log, "No AHS messages to be written", "Debug"));
  EXPECT_TRUE(pmtest::HasLogLine(log, "Number of AHS messages to be written : 2", "Debug"));
  EXPECT_TRUE(pmtest::HasLogLine(log, "Writting AHS messages to file " + path, "Debug"));
  EXPECT_TRUE(pmtest::HasLogLine(
      log, "Failed to open file: " + dir.Join("missing/x.dat") + " error: No such file or directory",
      "Error"));
}

TEST_F(PatchStatusTest, EndOfRunSavesQueuedManifestStatusesToOneFile) {
  const std::string ahsDir = dir.Join("ahs");
  auto helper = HealthStatusToolHelper::GetInstance("job-ctx", "agent-1", "m1", "mi1", ahsDir,
                                                    dir.Join("missing/status.db"));
  ASSERT_TRUE(helper);
  EXPECT_EQ(HealthStatusToolHelper::GetInstance("other", "", "", "", "", ""), helper);
  EXPECT_TRUE(Helper::SaveQueuedStatuses());
  EXPECT_FALSE(pmtest::PathExists(ahsDir));

  helper->QueueManifestStatus(8976, ahs::InProgress);
  helper->QueueManifestOsStatus(8977, ahs::Failed, "12");
  const int64_t before = std::time(nullptr);
  EXPECT_TRUE(Helper::SaveQueuedStatuses());
  const auto files = pmtest::ListDir(ahsDir);
  ASSERT_EQ(files.size(), 1u);
  const int64_t secs = std::stoll(files[0].substr(std::string("PatchAHSMessage_").size()));
  EXPECT_EQ(files[0], "PatchAHSMessage_" + std::to_string(secs) + ".dat");
  EXPECT_GE(secs, before);

  const auto messages = ReadMessageFile(ahsDir + "/" + files[0]);
  ASSERT_EQ(messages.patchahsmessages_size(), 2);
  const auto& os = messages.patchahsmessages(1);
  EXPECT_EQ(messages.patchahsmessages(0).statuscode(), 8976u);
  EXPECT_EQ(os.contextid(), "job-ctx");
  EXPECT_EQ(os.statuscode(), 8977u);
  ASSERT_EQ(os.extrafieldsarray_size(), 3);
  EXPECT_EQ(os.extrafieldsarray(0).key() + "=" + os.extrafieldsarray(0).value(), "manifestId=m1");
  EXPECT_EQ(os.extrafieldsarray(1).key() + "=" + os.extrafieldsarray(1).value(), "manifestInstanceId=mi1");
  EXPECT_EQ(os.extrafieldsarray(2).key() + "=" + os.extrafieldsarray(2).value(), "osStatus=12");
}

}  // namespace
}  // namespace patchmgmt
