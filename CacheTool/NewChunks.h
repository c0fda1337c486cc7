#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "CacheTool/CachePlace.h"
#include "CacheTool/ChunkCheck.h"
#include "CacheTool/ChunkListing.h"
#include "WindowsAgentCommon/MessageBlockPtr.h"

namespace OrloCacheTool {

// A name for the chunk behind another one: SECOND-000001, SECOND-000002, ... A stage names its
// files by the second alone, so it never gives such a name and never replaces such a file; and as
// text it sorts behind that second and before the next one, whenever that comes.
std::string NameBehind(const std::string& file);

// Chunks that are put at the end of a cache: all of them, or none.
//
// They are written under names with a dot, which a stage never sees, and get their names at the
// end, the first one first. When Finish returns, a loss of power takes none of them away. All that
// is done in the cache is done with the rights of its owner. It must be locked for as long as the
// object lives.
class NewChunks {
 public:
  // `last` is the last chunk of the cache, if it has one. `chunkSize` is how many bytes of events
  // make a chunk; a larger event has one to itself.
  NewChunks(CachePlace place, const std::optional<ListedChunk>& last, std::uint64_t chunkSize);

  // Removes what has no name yet.
  ~NewChunks();
  NewChunks(const NewChunks&) = delete;
  NewChunks& operator=(const NewChunks&) = delete;

  // Throw ToolError if a file can't be written or named, or if there is no memory.
  void Add(const StoredEvent& event);
  // Returns the chunks' names, MINUTE/FILE.
  std::vector<std::string> Finish();

 private:
  struct Unnamed {
    std::filesystem::path written;
    std::string file;
  };

  void WriteChunk();
  // Removes the first `count` chunks, which have their names already: all of them stay, or none.
  void TakeBack(std::size_t count);

  const CachePlace m_place;
  std::string m_minute;
  std::string m_lastFile;
  const std::uint64_t m_chunkSize;
  const std::uint32_t m_pageSize;
  std::filesystem::path m_directory;
  bool m_madeDirectory = false;
  std::vector<WindowsAgentCommon::MessageBlockPtr> m_events;
  std::uint64_t m_gathered = 0;
  std::vector<Unnamed> m_unnamed;
};

}  // namespace OrloCacheTool
