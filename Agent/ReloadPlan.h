#pragma once

#include <string>
#include <vector>

#include "Agent/Options.h"

namespace OrloAgent {

// What has to happen to the streams so that those that run become those of a configuration. A
// stream is known by its name. Names stand in the order of the lists they come from.
struct ReloadPlan {
  // Same section: it is left alone.
  std::vector<std::string> same;
  std::vector<std::string> changed;
  std::vector<std::string> added;
  std::vector<std::string> removed;
};

ReloadPlan MakeReloadPlan(const std::vector<StreamOptions>& running,
                          const std::vector<StreamOptions>& wanted);

// The stream of that name, or null.
const StreamOptions* FindStream(const std::vector<StreamOptions>& streams, const std::string& name);

}  // namespace OrloAgent
