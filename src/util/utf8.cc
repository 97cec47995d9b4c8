#include "util/utf8.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace patchmgmt {

namespace {

// The length of the well-formed sequence that starts at `at`, or, as a
// negative number, the length of the maximal subpart that must be replaced.
int SequenceAt(std::string_view text, size_t at) {
  const auto byte = [&](size_t i) { return static_cast<uint8_t>(text[i]); };
  const uint8_t lead = byte(at);
  if (lead < 0x80) return 1;
  int length = 0;
  uint8_t low = 0x80;
  uint8_t high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;   // no overlong forms
    if (lead == 0xED) high = 0x9F;  // no surrogates
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;   // no overlong forms
    if (lead == 0xF4) high = 0x8F;  // nothing above U+10FFFF
  } else {
    return -1;
  }
  for (int i = 1; i < length; ++i) {
    if (at + i >= text.size()) return -i;
    const uint8_t next = byte(at + i);
    if (next < low || next > high) return -i;
    low = 0x80;
    high = 0xBF;
  }
  return length;
}

}  // namespace

bool IsValidUtf8(std::string_view text) {
  // Documents are mostly ASCII: eight bytes at a time until a high bit shows.
  constexpr uint64_t kHighBits = 0x8080808080808080ULL;
  for (size_t at = 0; at < text.size();) {
    uint64_t word = 0;
    if (at + sizeof word <= text.size()) {
      std::memcpy(&word, text.data() + at, sizeof word);
      if ((word & kHighBits) == 0) {
        at += sizeof word;
        continue;
      }
    }
    const int length = SequenceAt(text, at);
    if (length < 0) return false;
    at += static_cast<size_t>(length);
  }
  return true;
}

std::string ToValidUtf8(std::string_view text) {
  if (IsValidUtf8(text)) return std::string(text);
  std::string valid;
  valid.reserve(text.size() + 8);
  for (size_t at = 0; at < text.size();) {
    const int length = SequenceAt(text, at);
    if (length > 0) {
      valid.append(text.data() + at, static_cast<size_t>(length));
      at += static_cast<size_t>(length);
    } else {
      valid.append("\xEF\xBF\xBD");
      at += static_cast<size_t>(-length);
    }
  }
  return valid;
}

}  // namespace patchmgmt
