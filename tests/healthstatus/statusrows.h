#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <string>
#include <vector>

namespace patchmgmt {

// The "Status" table as the agent reads it back, in insertion order: per row
// DateTime, ProtoType, ContextId, StatusCode, State, ExtraFields.
inline std::vector<std::vector<std::string>> ReadRows(const std::string& dbPath) {
  std::vector<std::vector<std::string>> rows;
  auto collect = [](void* out, int columns, char** values, char**) {
    auto& row = static_cast<std::vector<std::vector<std::string>>*>(out)->emplace_back();
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

}  // namespace patchmgmt
