#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "tests/Platform/differential/Record.h"

namespace Differential {

// The record that was made on Windows: the result of every case by its name. Lines that begin with
// '#' say how it was made.
using Recorded = std::map<std::string, std::string>;
Recorded ReadRecord(const std::filesystem::path& file);

// The zones whose records the registry answered with.
std::vector<Zone> ZonesOf(const Recorded& recorded);

// A known difference: the cases it covers, what they give on Windows and here, how many they are,
// and why. '*' stands for any text in the first three.
struct Difference {
  std::string cases;
  std::string windows;
  std::string here;
  std::size_t count = 0;
  std::string reason;
};
std::vector<Difference> ReadDifferences(const std::filesystem::path& file);

bool Matches(std::string_view pattern, std::string_view text);

// Compares one group. A difference covers a case only if no earlier one does. Returns one text per
// case that differs and is not covered, that is missing in one of both, and per difference of the
// group that does not cover exactly as many cases as it says.
std::vector<std::string> Compare(const std::string& group, const Recorded& recorded,
                                 const Record& here, const std::vector<Difference>& differences);

}  // namespace Differential
