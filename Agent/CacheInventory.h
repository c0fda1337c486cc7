#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>

namespace OrloAgent {

struct CacheContents {
  std::uint64_t events = 0;
  std::uint64_t chunks = 0;
  // Of the chunk files, as they lie on the disk.
  std::uint64_t bytes = 0;
  // When the oldest of them was written; nothing if there is none.
  std::optional<std::filesystem::file_time_type> oldest;
};

// Tells how many events wait in a stream's event cache, from the count at the start of each chunk
// file. Looks again are cheap: the count of a file that has not changed is remembered. Reads only,
// so it may look while the stage works; a chunk that is being written counts once its count is
// there. One thread.
class CacheInventory {
 public:
  // The stream's cache directory, <data directory>/Events/<stream>. It need not exist.
  explicit CacheInventory(std::filesystem::path cacheDirectory);

  CacheContents Look();

 private:
  struct Chunk {
    std::filesystem::file_time_type written;
    std::uintmax_t size = 0;
    std::uint64_t events = 0;
    bool seen = false;
  };

  void LookInto(const std::filesystem::path& minuteDirectory, CacheContents& contents);

  const std::filesystem::path m_directory;
  std::map<std::filesystem::path, Chunk> m_chunks;
};

}  // namespace OrloAgent
