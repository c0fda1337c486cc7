#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

// What the fuzz targets share; docs/fuzzing.md says what each one checks. A target is one source
// with LLVMFuzzerTestOneInput. It is linked with libFuzzer, or with the replay of tests/fuzz. Both
// hand it each input in a buffer of exactly its size, so that AddressSanitizer sees a read behind
// it.

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace Fuzz {

// Ends the process, which is a finding, unless the property holds.
inline void Require(bool holds, const char* property) {
  if (!holds) {
    std::fprintf(stderr, "violated: %s\n", property);
    std::abort();
  }
}

}  // namespace Fuzz
