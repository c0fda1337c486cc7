#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/testing/TestFaults.h"

// What a sequence of the event cache's model test is made of, and its text: one operation a line,
// so that a sequence that found something can be kept in a file and replayed.
namespace OrloStoreAndForward {

enum class CacheOperationKind {
  Push,           // push <tag> <events>; the tag decides the events' bytes
  Front,          // front
  Pop,            // pop; does nothing on an empty cache
  Restart,        // restart: a new cache object on the same directory
  Clock,          // clock <milliseconds since 1970>
  RefuseRoom,     // refuse-room <0|1>: the disk manager's answer from now on
  RefuseMemory,   // refuse-memory <0|1>: whether the chunk buffer can grow from now on
  ReadOnly,       // read-only <0|1>: names can neither be made nor removed from now on
  Delete,         // delete <n>: the n-th file of the cache goes, counted round
  Resize,         // resize <n> <length>: is cut short, or grows by zeros
  Damage,         // damage <n> <offset> <byte>: is changed at the offset, counted round
  Stray,          // stray <size> <path>: a foreign file appears
  MakeDirectory,  // directory <path>
  Vanish          // vanish: the cache directory goes with everything in it
};

struct BlockSize {
  std::uint32_t length = 0;  // unread bytes
  std::uint32_t read = 0;    // bytes before them that have been read already
  bool operator==(const BlockSize&) const = default;
};

// In text "<head>:<payload>", each "<length>" or "<length>+<read>", or "-" for no payload block.
struct EventSize {
  BlockSize head;
  std::optional<BlockSize> payload;
  bool operator==(const EventSize&) const = default;
};

// Every call of this kind that the operation makes fails. In text "! <call> <error> [<detail>]".
struct CacheFault {
  Platform::TestFaults::FileCall call = {};
  std::uint32_t error = 0;
  // WriteFile: the bytes that are still written, all of them if negative; the error may be 0 then.
  // FindFirstFile, and FindNextFile of a restart: the one call that fails, counted from 0; all of
  // them if negative.
  std::int64_t detail = -1;
  bool operator==(const CacheFault&) const = default;
};

struct CacheOperation {
  CacheOperationKind kind = CacheOperationKind::Front;
  std::vector<std::int64_t> numbers;  // in the order of the text
  std::string path;                   // below the cache directory
  std::vector<EventSize> events;
  std::optional<CacheFault> fault;
  // Front: the message blocks that can be made before memory runs out; in text "! Block <n>".
  std::optional<std::int64_t> blocks;
  bool operator==(const CacheOperation&) const = default;
};

using CacheOperations = std::vector<CacheOperation>;

std::string ToText(const CacheOperation& operation);
std::string ToText(const CacheOperations& operations);

// Empty lines and those that begin with '#' are passed over. Throws std::invalid_argument that
// names the line.
CacheOperations ParseCacheOperations(std::string_view text);

// The bytes of a block or foreign file. Many of them are small, so that what is parsed from the
// middle of them often makes sense as a length.
std::string ModelBytes(std::uint64_t tag, std::size_t part, std::size_t size);

}  // namespace OrloStoreAndForward
