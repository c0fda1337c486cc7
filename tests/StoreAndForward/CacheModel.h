#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/StoreAndForward/CacheModelOperations.h"

namespace OrloStoreAndForward {

// What docs/event-cache.md says of the event cache, a second time: with a map in place of the disk
// and none of the cache's code. The model test lets both do the same things and compares.
//
// Every rule that is easily got wrong is a function of its own. A test replaces one to prove that
// the difference between cache and model is found.
class CacheModel {
 public:
  // Paths below the cache directory, "" being that itself. No bytes: a directory.
  using Tree = std::map<std::string, std::optional<std::string>>;

  // What the system lists of a directory, in its own order, by the directory's path.
  using Listings = std::map<std::string, std::vector<std::string>>;

  // Where the clock stands before the first Clock operation: 2016-03-07 14:05:07 UTC.
  static constexpr std::int64_t kStart = 1457359507000;

  struct Event {
    std::string head;
    std::string payload;
    bool operator==(const Event&) const = default;
  };

  struct PushOutcome {
    bool result = false;
    bool emptied = false;  // whether the caller's vector is empty, its events released
    std::string path;      // of the chunk, whether or not it came to be
  };

  struct FrontOutcome {
    bool result = false;
    std::vector<Event> events;
  };

  explicit CacheModel(std::uint32_t pageSize) : m_pageSize(pageSize) {}
  virtual ~CacheModel() = default;

  // All of these REQUIRE that the operation is possible.
  PushOutcome Push(const CacheOperation& operation);
  FrontOutcome Front(const CacheOperation& operation);
  void Pop(const CacheOperation& operation);
  // The error of a creation that fails, which leaves the cache of before; 0 if there is a new one.
  // `listings` are needed where a listing may break off.
  std::uint32_t Restart(const CacheOperation& operation, const Listings& listings = {});

  // The operations that change the surroundings: what is switched, and what happens to the files.
  void Change(const CacheOperation& operation);
  // Which file Delete, Resize or Damage means; none if there are no files.
  std::optional<std::string> FileMeant(const CacheOperation& operation) const;
  // False where the operation makes no sense as things are and is to be passed over: sequences stay
  // valid when operations are taken out of them.
  bool IsPossible(const CacheOperation& operation) const;

  bool Empty() const { return m_queue.empty(); }
  const Tree& Files() const { return m_tree; }
  std::uint64_t Reserved() const { return m_reserved; }
  std::uint64_t Released() const { return m_released; }
  bool RefusesRoom() const { return m_refusesRoom; }
  bool RefusesMemory() const { return m_refusesMemory; }
  bool IsReadOnly() const { return m_readOnly; }
  // How often each kind of result was met, to see that a run tested what it was to test.
  const std::map<std::string, std::uint64_t>& Met() const { return m_met; }

 protected:
  struct Entry {
    std::string minute;
    std::string name;
    std::uint64_t size;
    bool ofEarlierRun;
    std::string Path() const { return minute + '/' + name; }
  };

  virtual std::uint64_t SizeReleased(const Entry& entry) const { return entry.size; }
  // What the buffer holds when bytes have been read over what it held.
  virtual std::string AfterRead(const std::string& buffer, const std::string& bytes) const;
  // Of a chunk whose file could not be created.
  virtual bool KeepsRoomOfLostChunk() const { return true; }
  virtual bool RemovesDirectoryOfFailedPush() const { return true; }
  virtual void Enqueue(std::deque<Entry>& queue, Entry entry) const;
  // What is stored of a block whose first bytes have been read.
  virtual std::string Stored(const std::string& bytes, const BlockSize& size) const;
  virtual std::uint64_t PaddedSize(std::uint64_t size) const;

 private:
  bool PrepareMinute(const CacheOperation& operation, const std::string& minute, bool& made);
  bool StoreChunk(const CacheOperation& operation, const std::string& path,
                  const std::string& image, bool& emptied);
  std::string ImageOf(const CacheOperation& operation) const;
  bool GrowBuffer(std::uint64_t size);
  void Scan(const CacheOperation& operation, const Listings& listings);
  bool IsFile(const std::string& path) const;
  bool IsDirectory(const std::string& path) const;
  bool HasChildren(const std::string& directory) const;

  const std::uint32_t m_pageSize;
  Tree m_tree;
  std::deque<Entry> m_queue;
  // Everything that has been in the chunk buffer since the cache was made.
  std::string m_buffer;
  // The size of the buffer's memory; none before its first use.
  std::optional<std::uint64_t> m_room;
  std::uint64_t m_reserved = 0;
  std::uint64_t m_released = 0;
  std::int64_t m_milliseconds = kStart;
  bool m_refusesRoom = false;
  bool m_refusesMemory = false;
  bool m_readOnly = false;
  std::map<std::string, std::uint64_t> m_met;
};

}  // namespace OrloStoreAndForward
