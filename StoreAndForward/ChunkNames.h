#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// How the directories and files of an event cache are named, and in which order names sort.
namespace OrloStoreAndForward {

// Where a chunk written at a given moment goes: the names of its minute directory and of its file.
struct ChunkName {
  std::wstring minute;  // "%Y-%m-%d-%H-%M" in UTC
  std::wstring second;  // "%S" in UTC
};

// From seconds since 1970-01-01 UTC. Empty names if the time can't be expressed.
ChunkName MakeChunkName(std::int64_t time);

// The cache directory of a stream below the agent's data directory; ends with a backslash. The
// data directory is taken as it is, so it must end with a separator.
std::wstring MakeCacheDirectory(const std::wstring& dataDirectory, const std::wstring& streamName);

// A directory directly below the cache directory; ends with a backslash.
std::wstring MakeMinuteDirectory(const std::wstring& cacheDirectory, const std::wstring& minute);

// The pattern that lists a directory whose path ends with a backslash: names without an extension.
std::wstring MakeListingPattern(const std::wstring& directory);

// Whether one name sorts before the other: by UTF-16 code units, a prefix first, whatever the width
// of wchar_t. Names are zero-padded with the most significant field first, so this is the order of
// time.
bool NameSortsBefore(std::wstring_view left, std::wstring_view right);

}  // namespace OrloStoreAndForward
