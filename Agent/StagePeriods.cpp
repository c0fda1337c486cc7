#include "Agent/StagePeriods.h"

#include <algorithm>
#include <cstdint>

#include "Agent/Units.h"

namespace OrloAgent {

using std::chrono::milliseconds;

namespace {

// The value that the stage will use for one of its numbers.
std::uint64_t GetStageNumber(const StageOptions& stage, const char* setting, std::uint64_t standard,
                             std::uint64_t smallest) {
  constexpr std::uint64_t kLargest = 0x7fffffff;
  for (const auto& [name, value] : stage.settings) {
    if (name == setting) {
      const auto number = ParseWholeNumber(value);
      return number && *number <= kLargest ? std::max(*number, smallest) : standard;
    }
  }
  return standard;
}

}  // namespace

bool IsStoreAndForward(const StageOptions& stage) { return stage.module == "StoreAndForwardStage"; }

std::chrono::seconds GetChunkPeriod(const StageOptions& stage) {
  return std::chrono::seconds(GetStageNumber(stage, "DataChunkPeriod", 10, 5));
}

milliseconds GetChunkPeriod(const StreamOptions& stream) {
  milliseconds period{0};
  for (const StageOptions& stage : stream.stages) {
    if (IsStoreAndForward(stage)) {
      period += GetChunkPeriod(stage);
    }
  }
  return period;
}

milliseconds FindProcessingPeriod(const StreamOptions& stream) {
  std::uint64_t microseconds = 0;
  for (const StageOptions& stage : stream.stages) {
    if (IsStoreAndForward(stage)) {
      microseconds =
          std::max(microseconds, GetStageNumber(stage, "DataProcessingPeriod", 500'000, 500'000));
    }
  }
  return milliseconds(microseconds / 1000);
}

}  // namespace OrloAgent
