// Parsing a large deployment manifest into the model, next to RapidJSON's own
// DOM parse of the same bytes.
//
//   bench_manifest_parse                      time both on a generated manifest
//   bench_manifest_parse --write-manifest F   write the generated manifest to F
//   bench_manifest_parse --parse-once F       parse F once, report time and peak
//                                             memory (also under /usr/bin/time -v)
//   bench_manifest_parse --dom-once F         the same for a bare DOM parse of F
#include <Poco/File.h>
#include <Poco/Message.h>
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "benchreport.h"
#include "manifest/deploymentmanifest.h"
#include "util/files.h"
#include "util/json.h"
#include "util/log.h"

namespace {

constexpr int kPatches = 10000;
const char* const kArchitectures[] = {"amd64", "arm64", "i386"};

// 10,000 patches, each with three architectures of one to three packages and a
// digest: about 5 MB, the size of the largest manifests the server sends.
std::string GenerateManifest() {
  std::string json;
  json.reserve(6 << 20);
  json +=
      "{\"schemaversion\":2,\"manifestinstanceid\":9007199254740993,\"jobs\":[{\"id\":\"bench-job\","
      "\"runid\":1,\"type\":\"INSTALL\",\"isimmediate\":true,\"datetime\":\"2026-03-01T10:00:00.000Z\","
      "\"timeout\":240,\"uploadprogressreports\":true,\"continueafterpackagefailedforpatch\":true,"
      "\"sendJobTelemetryData\":true,\"patches\":[";
  char buffer[512];
  for (int i = 0; i < kPatches; ++i) {
    std::snprintf(buffer, sizeof buffer,
                  "%s{\"zpatchid\":\"ZP-%06d\",\"vendorpatchid\":\"DSA-%05d-1\",\"rebootrequire\":%s,"
                  "\"downloadinfo\":[{\"langid\":1033,\"downloadurl\":\"https://repo.example.net/%06d/\","
                  "\"platform\":\"linux\",\"hashesh\":[{\"type\":\"SHA256\",\"value\":\"%064x\"}],"
                  "\"packagesbyarch\":[",
                  i == 0 ? "" : ",", i, i, i % 7 == 0 ? "true" : "false", i, i * 2654435761u);
    json += buffer;
    for (int a = 0; a < 3; ++a) {
      json += a == 0 ? "" : ",";
      json += "{\"architecture\":\"";
      json += kArchitectures[a];
      json += "\",\"packages\":[";
      const int packages = 1 + (i + a) % 3;
      for (int p = 0; p < packages; ++p) {
        std::snprintf(buffer, sizeof buffer, "%s\"libex%d-%d_%d.%d.%d-%d_%s.deb\"", p == 0 ? "" : ",", p,
                      i % 97, 1 + i % 5, i % 13, i % 31, 1 + p, kArchitectures[a]);
        json += buffer;
      }
      json += "]}";
    }
    json += "]}]}";
  }
  json +=
      "],\"predeployment\":{\"message\":\"Updates will be installed\",\"description\":\"Save your work\","
      "\"deferment\":{\"count\":3,\"minutesinterval\":60}},\"duringdeployment\":{\"message\":\"Installing\"},"
      "\"postdeployment\":{\"suppressreboots\":false,\"rebootcountdown\":{\"minutesinterval\":15,"
      "\"message\":\"Restarting\"},\"oncomplete\":{\"message\":\"Done\"}}}]}";
  return json;
}

void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  if (!out) {
    std::fprintf(stderr, "cannot write %s\n", path.c_str());
    std::exit(2);
  }
}

// The manifest's logger at information level: the dump and the content trace
// are skipped, as in an installed agent.
void QuietLogger() {
  zagent::LOGGER_NAME = "zelkor-patchmgmt-tool";
  patchmgmt::ToolLogger().setLevel(Poco::Message::PRIO_INFORMATION);
}

long StatusKilobytes(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  const size_t length = std::strlen(field);
  while (std::getline(status, line)) {
    if (line.compare(0, length, field) == 0) return std::atol(line.c_str() + length + 1);
  }
  return -1;
}

double MillisecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

void PrintPeakMemory(const std::string& path, long beforeKb) {
  const long fileKb = static_cast<long>(Poco::File(path).getSize() / 1024);
  const long peakKb = StatusKilobytes("VmHWM");
  const long goalKb = 4 * fileKb + 10 * 1024;
  std::printf("file %.2f MB; peak RSS %.2f MB (%.2f MB before)\n", fileKb / 1024.0, peakKb / 1024.0,
              beforeKb / 1024.0);
  pmbench::Goal("peak resident memory in MB (4 x file + 10 MB)", peakKb / 1024.0, goalKb / 1024.0, 1);
}

// One parse in a fresh process, as the tool does it: every page it touches is
// new, so this is the cold cost, and the whole process's peak memory.
int ParseOnce(const std::string& path) {
  QuietLogger();
  const long beforeKb = StatusKilobytes("VmHWM");
  patchmgmt::DeploymentJobManifest manifest("bench");
  const auto start = std::chrono::steady_clock::now();
  const int32_t result = manifest.ParseManifest(path);
  const double elapsed = MillisecondsSince(start);
  std::printf("ParseManifest: result %d, %zu job(s), %zu patches, %.2f ms\n", result, manifest.jobs.size(),
              manifest.jobs.empty() ? size_t{0} : manifest.jobs[0].patches.size(), elapsed);
  PrintPeakMemory(path, beforeKb);
  return result == 0 ? 0 : 1;
}

