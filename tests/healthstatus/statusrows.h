#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>
#include <vector>

namespace patchmgmt {

// The "Status" table as the agent reads it back, in insertion order: per row
// DateTime, ProtoType, ContextId, StatusCode, State, ExtraFields.
inline std::vector<std::vector<std::string>> ReadRows(const std::string& dbPath) {
  std::vector<std::vector<std::string>> rows;
  sqlite3* db = nullptr;
  EXPECT_EQ(sqlite3_open_v2(dbPath.c_str(), &db, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
  sqlite3_stmt* stmt = nullptr;
  EXPECT_EQ(sqlite3_prepare_v2(db, "SELECT * FROM Status ORDER BY rowid", -1, &stmt, nullptr), SQLITE_OK)
      << sqlite3_errmsg(db);
  while (stmt != nullptr && sqlite3_step(stmt) == SQLITE_ROW) {
    auto& row = rows.emplace_back();
    for (int column = 0; column < 6; ++column) {
      const unsigned char* value = sqlite3_column_text(stmt, column);
      row.emplace_back(value == nullptr ? "" : reinterpret_cast<const char*>(value));
    }
  }
  sqlite3_finalize(stmt);
  sqlite3_close(db);
  return rows;
}

}  // namespace patchmgmt
