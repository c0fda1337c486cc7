#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>

namespace WindowsAgentCommon {

namespace Detail {

enum class PrintfArgument { Integer, FloatingPoint, Text, Pointer, Other };

template <typename T>
consteval PrintfArgument ClassifyPrintfArgument() {
  using Plain = std::remove_cvref_t<T>;
  if constexpr (std::is_same_v<Plain, std::string> || std::is_same_v<Plain, std::string_view> ||
                std::is_convertible_v<T, const char*>) {
    return PrintfArgument::Text;
  } else if constexpr (std::is_integral_v<Plain>) {
    return PrintfArgument::Integer;
  } else if constexpr (std::is_floating_point_v<Plain>) {
    return PrintfArgument::FloatingPoint;
  } else if constexpr (std::is_pointer_v<Plain>) {
    return PrintfArgument::Pointer;
  } else {
    return PrintfArgument::Other;
  }
}

constexpr bool PrintfConversionTakes(char conversion, PrintfArgument argument) {
  switch (conversion) {
    case 'd':
    case 'i':
    case 'u':
    case 'o':
    case 'x':
    case 'X':
    case 'c':
      return argument == PrintfArgument::Integer;
    case 'a':
    case 'A':
    case 'e':
    case 'E':
    case 'f':
    case 'F':
    case 'g':
    case 'G':
      return argument == PrintfArgument::FloatingPoint;
    case 's':
      return argument == PrintfArgument::Text;
    case 'p':
      return argument == PrintfArgument::Pointer;
    default:
      return false;
  }
}

}  // namespace Detail

// A printf-style format that the compiler has checked against the types of its arguments: a wrong
// number of arguments, or one of the wrong kind, does not compile. Length modifiers are accepted
// and not needed (the argument's own type decides); a width or precision must stand in the format
// ("*" is not taken).
template <typename... Args>
class PrintfFormat {
 public:
  consteval PrintfFormat(const char* format)  // NOLINT(google-explicit-constructor)
      : m_format(format) {
    constexpr Detail::PrintfArgument kArguments[sizeof...(Args) + 1] = {
        Detail::ClassifyPrintfArgument<Args>()..., Detail::PrintfArgument::Other};
    std::size_t used = 0;
    for (std::size_t i = 0; i < m_format.size(); ++i) {
      if (m_format[i] != '%') {
        continue;
      }
      ++i;
      if (i < m_format.size() && m_format[i] == '%') {
        continue;
      }
      constexpr std::string_view kFlagsWidthAndLength = "-+ #0123456789.hlLqjzt";
      while (i < m_format.size() && kFlagsWidthAndLength.find(m_format[i]) != m_format.npos) {
        ++i;
      }
      if (i == m_format.size() || used == sizeof...(Args) ||
          !Detail::PrintfConversionTakes(m_format[i], kArguments[used])) {
        throw std::invalid_argument("the format does not fit its arguments");
      }
      ++used;
    }
    if (used != sizeof...(Args)) {
      throw std::invalid_argument("more arguments than the format uses");
    }
  }

  constexpr std::string_view Get() const { return m_format; }

 private:
  std::string_view m_format;
};

// Keeps a format parameter from taking part in the deduction of Args.
template <typename... Args>
using CheckedFormat = PrintfFormat<std::type_identity_t<Args>...>;

}  // namespace WindowsAgentCommon
