#pragma once

#include <chrono>

#include "Agent/Options.h"

namespace OrloAgent {

// How long the store-and-forward stages of a stream may take, as they read it from their settings.
// Other stages have settings of their own, whatever these are called.

bool IsStoreAndForward(const StageOptions& stage);

// How long one store-and-forward stage may take until it decides about its newest events.
std::chrono::seconds GetChunkPeriod(const StageOptions& stage);

// The same of all of them together, one behind the other.
std::chrono::milliseconds GetChunkPeriod(const StreamOptions& stream);

// How often the slowest of them looks for a cached chunk that can be sent.
std::chrono::milliseconds FindProcessingPeriod(const StreamOptions& stream);

}  // namespace OrloAgent
