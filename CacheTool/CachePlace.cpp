#include "CacheTool/CachePlace.h"

#include <algorithm>
#include <vector>

#include "Agent/PathText.h"
#include "CacheTool/ChunkListing.h"
#include "CacheTool/ToolError.h"

namespace OrloCacheTool {

namespace fs = std::filesystem;
using OrloAgent::ToPath;
using OrloAgent::ToText;

namespace {

constexpr char kEvents[] = "Events";

std::vector<std::string> ListStreams(const fs::path& events) {
  std::vector<std::string> streams;
  std::error_code error;
  fs::directory_iterator entry(events, error);
  for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
    std::error_code ignored;
    if (entry->is_directory(ignored)) {
      streams.push_back(ToText(entry->path().filename()));
    }
  }
  if (error) {
    throw ToolError(ToText(events) + " can't be listed: " + error.message());
  }
  std::sort(streams.begin(), streams.end());
  return streams;
}

std::string ChooseStream(const fs::path& events, const std::string& wanted) {
  const std::vector<std::string> streams = ListStreams(events);
  std::string names;
  for (const std::string& name : streams) {
    names += (names.empty() ? "" : ", ") + name;
  }
  if (wanted.empty()) {
    if (streams.size() == 1) {
      return streams.front();
    }
    throw streams.empty()
        ? ToolError(ToText(events) + " holds no event cache")
        : ToolError(ToText(events) + " holds several caches; choose one with --stream: " + names,
                    kWrongUsage);
  }
  if (std::find(streams.begin(), streams.end(), wanted) == streams.end()) {
    throw ToolError("There is no cache of a stream " + wanted + " in " + ToText(events) +
                    (names.empty() ? "" : "; there are: " + names));
  }
  return wanted;
}

// A directory elsewhere is a cache if nothing in it says otherwise.
void RefuseWhatIsNoCache(const fs::path& directory) {
  for (const MinuteDirectory& minute : ListMinuteDirectories(directory)) {
    if (!LooksLikeMinute(minute.name)) {
      throw ToolError(ToText(directory) + " is not an event cache: it has a directory " +
                      minute.name + ", which is not named by a minute");
    }
  }
}

bool IsDirectory(const fs::path& path) {
  std::error_code ignored;
  return fs::is_directory(path, ignored);
}

}  // namespace

CachePlace FindCache(const std::string& place, const std::string& stream) {
  std::error_code error;
  const fs::path given = ToPath(place);
  if (!IsDirectory(given)) {
    throw ToolError(fs::exists(given, error) ? place + " is no directory"
                                             : "There is no directory " + place);
  }
  fs::path path = fs::absolute(given, error).lexically_normal();
  if (!path.has_filename()) {
    path = path.parent_path();
  }
  fs::path events;
  if (IsDirectory(path / kEvents)) {
    events = path / kEvents;
  } else if (path.filename() == kEvents) {
    events = path;
  }
  if (!events.empty()) {
    return {events / ToPath(ChooseStream(events, stream)), events.parent_path()};
  }
  if (!stream.empty()) {
    throw ToolError(place + " is no data directory: it has no directory Events", kWrongUsage);
  }
  // Through a link, too, it is the cache of an agent.
  for (const fs::path& seen : {path, fs::canonical(path, error)}) {
    if (seen.parent_path().filename() == kEvents) {
      return {path, seen.parent_path().parent_path()};
    }
  }
  RefuseWhatIsNoCache(path);
  return {path, {}};
}

}  // namespace OrloCacheTool
