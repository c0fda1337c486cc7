#include "Agent/ReloadPlan.h"

#include <algorithm>

namespace OrloAgent {

const StreamOptions* FindStream(const std::vector<StreamOptions>& streams,
                                const std::string& name) {
  const auto found = std::find_if(streams.begin(), streams.end(),
                                  [&](const StreamOptions& one) { return one.name == name; });
  return found == streams.end() ? nullptr : &*found;
}

ReloadPlan MakeReloadPlan(const std::vector<StreamOptions>& running,
                          const std::vector<StreamOptions>& wanted) {
  ReloadPlan plan;
  for (const StreamOptions& stream : wanted) {
    const StreamOptions* const now = FindStream(running, stream.name);
    auto& list = now == nullptr ? plan.added : *now == stream ? plan.same : plan.changed;
    list.push_back(stream.name);
  }
  for (const StreamOptions& stream : running) {
    if (FindStream(wanted, stream.name) == nullptr) {
      plan.removed.push_back(stream.name);
    }
  }
  return plan;
}

}  // namespace OrloAgent
