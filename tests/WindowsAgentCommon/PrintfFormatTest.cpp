#include "WindowsAgentCommon/PrintfFormat.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <type_traits>

namespace WindowsAgentCommon {
namespace {

template <std::size_t Size>
struct Literal {
  consteval Literal(const char (&source)[Size]) {  // NOLINT(google-explicit-constructor)
    std::copy_n(source, Size, text);
  }
  char text[Size];
};

// Whether a call with that format and arguments of those types compiles.
template <Literal kFormat, typename... Args>
concept Compiles = requires {
  typename std::bool_constant<(PrintfFormat<Args...>(kFormat.text), true)>;
};

// The format without arguments.
static_assert(Compiles<"">);
static_assert(Compiles<"plain">);
static_assert(Compiles<"100%%">);

// Every conversion with the arguments it takes.
static_assert(
    Compiles<"%d %i %u %o %x %X %c", int, long, unsigned, short, char, std::size_t, char>);
static_assert(Compiles<"%a %A %e %E %f %F %g %G", double, double, float, double, double, double,
                       long double, double>);
static_assert(Compiles<"%s %s %s", std::string, std::string_view, const char*>);
static_assert(Compiles<"%s", char[6]>);
static_assert(Compiles<"%p", void*>);

// Flags, width, precision and length modifiers.
static_assert(Compiles<"%-08.3llu", int>);
static_assert(Compiles<"%+#x", unsigned>);
static_assert(Compiles<"%zu %hd", std::size_t, short>);

// An argument of the wrong kind.
static_assert(!Compiles<"%d", double>);
static_assert(!Compiles<"%d", std::string>);
static_assert(!Compiles<"%f", int>);
static_assert(!Compiles<"%s", int>);
static_assert(!Compiles<"%s", std::wstring>);
static_assert(!Compiles<"%s", void*>);
static_assert(!Compiles<"%p", int>);

// A wrong number of arguments.
static_assert(!Compiles<"%d">);
static_assert(!Compiles<"%d %d", int>);
static_assert(!Compiles<"text", int>);
static_assert(!Compiles<"%%", int>);
static_assert(!Compiles<"%d", int, int>);

// What is not a conversion at all.
static_assert(!Compiles<"%">);
static_assert(!Compiles<"%", int>);
static_assert(!Compiles<"%5", int>);
static_assert(!Compiles<"%y", int>);
static_assert(!Compiles<"%n", int>);
static_assert(!Compiles<"%*d", int, int>);

TEST(PrintfFormatTest, KeepsTheFormatAsWritten) {
  constexpr CheckedFormat<int, double> format("%d of %5.2f%%");
  EXPECT_EQ(format.Get(), "%d of %5.2f%%");
}

}  // namespace
}  // namespace WindowsAgentCommon
