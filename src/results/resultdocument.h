#pragma once

// Pieces shared by the final and the interim result documents.

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "results/jobruninfo.h"
#include "util/json.h"

namespace patchmgmt {

// RapidJSON's writer, plus a way to write a string that needs no escaping in
// one copy instead of byte by byte: keys and almost every value are such.
class DocumentTextWriter : public rapidjson::Writer<rapidjson::StringBuffer> {
 public:
  explicit DocumentTextWriter(rapidjson::StringBuffer& out) : Writer(out) {}
  // `text` must be ASCII without control characters, quote or backslash.
  void PlainString(const char* text, size_t length) {
    Prefix(rapidjson::kStringType);
    char* at = os_->Push(length + 2);
    at[0] = '"';
    std::memcpy(at + 1, text, length);
    at[length + 1] = '"';
  }
};

// Writes a result document straight into `out`, key after key, in the order
// the agent reads them: no tree is built just to be serialised. Every string
// value is checked and, where it is not valid UTF-8 (a script's output, a
// Latin-1 package name), repaired with U+FFFD, so that one stray byte can
// never make the whole document unreadable.
class ResultWriter {
 public:
  explicit ResultWriter(rapidjson::StringBuffer& out) : writer_(out) {}

  void StartObject() { writer_.StartObject(); }
  void EndObject() { writer_.EndObject(); }
  void StartArray() { writer_.StartArray(); }
  void EndArray() { writer_.EndArray(); }
  // Keys are literals of the tool, valid as they stand.
  template <size_t N>
  void Key(const char (&literal)[N]) {
    writer_.PlainString(literal, N - 1);
  }
  void Key(const char* literal) { writer_.PlainString(literal, std::strlen(literal)); }
  void String(std::string_view text);
  // The parts written as one string value.
  void JoinedString(std::string_view a, std::string_view b, std::string_view c, std::string_view d);
  void Int(int value) { writer_.Int(value); }
  void Int64(int64_t value) { writer_.Int64(value); }
  void Uint64(uint64_t value) { writer_.Uint64(value); }

  // The job header of the result object: "jobId" to "startDateTime", then
  // "endDateTime" when `withEndTime`, then "jobReceivedDateTime" when known,
  // and "resultType".
  void ResultHeader(const JobRunInfo& jobRunInfo, bool withEndTime, const char* resultType);
  // The keys of a failed-patch entry up to and including "size"; the five
  // package arrays follow. The status codes are always 0.
  void FailedPatchHead(std::string_view patchId, uint64_t size);
  // An element of "failed" for a patch of which nothing but its id is known:
  // size 0 and empty package arrays.
  void EmptyFailedPatch(std::string_view patchId);
  // A key followed by an empty array.
  void EmptyArray(const char* key);

 private:
  DocumentTextWriter writer_;
  std::string joined_;
};

}  // namespace patchmgmt
