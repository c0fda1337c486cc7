#pragma once

#include <cstdint>
#include <vector>

namespace OrloAgent {

// Something that a source or a destination counts, beside what the stage counts of every stream.
// Never goes down while its owner lives.
struct EndCounter {
  // What is counted, in the plural and in lower case with underscores: "messages_cut".
  const char* name;
  const char* description;
  std::uint64_t value = 0;
};

// What all of a kind count, and then what one of them counts beside that.
inline std::vector<EndCounter> Join(std::vector<EndCounter> common,
                                    const std::vector<EndCounter>& own) {
  common.insert(common.end(), own.begin(), own.end());
  return common;
}

}  // namespace OrloAgent
