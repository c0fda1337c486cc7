#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "tests/StoreAndForward/CacheModel.h"

namespace OrloStoreAndForward {

// Where cache and model went apart.
struct CacheDifference {
  std::size_t index = 0;  // of the operation
  std::string text;
};

using MakeCacheModel = std::function<std::unique_ptr<CacheModel>(std::uint32_t pageSize)>;

inline constexpr const char* kPassedOver = "passed over";

// Does the operations with an event cache in a directory of its own and with a model, and compares
// after each one: its result, the caller's vector, the events that Front gives, the files, what the
// disk manager was asked and told, and that no message block is alive. Files are compared by size
// after every operation, by content when they are written, at restarts and at the end.
//
// One run at a time: it uses the clock, the file faults, the message block allocators and the disk
// manager service of the process. `met`, if given, takes up what the model met, and under
// kPassedOver the operations that were not possible.
std::optional<CacheDifference> RunCacheOperations(
    const CacheOperations& operations, const MakeCacheModel& makeModel,
    std::map<std::string, std::uint64_t>* met = nullptr);

struct ShrunkOperations {
  CacheOperations operations;
  // The runs were used up before nothing more could be won.
  bool gaveUp = false;
};

// A shorter sequence of simpler operations that still fails, and that does not if any one of them
// is left out, unless it gave up. `fails` runs one; it is asked at most `runs` times.
ShrunkOperations ShrinkCacheOperations(CacheOperations failing,
                                       const std::function<bool(const CacheOperations&)>& fails,
                                       std::size_t runs = 4000);

}  // namespace OrloStoreAndForward
