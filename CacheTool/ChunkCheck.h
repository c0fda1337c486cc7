#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// What the bytes of a chunk file say about themselves. The format (docs/event-cache.md) has no
// checksum, so only what contradicts its structure can be found: a byte that changed inside a
// payload stays unseen. No function here reads a file or fails on any bytes.
namespace OrloCacheTool {

// One event as it is stored. Points into the chunk's bytes.
struct StoredEvent {
  std::string_view head;
  std::string_view payload;
};

// Goes through the events of a chunk, and never beyond its bytes, which must outlive it.
class EventReader {
 public:
  explicit EventReader(std::string_view bytes);

  // The number of events that the chunk says it has; 0 if it is too short to say.
  std::uint32_t GetCount() const { return m_count; }

  // The next event; nothing after the last one, and where the rest of the bytes can't hold it.
  std::optional<StoredEvent> Next();

  // How many events Next has given, and the offset behind the last of them.
  std::uint64_t GetRead() const { return m_read; }
  std::uint64_t GetEnd() const { return m_end; }

 private:
  std::optional<std::string_view> NextBlock(std::uint64_t& offset) const;

  const std::string_view m_bytes;
  std::uint32_t m_count = 0;
  std::uint64_t m_read = 0;
  std::uint64_t m_end = 0;
};

enum class Finding {
  // Fewer than the four bytes of the count.
  NoCount,
  // 4 GiB or more: sizes and offsets of the stage are 32 bits wide.
  TooLarge,
  // A count of zero. A stage writes no chunk without events.
  NoEvents,
  // The bytes end before the events do.
  EventsBeyondEnd,
  // A head that no agent writes.
  UnknownHead,
  // Something other than padding behind the last event.
  BytesBehindEvents,
  // The size is not a multiple of the page size.
  PartialPage,
  // There are more pages than the events take.
  PagesBehindEvents
};

struct FindingText {
  Finding finding;
  std::string text;
};

struct ChunkReport {
  bool IsHealthy() const { return findings.empty(); }
  bool Has(Finding finding) const;

  // What the chunk says.
  std::uint32_t count = 0;
  // Events that lie within the bytes. The stage hands all of them on.
  std::uint64_t complete = 0;
  // Those that a salvage takes: up to the last one with a head that an agent writes. Behind it
  // there may be events that are none, made of padding or of a payload taken for lengths.
  std::uint64_t readable = 0;
  // The end of the complete events.
  std::uint64_t dataSize = 0;
  std::vector<FindingText> findings;
};

struct CheckOptions {
  // Of the machine that wrote the chunk.
  std::uint32_t pageSize = 4096;
  // False for the caches of programs that put something else into the heads of their events.
  bool checkHeads = true;
};

// Size of the chunks' pages on this machine.
std::uint32_t GetPageSize();

ChunkReport CheckChunk(std::string_view bytes, const CheckOptions& options);

// The same judgement, as far as it goes, from the first bytes of a file and its size alone. Healthy
// means that nothing speaks against it.
ChunkReport GlanceAtChunk(std::string_view beginning, std::uint64_t size,
                          const CheckOptions& options);

// What an agent would do with the chunk, as a sentence without the full stop.
std::string DescribeEffect(const ChunkReport& report);

}  // namespace OrloCacheTool
