#include <algorithm>
#include <nlohmann/json.hpp>
#include <numeric>
#include <ostream>

#include "Agent/PathText.h"
#include "CacheTool/CacheLock.h"
#include "CacheTool/CachePlace.h"
#include "CacheTool/ChunkListing.h"
#include "CacheTool/Commands.h"
#include "CacheTool/EventText.h"
#include "CacheTool/NewChunks.h"
#include "CacheTool/Progress.h"
#include "CacheTool/StoredEvents.h"

namespace OrloCacheTool {

namespace fs = std::filesystem;
using OrloAgent::ToPath;

namespace {

// A chunk of the very cache would come twice.
void RefuseFilesOfTheCache(const std::vector<ListedChunk>& chunks,
                           const std::vector<std::string>& files) {
  for (const std::string& file : files) {
    for (const ListedChunk& chunk : chunks) {
      std::error_code error;
      if (fs::equivalent(chunk.path, ToPath(file), error) && !error) {
        throw ToolError(file + " is a chunk of the cache already; quarantine it first");
      }
    }
  }
}

// What each of the files has given.
std::vector<StoredFile> AddEvents(const RequeueOptions& options, NewChunks& chunks) {
  std::error_code error;
  std::uint64_t total = 0;
  for (const std::string& file : options.files) {
    const std::uintmax_t size = fs::file_size(ToPath(file), error);
    if (error) {
      throw ToolError(file + " can't be read: " + error.message());
    }
    total += size;
  }
  Progress progress("Requeueing", total);
  std::vector<StoredFile> taken;
  for (const std::string& file : options.files) {
    taken.push_back(ForEachStoredEvent(ToPath(file), options.check, options.salvage,
                                       [&](const StoredEvent& event) {
                                         chunks.Add(event);
                                         progress.Add(event.head.size() + event.payload.size());
                                       }));
  }
  return taken;
}

// What is left of a damaged chunk may be the only copy of some events: it stays.
ExitCode RemoveFiles(const RequeueOptions& options, const std::vector<StoredFile>& taken,
                     std::ostream& messages) {
  ExitCode code = kDone;
  for (std::size_t i = 0; i < taken.size(); ++i) {
    const std::string& file = options.files[i];
    std::error_code error;
    if (!taken[i].damage.empty()) {
      messages << "orlo-cache: " << ToPrintable(file) << " is damaged (" << taken[i].damage << "); "
               << Count(taken[i].events, "event") << " of it requeued"
               << (options.removeFiles ? ", and it stays" : "") << '\n';
      code = std::max(code, kDamage);
    } else if (options.removeFiles && !fs::remove(ToPath(file), error)) {
      messages << "orlo-cache: " << ToPrintable(file)
               << " can't be removed: " << (error ? error.message() : "it is gone") << '\n';
      code = kFailed;
    }
  }
  return code;
}

}  // namespace

ExitCode RunRequeue(const RequeueOptions& options, std::ostream& out, std::ostream& messages) {
  const CachePlace place = FindCache(options.place, options.stream);
  const CacheLock lock(place, "Events can be requeued");
  std::vector<std::string> skipped;
  const std::vector<ListedChunk> found = ListChunks(place.cache, skipped);
  if (!skipped.empty()) {
    throw ToolError(skipped.front() + " can't be listed, so the end of the cache is not known");
  }
  RefuseFilesOfTheCache(found, options.files);

  std::optional<ListedChunk> last;
  if (!found.empty()) {
    last = found.back();
  }
  NewChunks chunks(place, last, options.chunkSize);
  const std::vector<StoredFile> taken = AddEvents(options, chunks);
  const std::vector<std::string> names = chunks.Finish();
  const ExitCode code = RemoveFiles(options, taken, messages);
  const std::uint64_t events =
      std::accumulate(taken.begin(), taken.end(), std::uint64_t{0},
                      [](std::uint64_t sum, const StoredFile& one) { return sum + one.events; });
  if (options.json) {
    nlohmann::ordered_json document;
    document["events"] = events;
    document["chunks"] = names;
    out << document.dump(2) << '\n';
  } else {
    out << Count(events, "event") << " put at the end of the cache, in "
        << Count(names.size(), "chunk")
        << (names.empty() ? "" : ", the first of them " + ToPrintable(names.front())) << '\n';
  }
  return code;
}

}  // namespace OrloCacheTool
