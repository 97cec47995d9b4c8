#include "results/interimresults.h"

#include <gtest/gtest.h>

#include <string>

namespace patchmgmt {
namespace {

TEST(InterimResultsTest, KeepsTheLatestStateAndHandsOutCopies) {
  InterimResults table;
  table.Update("P2", InterimResult(kInterimPendingExecution));
  table.Update("P1", InterimResult(kInterimExecuting));
  table.Update("P1", InterimResult(kInterimFailed, 3, "", "script failed"));

  const InterimResultMap snapshot = table.Snapshot();
  ASSERT_EQ(snapshot.size(), 2u);
  EXPECT_EQ(snapshot.begin()->first, "P1");
  EXPECT_EQ(snapshot.at("P1")->code, kInterimFailed);
  EXPECT_EQ(snapshot.at("P1")->value, 3);
  EXPECT_EQ(snapshot.at("P1")->message, "script failed");

  // Later updates do not reach a snapshot already taken.
  table.Update("P1", InterimResult(kInterimSuccess));
  table.Update("P3", InterimResult(kInterimExecuting));
  EXPECT_EQ(snapshot.size(), 2u);
  EXPECT_EQ(snapshot.at("P1")->code, kInterimFailed);
  EXPECT_EQ(table.Snapshot().at("P1")->code, kInterimSuccess);

  table.Clear();
  EXPECT_TRUE(table.Snapshot().empty());
}

}  // namespace
}  // namespace patchmgmt
