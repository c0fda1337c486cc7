#include <cstdint>
#include <cstring>
#include <cwchar>
#include <limits>

#include "Platform/Windows.h"
#include "Platform/posix/Errors.h"
#include "Platform/posix/Unicode.h"

namespace {

using Platform::Unicode::DecodeUtf8;
using Platform::Unicode::DecodeWide;
using Platform::Unicode::EncodeUtf8;
using Platform::Unicode::kReplacement;
using Platform::Unicode::Step;

// Collects converted units in the caller's buffer; with a capacity of 0 it only counts them.
template <typename Unit>
class Output {
 public:
  Output(Unit* text, int capacity) : m_text(text), m_capacity(static_cast<std::size_t>(capacity)) {}

  bool Append(const Unit* units, std::size_t count) {
    if (m_capacity != 0) {
      if (count > m_capacity - m_size) {
        return false;
      }
      std::memcpy(m_text + m_size, units, count * sizeof(Unit));
    }
    m_size += count;
    return true;
  }

  std::size_t Size() const { return m_size; }

 private:
  Unit* m_text;
  std::size_t m_capacity;
  std::size_t m_size = 0;
};

bool ArgumentsAreValid(const void* source, int sourceLength, const void* target, int capacity) {
  return source != nullptr && sourceLength != 0 && sourceLength >= -1 && capacity >= 0 &&
         (capacity == 0 || target != nullptr) && source != target;
}

DWORD FinalSize(std::size_t size, int& converted) {
  if (size > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
    return ERROR_INVALID_PARAMETER;
  }
  converted = static_cast<int>(size);
  return ERROR_SUCCESS;
}

// A buffer that is too small is reported before text that is not well-formed, as on Windows.
DWORD ToMultiByte(std::wstring_view text, bool strict, Output<char> output, int& converted) {
  bool bInvalid = false;
  while (!text.empty()) {
    const Step step = DecodeWide(text);
    bInvalid = bInvalid || !step.valid;
    char bytes[4];
    const std::size_t count = EncodeUtf8(step.valid ? step.character : kReplacement, bytes);
    if (!output.Append(bytes, count)) {
      return ERROR_INSUFFICIENT_BUFFER;
    }
    text.remove_prefix(step.length);
  }
  if (bInvalid && strict) {
    return ERROR_NO_UNICODE_TRANSLATION;
  }
  return FinalSize(output.Size(), converted);
}

DWORD ToWide(std::string_view text, bool strict, Output<wchar_t> output, int& converted) {
  bool bInvalid = false;
  while (!text.empty()) {
    const Step step = DecodeUtf8(text);
    bInvalid = bInvalid || !step.valid;
    const auto unit = static_cast<wchar_t>(step.valid ? step.character : kReplacement);
    if (!output.Append(&unit, 1)) {
      return ERROR_INSUFFICIENT_BUFFER;
    }
    text.remove_prefix(step.length);
  }
  if (bInvalid && strict) {
    return ERROR_NO_UNICODE_TRANSLATION;
  }
  return FinalSize(output.Size(), converted);
}

}  // namespace

int WideCharToMultiByte(UINT codePage, DWORD flags, LPCWCH wideText, int wideLength,
                        LPSTR multiByteText, int multiByteCapacity, LPCCH defaultChar,
                        LPBOOL usedDefaultChar) {
  int converted = 0;
  Platform::Report([&]() -> DWORD {
    if (codePage != CP_UTF8 || (flags & ~WC_ERR_INVALID_CHARS) != 0 || defaultChar != nullptr ||
        usedDefaultChar != nullptr ||
        !ArgumentsAreValid(wideText, wideLength, multiByteText, multiByteCapacity)) {
      return ERROR_INVALID_PARAMETER;
    }
    const std::size_t length =
        wideLength == -1 ? std::wcslen(wideText) + 1 : static_cast<std::size_t>(wideLength);
    return ToMultiByte({wideText, length}, flags != 0, {multiByteText, multiByteCapacity},
                       converted);
  });
  return converted;
}

int MultiByteToWideChar(UINT codePage, DWORD flags, LPCCH multiByteText, int multiByteLength,
                        LPWSTR wideText, int wideCapacity) {
  int converted = 0;
  Platform::Report([&]() -> DWORD {
    if (codePage != CP_UTF8 || (flags & ~MB_ERR_INVALID_CHARS) != 0 ||
        !ArgumentsAreValid(multiByteText, multiByteLength, wideText, wideCapacity)) {
      return ERROR_INVALID_PARAMETER;
    }
    const std::size_t length = multiByteLength == -1 ? std::strlen(multiByteText) + 1
                                                     : static_cast<std::size_t>(multiByteLength);
    return ToWide({multiByteText, length}, flags != 0, {wideText, wideCapacity}, converted);
  });
  return converted;
}
