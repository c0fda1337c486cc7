#pragma once

#include <cstdint>
#include <vector>

class ACE_Message_Block;

// The bytes of a chunk file, described in docs/event-cache.md: a count, then for each event the
// length and the bytes of its head block and the length and the bytes of its payload block. All
// integers are unsigned, 32 bits wide and little-endian.
namespace OrloStoreAndForward {

// The bytes that the events take in a chunk file, before padding.
std::uint64_t ChunkDataSize(const std::vector<ACE_Message_Block*>& events);

// `size` rounded up to a multiple of the page size.
std::uint64_t RoundUpToPage(std::uint64_t size, std::uint32_t pageSize);

// Lays the events into `buffer`, which holds at least ChunkDataSize(events) bytes, and returns the
// offset behind the last byte. Each event is released as soon as it has been laid down: afterwards
// the vector lists blocks that no longer exist. What is stored of a block is as many bytes as it
// has unread, taken from the start of its buffer. An event without a payload block is stored with
// an empty one.
std::uint32_t WriteChunk(const std::vector<ACE_Message_Block*>& events, unsigned char* buffer);

// Rebuilds the events of a chunk from the `size` bytes at `buffer` and appends them to `events`;
// the caller owns them. Where the count or a length points past the end, the chunk ends there with
// the events it has. False when there is no memory for a block: nothing was appended.
bool ReadChunk(const unsigned char* buffer, std::uint64_t size,
               std::vector<ACE_Message_Block*>& events);

}  // namespace OrloStoreAndForward