// The same for RapidJSON's bare DOM parse of the file's bytes, for comparison.
int DomOnce(const std::string& path) {
  const long beforeKb = StatusKilobytes("VmHWM");
  const std::string text = patchmgmt::ReadFile(path);
  const auto start = std::chrono::steady_clock::now();
  rapidjson::Document document;
  document.Parse(text.c_str());
  const double elapsed = MillisecondsSince(start);
  std::printf("Document::Parse: %s, %.2f ms\n", document.HasParseError() ? "error" : "ok", elapsed);
  PrintPeakMemory(path, beforeKb);
  return document.HasParseError() ? 1 : 0;
}

std::string g_manifestPath;
std::string g_manifestText;

// Only the parse is timed in each benchmark; releasing the DOM or the model
// afterwards is not.
void BM_RapidJsonDomParse(benchmark::State& state) {
  for (auto _ : state) {
    auto document = std::make_unique<rapidjson::Document>();
    document->Parse(g_manifestText.data(), g_manifestText.size());
    benchmark::DoNotOptimize(document->HasParseError());
    state.PauseTiming();
    document.reset();
    state.ResumeTiming();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * g_manifestText.size()));
}

// The same, through the NUL-terminated entry that skips the length checks.
void BM_RapidJsonDomParseCString(benchmark::State& state) {
  for (auto _ : state) {
    auto document = std::make_unique<rapidjson::Document>();
    document->Parse(g_manifestText.c_str());
    benchmark::DoNotOptimize(document->HasParseError());
    state.PauseTiming();
    document.reset();
    state.ResumeTiming();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * g_manifestText.size()));
}

// The text in memory to the model: the same input as the DOM parse's. The
// parse works in place, so each iteration gets a fresh copy of the text,
// which is not timed.
void BM_ParseManifestText(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    std::string text = g_manifestText;
    auto manifest = std::make_unique<patchmgmt::DeploymentJobManifest>("bench");
    state.ResumeTiming();
    if (manifest->ParseManifestText(std::move(text)) != 0) state.SkipWithError("manifest rejected");
    benchmark::DoNotOptimize(manifest->jobs.data());
    state.PauseTiming();
    manifest.reset();
    state.ResumeTiming();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * g_manifestText.size()));
}

// As the tool does it: reading the file, the parse and building the model.
void BM_ParseManifest(benchmark::State& state) {
  for (auto _ : state) {
    auto manifest = std::make_unique<patchmgmt::DeploymentJobManifest>("bench");
    if (manifest->ParseManifest(g_manifestPath) != 0) state.SkipWithError("manifest rejected");
    benchmark::DoNotOptimize(manifest->jobs.data());
    state.PauseTiming();
    manifest.reset();
    state.ResumeTiming();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * g_manifestText.size()));
}

BENCHMARK(BM_RapidJsonDomParse)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_RapidJsonDomParseCString)
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(5)
    ->ReportAggregatesOnly(true);
BENCHMARK(BM_ParseManifestText)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_ParseManifest)->Unit(benchmark::kMillisecond)->Repetitions(5)->ReportAggregatesOnly(true);

}  // namespace

int main(int argc, char** argv) {
  if (argc == 3 && std::strcmp(argv[1], "--write-manifest") == 0) {
    WriteFile(argv[2], GenerateManifest());
    return 0;
  }
  if (argc == 3 && std::strcmp(argv[1], "--parse-once") == 0) return ParseOnce(argv[2]);
  if (argc == 3 && std::strcmp(argv[1], "--dom-once") == 0) return DomOnce(argv[2]);

  // By default glibc maps large blocks afresh on every allocation and gives
  // freed heap back to the system, so a benchmark would pay page faults on
  // some iterations and not others depending on block sizes and on what ran
  // before it. Keeping all memory in the process makes every benchmark run
  // warm, so that the figures compare the work itself; --parse-once and
  // --dom-once give the cold, single-shot cost.
  mallopt(M_MMAP_THRESHOLD, 1 << 30);
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  QuietLogger();
  char dir[] = "/tmp/bench-manifest-XXXXXX";
  if (mkdtemp(dir) == nullptr) {
    std::perror("mkdtemp");
    return 2;
  }
  g_manifestPath = std::string(dir) + "/manifest.json";
  g_manifestText = GenerateManifest();
  WriteFile(g_manifestPath, g_manifestText);
  std::printf("manifest: %d patches, %.2f MB\n", kPatches, g_manifestText.size() / (1024.0 * 1024.0));

  pmbench::Reporter reporter;
  const bool ran = pmbench::RunBenchmarks(argc, argv, reporter);
  Poco::File(dir).remove(true);
  if (!ran) return 1;

  // CPU time, because the benchmarks share the machine's cores with other
  // work and the parse is single-threaded: wall time would count the moments
  // the thread waited for a core. Both sides parse with the iterative parser
  // that the tool must use.
  const double dom = std::min(reporter.Median("BM_RapidJsonDomParse.cpu"),
                              reporter.Median("BM_RapidJsonDomParseCString.cpu"));
  const double text = reporter.Median("BM_ParseManifestText.cpu");
  std::printf(
      "median CPU time: text to model %.2f ms, RapidJSON DOM parse %.2f ms; "
      "file to model %.2f ms\n",
      text, dom, reporter.Median("BM_ParseManifest.cpu"));
  pmbench::Goal("manifest of 10,000 patches, text to model against RapidJSON's DOM parse, ratio",
                dom > 0 ? text / dom : 0, 1.3, 2);
  return 0;
}
