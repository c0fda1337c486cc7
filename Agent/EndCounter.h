#pragma once

#include <cstdint>

namespace OrloAgent {

// Something that a source or a destination counts, beside what the stage counts of every stream.
// Never goes down while its owner lives.
struct EndCounter {
  // What is counted, in the plural and in lower case with underscores: "messages_cut".
  const char* name;
  const char* description;
  std::uint64_t value = 0;
};

}  // namespace OrloAgent
