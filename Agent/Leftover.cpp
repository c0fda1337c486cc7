#include "Agent/Leftover.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "WindowsAgentCommon/Logging.h"

namespace OrloAgent {

using WindowsAgentCommon::LogFacade;

void Leftover::StopSources(const StreamOptions* wanted) {
  std::erase_if(sources, [&](const MadeSource& made) {
    const bool isWanted = wanted != nullptr &&
                          std::find(wanted->sources.begin(), wanted->sources.end(), made.options) !=
                              wanted->sources.end();
    if (!isWanted) {
      made.source->Stop();
    }
    return !isWanted;
  });
}

void Leftover::StopDestination(const StreamOptions* wanted) {
  if (!destination || (wanted != nullptr && HasSameDestination(madeFrom, *wanted))) {
    return;
  }
  destination->Refuse();
  destination->Stop();
  lost += destination->GetLostEvents() - std::exchange(lostBefore, 0);
  const std::uint64_t notSent = destination->GetUnsentEvents();
  auto unsent = destination->TakeUnsent();
  if (unsent.size() < notSent) {
    lost += notSent - unsent.size();
    LogFacade::Error(WindowsAgentCommon::LoggerFactory::GetLog("Code.Agent"),
                     "Stream %s: %d events that were not sent are lost.", madeFrom.name,
                     notSent - unsent.size());
  }
  std::move(events.begin(), events.end(), std::back_inserter(unsent));
  events = std::move(unsent);
  destination.reset();
}

bool HasSameDestination(const StreamOptions& one, const StreamOptions& other) {
  return one.destination == other.destination && one.fallback == other.fallback;
}

}  // namespace OrloAgent
