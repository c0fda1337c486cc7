#include "CacheTool/ChunkListing.h"

#include <algorithm>

#include "Agent/PathText.h"
#include "CacheTool/LastChange.h"
#include "CacheTool/ToolError.h"
#include "StoreAndForward/ChunkNames.h"
#include "WindowsAgentCommon/Text.h"

namespace OrloCacheTool {

namespace fs = std::filesystem;
using OrloAgent::ToText;

namespace {

bool IsListed(const std::string& name) { return name.find('.') == std::string::npos; }

bool SortsBefore(const std::string& left, const std::string& right) {
  return OrloStoreAndForward::NameSortsBefore(WindowsAgentCommon::ToWide(left),
                                              WindowsAgentCommon::ToWide(right));
}

// Files of the minute directory, as far as they can be listed.
std::vector<ListedChunk> ListFiles(const MinuteDirectory& minute, std::error_code& error) {
  std::vector<ListedChunk> chunks;
  fs::directory_iterator entry(minute.path, error);
  for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
    ListedChunk chunk{minute.name, ToText(entry->path().filename()), entry->path(), 0, false, {}};
    if (!IsListed(chunk.file)) {
      continue;
    }
    std::error_code unknown;
    chunk.isDirectory = fs::is_directory(chunk.path, unknown);
    if (!chunk.isDirectory) {
      chunk.size = fs::file_size(chunk.path, unknown);
      if (unknown == std::errc::no_such_file_or_directory) {
        continue;
      }
      chunk.size = unknown ? 0 : chunk.size;
    }
    chunk.written = fs::last_write_time(chunk.path, unknown);
    chunks.push_back(std::move(chunk));
  }
  return chunks;
}

// `isWhole` is false if some of them can't be listed. A directory that is removed behind its last
// chunk counts as whole: it holds nothing.
std::vector<ListedChunk> ListSettledFiles(const MinuteDirectory& minute, bool& isWhole) {
  SecondLooks looks;
  for (;;) {
    std::error_code error;
    std::vector<ListedChunk> chunks = ListFiles(minute, error);
    const LastChange change = error ? GetLastChange(minute.path) : LastChange::LongAgo;
    if (!looks.Wait(change)) {
      isWhole = !error || change == LastChange::Gone;
      return chunks;
    }
  }
}

}  // namespace

bool LooksLikeMinute(std::string_view name) {
  constexpr std::string_view kPattern = "dddd-dd-dd-dd-dd";
  return std::equal(
      name.begin(), name.end(), kPattern.begin(), kPattern.end(), [](char character, char wanted) {
        return wanted == 'd' ? character >= '0' && character <= '9' : character == wanted;
      });
}

std::vector<MinuteDirectory> ListMinuteDirectories(const fs::path& cache) {
  std::vector<MinuteDirectory> minutes;
  std::error_code error;
  fs::directory_iterator entry(cache, error);
  for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
    std::string name = ToText(entry->path().filename());
    std::error_code ignored;
    if (IsListed(name) && fs::is_directory(entry->path(), ignored)) {
      minutes.push_back({std::move(name), entry->path()});
    }
  }
  if (error) {
    throw ToolError(ToText(cache) + " can't be listed: " + error.message());
  }
  std::sort(minutes.begin(), minutes.end(),
            [](const MinuteDirectory& left, const MinuteDirectory& right) {
              return SortsBefore(left.name, right.name);
            });
  return minutes;
}

std::vector<ListedChunk> ListChunks(const fs::path& cache, std::vector<std::string>& skipped) {
  std::vector<ListedChunk> chunks;
  for (const MinuteDirectory& minute : ListMinuteDirectories(cache)) {
    bool isWhole = false;
    std::vector<ListedChunk> files = ListSettledFiles(minute, isWhole);
    if (!isWhole) {
      skipped.push_back(minute.name);
    }
    std::sort(files.begin(), files.end(), [](const ListedChunk& left, const ListedChunk& right) {
      return SortsBefore(left.file, right.file);
    });
    std::move(files.begin(), files.end(), std::back_inserter(chunks));
  }
  return chunks;
}

const ListedChunk& FindChunk(const std::vector<ListedChunk>& chunks, const std::string& name) {
  if (chunks.empty()) {
    throw ToolError("The cache is empty");
  }
  if (name == "oldest") {
    return chunks.front();
  }
  if (name == "newest") {
    return chunks.back();
  }
  const auto found = std::find_if(chunks.begin(), chunks.end(), [&name](const ListedChunk& chunk) {
    return chunk.GetName() == name;
  });
  if (found == chunks.end()) {
    throw ToolError("There is no chunk " + name +
                    " in the cache; chunks are named as in its list, MINUTE/FILE");
  }
  return *found;
}

std::string GetNamedTime(const ListedChunk& chunk) {
  const bool hasSecond = chunk.file.size() >= 2 && chunk.file[0] >= '0' && chunk.file[0] <= '6' &&
                         chunk.file[1] >= '0' && chunk.file[1] <= '9' &&
                         (chunk.file.size() == 2 || chunk.file[2] == '-');
  if (!LooksLikeMinute(chunk.minute) || !hasSecond) {
    return {};
  }
  return chunk.minute.substr(0, 10) + "T" + chunk.minute.substr(11, 2) + ":" +
         chunk.minute.substr(14, 2) + ":" + chunk.file.substr(0, 2) + "Z";
}

}  // namespace OrloCacheTool
