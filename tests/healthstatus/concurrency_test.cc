#include <atomic>
#include <map>
#include <thread>
#include <vector>

#include "healthstatus/patchstatushelper.h"
#include "statusrows.h"
#include "support/sandbox.h"

namespace patchmgmt {
namespace {

using Helper = PatchStatusHelper;

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
  std::lock_guard<std::mutex> guard(Helper::lock_);
  EXPECT_TRUE(Helper::queOfAhsMessages_.empty());
}

}  // namespace
}  // namespace patchmgmt
