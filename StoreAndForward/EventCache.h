#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "StoreAndForward/ChunkBuffer.h"

class ACE_Message_Block;

namespace OrloStoreAndForward {

// What the cache keeps in memory of one chunk file.
struct ChunkEntry {
  std::wstring directory;  // the minute directory's path, ends with a backslash
  std::wstring fileName;
  // Bytes. Of a chunk written in this run the size that was asked for, of one found at start the
  // size that the directory listing gave.
  std::uint64_t size = 0;
};

// A first-in first-out queue of chunks on disk, one file per chunk, that survives restarts. The
// format of directory and files is described in docs/event-cache.md.
//
// Owned through a shared pointer by the Incoming processor. No lock: after creation all calls are
// made on the Incoming thread. Every operation reports by its result only; none logs.
//
// Chunk files are accounted with the disk manager service: reserved with their padded size when
// written, released with their entry's size when popped. Two asymmetries are wanted: a chunk found
// at start is released though this run never reserved it, and a chunk whose file could not be
// created stays reserved.
//
// Names have a resolution of one second: two pushes in one second, or a clock stepped back to a
// second that has a chunk, replace that chunk on disk, while the queue holds both entries. The
// Incoming processor pushes at most once per chunking period, which is five seconds at least.
class EventCache {
 public:
  // Queues what earlier runs left in the directory, oldest first, without opening a file. Neither
  // creates the directory nor reports failures: what can't be listed is skipped. The directory's
  // path ends with a backslash.
  explicit EventCache(const std::wstring& cacheDirectory);
  ~EventCache();
  EventCache(const EventCache&) = delete;
  EventCache& operator=(const EventCache&) = delete;

  // Writes the events as a new chunk at the end of the queue. True: they have been released and
  // the vector is empty. A write that fails or comes out short is not noticed and counts as true.
  //
  // False: nothing was queued. If the vector still holds its events they are untouched and belong
  // to the caller (no minute directory, no room granted, no memory). If it is empty, the file
  // could not be created after the events had been released: they are gone, and the reserved room
  // is not handed back. Whoever needs the number of events takes it before the call.
  bool Push(std::vector<ACE_Message_Block*>& events);

  // Replaces the vector's contents, which the caller must have handed on, with the events of the
  // oldest chunk, as new blocks that the caller owns. The chunk stays. The file's contents are not
  // checked: a damaged chunk gives the events that can be made out.
  //
  // False, with an empty vector: the file could not be opened or read, or there is no memory. The
  // chunk stays at the front. REQUIRES: not Empty().
  bool Front(std::vector<ACE_Message_Block*>& events);

  // Deletes the oldest chunk's file, and its minute directory if that is empty then. Failures to
  // delete are ignored. REQUIRES: not Empty().
  void Pop();

  bool Empty() const;

 private:
  void FindChunksOfEarlierRuns();
  bool PrepareMinuteDirectory(const std::wstring& directory, bool& created) const;
  bool WriteChunkFile(const std::wstring& path, std::vector<ACE_Message_Block*>& events,
                      std::uint64_t& size);

  std::deque<ChunkEntry> m_queue;
  ChunkBuffer m_buffer;
  // What the buffer is known to hold; may be less than it really does.
  std::uint64_t m_bufferCapacity = 0;
  const std::wstring m_cacheDirectory;
  const std::uint32_t m_pageSize;
};

// Makes the cache directory of a stream below the disk manager's data directory and a cache on it.
// 0: `cache` owns it. Otherwise a Windows error code, and `cache` is as it was. The disk manager
// service must be registered and stay so for as long as the cache lives.
std::uint32_t CreateEventCache(const std::wstring& streamName, std::shared_ptr<EventCache>& cache);

}  // namespace OrloStoreAndForward
