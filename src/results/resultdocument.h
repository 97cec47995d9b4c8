#pragma once

// Pieces shared by the final and the interim result documents.

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "results/jobruninfo.h"
#include "util/json.h"

namespace patchmgmt {

// Builds a result tree through the document's own event interface, inside
// rapidjson::Document::Populate. Every object and array is then allocated once
// at its final size; AddMember would give each object room for 16 members,
// which for a job of thousands of patches is most of the tree.
class ResultTreeBuilder {
 public:
  explicit ResultTreeBuilder(rapidjson::Document& handler) : handler_(handler) {}

  void StartObject() {
    Counted();
    handler_.StartObject();
    counts_.push_back(0);
  }
  void EndObject() {
    handler_.EndObject(counts_.back());
    counts_.pop_back();
  }
  void StartArray() {
    Counted();
    handler_.StartArray();
    counts_.push_back(0);
  }
  void EndArray() {
    handler_.EndArray(counts_.back());
    counts_.pop_back();
  }
  // Keys are literals of the tool; the tree refers to them. A key and its
  // value count as one member.
  void Key(const char* literal) { handler_.Key(literal, Length(std::strlen(literal)), false); }
  // Text that outlives the document (literals, and patch ids and package
  // names of the caller's maps): the tree refers to it instead of copying it.
  void RefString(std::string_view text) {
    Counted();
    handler_.String(text.data(), Length(text.size()), false);
  }
  void CopyString(std::string_view text) {
    Counted();
    handler_.String(text.data(), Length(text.size()), true);
  }
  // The parts joined into one string of the document, without a temporary.
  void JoinedString(std::initializer_list<std::string_view> parts);
  void Int(int value) {
    Counted();
    handler_.Int(value);
  }
  void Int64(int64_t value) {
    Counted();
    handler_.Int64(value);
  }
  void Uint64(uint64_t value) {
    Counted();
    handler_.Uint64(value);
  }

  // The job header of the result object: "jobId" to "startDateTime", then
  // "endDateTime" when `withEndTime`, then "jobReceivedDateTime" when known,
  // and "resultType".
  void ResultHeader(const JobRunInfo& jobRunInfo, bool withEndTime, const char* resultType);
  // An element of "failed" for a patch of which nothing but its id is known:
  // size 0 and empty package arrays. The status codes are always 0.
  void EmptyFailedPatch(const std::string& patchId);
  // The keys of a failed-patch entry up to and including "size"; the five
  // package arrays follow.
  void FailedPatchHead(const std::string& patchId, uint64_t size);
  // A key followed by an empty array.
  void EmptyArray(const char* key);

 private:
  static rapidjson::SizeType Length(size_t size) { return static_cast<rapidjson::SizeType>(size); }
  // Counts one more value in the innermost open object or array.
  void Counted() {
    if (!counts_.empty()) ++counts_.back();
  }

  rapidjson::Document& handler_;
  std::vector<rapidjson::SizeType> counts_;
};

// Compact text of `value`: no white space, keys in insertion order.
void SerializeCompact(const rapidjson::Value& value, rapidjson::StringBuffer& out);

}  // namespace patchmgmt
