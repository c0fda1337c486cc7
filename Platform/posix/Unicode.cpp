#include "Platform/posix/Unicode.h"

namespace Platform::Unicode {

namespace {

constexpr bool IsSurrogate(char32_t value) { return value >= 0xD800 && value <= 0xDFFF; }
constexpr bool IsHighSurrogate(char32_t value) { return value >= 0xD800 && value <= 0xDBFF; }
constexpr bool IsLowSurrogate(char32_t value) { return value >= 0xDC00 && value <= 0xDFFF; }

// What the first byte of a sequence says about the rest. The second byte's range is narrower than
// 80..BF where that excludes overlong forms, surrogates and values above U+10FFFF.
struct Lead {
  std::size_t length;
  unsigned char bits;
  unsigned char secondMinimum;
  unsigned char secondMaximum;
};

constexpr Lead LeadOf(unsigned char byte) {
  if (byte >= 0xC2 && byte <= 0xDF) return {2, 0x1F, 0x80, 0xBF};
  if (byte == 0xE0) return {3, 0x0F, 0xA0, 0xBF};
  if (byte == 0xED) return {3, 0x0F, 0x80, 0x9F};
  if (byte >= 0xE1 && byte <= 0xEF) return {3, 0x0F, 0x80, 0xBF};
  if (byte == 0xF0) return {4, 0x07, 0x90, 0xBF};
  if (byte >= 0xF1 && byte <= 0xF3) return {4, 0x07, 0x80, 0xBF};
  if (byte == 0xF4) return {4, 0x07, 0x80, 0x8F};
  return {0, 0, 0, 0};
}

}  // namespace

Step DecodeUtf8(std::string_view text) {
  const auto first = static_cast<unsigned char>(text[0]);
  if (first < 0x80) {
    return {first, 1, true};
  }
  const Lead lead = LeadOf(first);
  if (lead.length == 0) {
    return {0, 1, false};
  }
  char32_t character = first & lead.bits;
  for (std::size_t i = 1; i < lead.length; ++i) {
    const unsigned char minimum = i == 1 ? lead.secondMinimum : 0x80;
    const unsigned char maximum = i == 1 ? lead.secondMaximum : 0xBF;
    if (i >= text.size()) {
      return {0, i, false};
    }
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte < minimum || byte > maximum) {
      return {0, i, false};
    }
    character = (character << 6) | (byte & 0x3Fu);
  }
  return {character, lead.length, true};
}

Step DecodeWide(std::wstring_view text) {
  const auto first = static_cast<char32_t>(text[0]);
  if (IsHighSurrogate(first) && text.size() > 1) {
    const auto second = static_cast<char32_t>(text[1]);
    if (IsLowSurrogate(second)) {
      return {0x10000 + ((first - 0xD800) << 10) + (second - 0xDC00), 2, true};
    }
  }
  return {first, 1, !IsSurrogate(first) && first <= 0x10FFFF};
}

std::size_t EncodeUtf8(char32_t character, char (&bytes)[4]) {
  if (character < 0x80) {
    bytes[0] = static_cast<char>(character);
    return 1;
  }
  std::size_t length = character < 0x800 ? 2 : character < 0x10000 ? 3 : 4;
  constexpr unsigned char kLeadMarks[] = {0, 0, 0xC0, 0xE0, 0xF0};
  for (std::size_t i = length - 1; i > 0; --i) {
    bytes[i] = static_cast<char>(0x80 | (character & 0x3F));
    character >>= 6;
  }
  bytes[0] = static_cast<char>(kLeadMarks[length] | character);
  return length;
}

}  // namespace Platform::Unicode
