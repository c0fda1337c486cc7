#pragma once

// Single steps of the conversion between UTF-8 and wide text, shared by the text calls and by the
// conversion of paths. Pure functions.

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Platform::Unicode {

constexpr char32_t kReplacement = 0xFFFD;

struct Step {
  char32_t character = 0;  // of an invalid step of wide text: the unit itself
  std::size_t length = 0;  // units that were consumed; at least 1
  bool valid = false;
};

// Reads one character of a non-empty text. An invalid step covers the longest beginning of a
// well-formed sequence, so a cut-off character counts as one error, not as one per byte.
Step DecodeUtf8(std::string_view text);

// Reads one character of a non-empty text; a pair of surrogates is one character. A lone surrogate
// or a value above U+10FFFF is invalid.
Step DecodeWide(std::wstring_view text);

// Writes a valid character to `bytes`; returns the number of bytes.
std::size_t EncodeUtf8(char32_t character, char (&bytes)[4]);

}  // namespace Platform::Unicode
