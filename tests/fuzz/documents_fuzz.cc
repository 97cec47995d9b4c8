// Any results, names and texts included: the final and the interim document
// are always one valid JSON object in valid UTF-8.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "fuzzlog.h"
#include "results/finalresult.h"
#include "results/interimgenerator.h"
#include "util/json.h"
#include "util/utf8.h"

namespace {

using patchmgmt::deployer::PatchResult;

std::string Text(FuzzedDataProvider& input) { return input.ConsumeRandomLengthString(64); }

std::shared_ptr<PatchResult> Result(FuzzedDataProvider& input) {
  if (input.ConsumeBool()) return nullptr;
  auto result = std::make_shared<PatchResult>();
  result->failed = input.ConsumeBool();
  result->alreadyInstalled = input.ConsumeBool();
  result->notApplicable = input.ConsumeBool();
  result->executed = input.ConsumeBool();
  result->executionTime = input.ConsumeIntegral<int64_t>();
  result->size = input.ConsumeIntegral<uint64_t>();
  for (auto* names : {&result->successPackages, &result->pendingExecutionPackages,
                      &result->alreadyInstalledPackages, &result->notApplicablePackages}) {
    for (int i = input.ConsumeIntegralInRange(0, 3); i > 0; --i) names->insert(Text(input));
  }
  for (int i = input.ConsumeIntegralInRange(0, 3); i > 0; --i) {
    result->failedPackages.push_back(
        {input.ConsumeIntegral<int64_t>(), Text(input), Text(input), Text(input)});
  }
  return result;
}

// One JSON object, nothing after it, every string valid UTF-8, and byte for
// byte what RapidJSON's own writer makes of that object: the documents copy
// text that needs no escaping as it stands, and that shortcut must never
// change what is written.
void CheckDocument(const char* text, size_t size) {
  rapidjson::Document document;
  document.Parse<rapidjson::kParseValidateEncodingFlag | rapidjson::kParseDefaultFlags>(text, size);
  if (document.HasParseError() || !document.IsObject() || !patchmgmt::IsValidUtf8({text, size})) std::abort();
  rapidjson::StringBuffer again;
  rapidjson::Writer<rapidjson::StringBuffer> writer(again);
  document.Accept(writer);
  if (again.GetSize() != size || std::memcmp(again.GetString(), text, size) != 0) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider input(data, size);
  patchmgmt::JobRunInfo job{Text(input),
                            input.ConsumeIntegral<uint64_t>(),
                            input.ConsumeIntegral<uint64_t>(),
                            Text(input),
                            input.ConsumeIntegralInRange<uint64_t>(0, 253402300799999),
                            input.ConsumeIntegralInRange<uint64_t>(0, 253402300799999),
                            Text(input),
                            Text(input)};
  patchmgmt::deployer::PatchResultMap results;
  patchmgmt::InterimResultMap interim;
  for (int i = input.ConsumeIntegralInRange(0, 8); i > 0; --i) {
    const std::string id = Text(input);
    results[id] = Result(input);
    interim[id] = std::make_shared<const patchmgmt::InterimResult>(
        input.ConsumeIntegralInRange<uint32_t>(8970, 8990), 0, Text(input), Text(input));
  }
  rapidjson::StringBuffer final;
  patchmgmt::WriteFinalDocument(job, results, final);
  CheckDocument(final.GetString(), final.GetSize());
  const patchmgmt::InterimDocument document = patchmgmt::BuildInterimDocument(interim, job);
  CheckDocument(document.text.data(), document.text.size());
  if (document.digest.size() != 64) std::abort();
  return 0;
}
