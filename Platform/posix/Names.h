#pragma once

#include <algorithm>
#include <string>
#include <string_view>

namespace Platform {

// Registry names are compared without regard to the case of the letters A to Z.
constexpr wchar_t FoldedUnit(wchar_t unit) {
  return unit >= L'A' && unit <= L'Z' ? static_cast<wchar_t>(unit - L'A' + L'a') : unit;
}

inline std::wstring FoldedName(std::wstring_view name) {
  std::wstring folded(name);
  std::ranges::transform(folded, folded.begin(), FoldedUnit);
  return folded;
}

inline bool NamesAreEqual(std::wstring_view left, std::wstring_view right) {
  return std::ranges::equal(left, right, {}, FoldedUnit, FoldedUnit);
}

}  // namespace Platform
