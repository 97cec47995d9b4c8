// Cost of the job result documents for a large job: the final document
// against RapidJSON's writer alone over the same, already built tree (the
// share that building the tree adds), and one interim generation.

#include <Poco/File.h>
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "results/patchresult.h"
#include "results/finalresult.h"
#include "results/interimgenerator.h"
#include "results/interimresults.h"
#include "results/jobruninfo.h"
#include "util/json.h"

namespace {

using namespace patchmgmt;

constexpr int kPatchCount = 10000;

// A scratch directory removed with its content at the end.
class ScratchDir {
 public:
  ScratchDir() {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/pmbench-XXXXXX";
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    if (mkdtemp(buffer.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = buffer.data();
  }
  ~ScratchDir() { Poco::File(path_).remove(true); }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

JobRunInfo BenchJob() {
  JobRunInfo job;
  job.jobId = "job-0001";
  job.manifestInstanceId = 123456789;
  job.runId = 42;
  job.vendorId = "vendor";
  job.startTime = 1709622489123ULL;
  job.endTime = 1709626089456ULL;
  job.agentVersion = "4.2.0.1234";
  job.jobReceivedDateTime = "2024-03-05T07:00:00.000Z";
  return job;
}

std::string PatchId(int i) { return "KB" + std::to_string(5000000 + i); }

// Every patch executed; every other one failed with three package records,
// the others succeeded with two packages.
deployer::PatchResultMap BenchResults() {
  deployer::PatchResultMap results;
  for (int i = 0; i < kPatchCount; ++i) {
    auto result = std::make_shared<deployer::PatchResult>();
    const std::string id = PatchId(i);
    result->executed = true;
    result->executionTime = 1000 + i;
    result->size = 1024u * static_cast<uint64_t>(i);
    if (i % 2 == 0) {
      result->successPackages = {id + "-libfoo", id + "-foo-common"};
    } else {
      result->failed = true;
      result->successPackages = {id + "-libbar"};
      result->notApplicablePackages = {id + "-bar-doc"};
      result->failedPackages = {
          {100, id + "-bar", "dpkg returned an error code (1)", "E: Sub-process /usr/bin/dpkg returned 1"},
          {3, id + "-bar-data", "", "Unpacking bar-data ... failed"},
          {-9, id + "-bar-extra", "killed after time limit", ""}};
    }
    results[id] = result;
  }
  return results;
}

std::string ReadWhole(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void BM_FinalResult(benchmark::State& state) {
  ScratchDir dir;
  const JobRunInfo job = BenchJob();
  const deployer::PatchResultMap results = BenchResults();
  for (auto _ : state) {
    if (GenerateFinalResult(dir.path(), job, results) != 0) state.SkipWithError("GenerateFinalResult failed");
  }
  state.counters["bytes"] = static_cast<double>(ReadWhole(dir.path() + "/job-0001_42_status.json").size());
}
BENCHMARK(BM_FinalResult)->Unit(benchmark::kMillisecond);

// The same document, parsed back from the tool's own output so that it is
// equal member for member, serialised and written the same way.
void BM_RapidJsonWriterOverPrebuiltTree(benchmark::State& state) {
  ScratchDir dir;
  if (GenerateFinalResult(dir.path(), BenchJob(), BenchResults()) != 0) {
    state.SkipWithError("GenerateFinalResult failed");
    return;
  }
  const std::string path = dir.path() + "/job-0001_42_status.json";
  rapidjson::Document document;
  document.Parse(ReadWhole(path).c_str());
  for (auto _ : state) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    document.Accept(writer);
    std::ofstream file(path, std::ios::out | std::ios::trunc | std::ios::binary);
    file.write(buffer.GetString(), static_cast<std::streamsize>(buffer.GetSize()));
  }
}
BENCHMARK(BM_RapidJsonWriterOverPrebuiltTree)->Unit(benchmark::kMillisecond);

InterimResultMap BenchSnapshot() {
  InterimResultMap snapshot;
  for (int i = 0; i < kPatchCount; ++i) {
    snapshot[PatchId(i)] = std::make_shared<const InterimResult>(kInterimPendingExecution + i % 9);
  }
  return snapshot;
}

void BM_InterimGeneration(benchmark::State& state) {
  ScratchDir dir;
  const JobRunInfo job = BenchJob();
  const InterimResultMap snapshot = BenchSnapshot();
  for (auto _ : state) {
    if (!WriteInterimResult(snapshot, job, dir.path())) state.SkipWithError("WriteInterimResult failed");
  }
}
BENCHMARK(BM_InterimGeneration)->Unit(benchmark::kMillisecond);

void BM_BuildInterimDocument(benchmark::State& state) {
  const JobRunInfo job = BenchJob();
  const InterimResultMap snapshot = BenchSnapshot();
  for (auto _ : state) benchmark::DoNotOptimize(BuildInterimDocument(snapshot, job));
}
BENCHMARK(BM_BuildInterimDocument)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
