// Cost of the job result documents for a large job: the final document
// against RapidJSON's writer alone over the same, already built tree (the
// share that building the tree adds), and one interim generation.

#include <Poco/File.h>
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "benchreport.h"
#include "results/finalresult.h"
#include "results/interimgenerator.h"
#include "results/interimresults.h"
#include "results/jobruninfo.h"
#include "results/patchresult.h"
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

// The final document's text, written straight from the results.
void BM_WriteFinalDocument(benchmark::State& state) {
  const JobRunInfo job = BenchJob();
  const deployer::PatchResultMap results = BenchResults();
  size_t bytes = 0;
  for (auto _ : state) {
    rapidjson::StringBuffer text;
    WriteFinalDocument(job, results, text);
    bytes = text.GetSize();
    benchmark::DoNotOptimize(text.GetString());
  }
  state.counters["bytes"] = static_cast<double>(bytes);
}
BENCHMARK(BM_WriteFinalDocument)->Unit(benchmark::kMillisecond)->Repetitions(5);

// The same document's text from RapidJSON's writer over an already built
// tree, parsed back from the tool's own output so that it is equal member
// for member.
void BM_RapidJsonWriterOverPrebuiltTree(benchmark::State& state) {
  rapidjson::StringBuffer original;
  WriteFinalDocument(BenchJob(), BenchResults(), original);
  rapidjson::Document document;
  document.Parse(original.GetString(), original.GetSize());
  for (auto _ : state) {
    rapidjson::StringBuffer text;
    rapidjson::Writer<rapidjson::StringBuffer> writer(text);
    document.Accept(writer);
    benchmark::DoNotOptimize(text.GetString());
  }
}
BENCHMARK(BM_RapidJsonWriterOverPrebuiltTree)->Unit(benchmark::kMillisecond)->Repetitions(5);

// The whole final document as the tool writes it: the text, then a file
// written in full, synced and renamed into place.
void BM_FinalResult(benchmark::State& state) {
  ScratchDir dir;
  const JobRunInfo job = BenchJob();
  const deployer::PatchResultMap results = BenchResults();
  for (auto _ : state) {
    if (GenerateFinalResult(dir.path(), job, results) != 0) state.SkipWithError("GenerateFinalResult failed");
  }
}
BENCHMARK(BM_FinalResult)->Unit(benchmark::kMillisecond)->Repetitions(5);

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
BENCHMARK(BM_InterimGeneration)->Unit(benchmark::kMillisecond)->Repetitions(5);

void BM_BuildInterimDocument(benchmark::State& state) {
  const JobRunInfo job = BenchJob();
  const InterimResultMap snapshot = BenchSnapshot();
  for (auto _ : state) benchmark::DoNotOptimize(BuildInterimDocument(snapshot, job));
}
BENCHMARK(BM_BuildInterimDocument)->Unit(benchmark::kMillisecond)->Repetitions(5);

}  // namespace

int main(int argc, char** argv) {
  pmbench::Reporter reporter;
  if (!pmbench::RunBenchmarks(argc, argv, reporter)) return 1;
  // CPU time: the work is single-threaded and the machine is shared.
  const double document = reporter.Median("BM_WriteFinalDocument.cpu");
  const double writer = reporter.Median("BM_RapidJsonWriterOverPrebuiltTree.cpu");
  std::printf(
      "median CPU time: final document %.2f ms, RapidJSON writer over a built tree %.2f ms; "
      "with the file written, synced and renamed %.2f ms; one interim document %.2f ms\n",
      document, writer, reporter.Median("BM_FinalResult.cpu"), reporter.Median("BM_InterimGeneration.cpu"));
  pmbench::Goal("final document of 10,000 patches against RapidJSON's writer over a built tree, ratio",
                writer > 0 ? document / writer : 0, 1.1, 2);
  return 0;
}
