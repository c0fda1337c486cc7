#include "StoreAndForward/ChunkFormat.h"

#include <algorithm>
#include <cstring>

#include "WindowsAgentCommon/MessageBlockPtr.h"
#include "WindowsAgentCommon/MessageBlocks.h"

namespace OrloStoreAndForward {

using WindowsAgentCommon::MessageBlockPtr;

namespace {

constexpr std::uint32_t kLengthSize = 4;
// An event with an empty head and an empty payload.
constexpr std::uint32_t kSmallestEvent = 2 * kLengthSize;

void StoreLittleEndian(unsigned char* bytes, std::uint32_t value) {
  bytes[0] = static_cast<unsigned char>(value);
  bytes[1] = static_cast<unsigned char>(value >> 8);
  bytes[2] = static_cast<unsigned char>(value >> 16);
  bytes[3] = static_cast<unsigned char>(value >> 24);
}

std::uint32_t LoadLittleEndian(const unsigned char* bytes) {
  return static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8 |
         static_cast<std::uint32_t>(bytes[2]) << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
}

std::uint64_t LengthOf(const ACE_Message_Block* block) {
  return block == nullptr ? 0 : block->length();
}

std::uint32_t WriteBlock(ACE_Message_Block* block, unsigned char* buffer, std::uint32_t offset) {
  const auto length = static_cast<std::uint32_t>(LengthOf(block));
  StoreLittleEndian(buffer + offset, length);
  offset += kLengthSize;
  if (length != 0) {
    // From the start of the block's buffer, also when the block has been read from.
    block->rd_ptr(block->base());
    std::memcpy(buffer + offset, block->rd_ptr(), length);
  }
  return offset + length;
}

enum class ReadResult { Ok, EndOfBuffer, OutOfMemory };

ReadResult ReadBlock(const unsigned char* buffer, std::uint64_t size, std::uint64_t& offset,
                     MessageBlockPtr& block) {
  if (size - offset < kLengthSize) {
    return ReadResult::EndOfBuffer;
  }
  const std::uint32_t length = LoadLittleEndian(buffer + offset);
  if (size - offset - kLengthSize < length) {
    return ReadResult::EndOfBuffer;
  }
  ACE_Message_Block* created = nullptr;
  if (WindowsAgentCommon::CreateDataMessageBlock(length, created) != 0) {
    return ReadResult::OutOfMemory;
  }
  block.reset(created);
  block->copy(reinterpret_cast<const char*>(buffer + offset + kLengthSize), length);
  offset += kLengthSize + length;
  return ReadResult::Ok;
}

ReadResult ReadEvent(const unsigned char* buffer, std::uint64_t size, std::uint64_t& offset,
                     MessageBlockPtr& event) {
  MessageBlockPtr payload;
  ReadResult result = ReadBlock(buffer, size, offset, event);
  if (result == ReadResult::Ok) {
    result = ReadBlock(buffer, size, offset, payload);
  }
  if (result == ReadResult::Ok) {
    event->cont(payload.release());
  }
  return result;
}

}  // namespace

std::uint64_t ChunkDataSize(const std::vector<ACE_Message_Block*>& events) {
  std::uint64_t size = kLengthSize + std::uint64_t{kSmallestEvent} * events.size();
  for (const ACE_Message_Block* event : events) {
    size += LengthOf(event) + LengthOf(event->cont());
  }
  return size;
}

std::uint64_t RoundUpToPage(std::uint64_t size, std::uint32_t pageSize) {
  const std::uint64_t remainder = size % pageSize;
  return remainder == 0 ? size : size + (pageSize - remainder);
}

std::uint32_t WriteChunk(const std::vector<ACE_Message_Block*>& events, unsigned char* buffer) {
  StoreLittleEndian(buffer, static_cast<std::uint32_t>(events.size()));
  std::uint32_t offset = kLengthSize;
  for (ACE_Message_Block* event : events) {
    offset = WriteBlock(event, buffer, offset);
    offset = WriteBlock(event->cont(), buffer, offset);
    event->release();
  }
  return offset;
}

bool ReadChunk(const unsigned char* buffer, std::uint64_t size,
               std::vector<ACE_Message_Block*>& events) {
  if (size < kLengthSize) {
    return true;
  }
  const std::uint32_t count = LoadLittleEndian(buffer);
  std::uint64_t offset = kLengthSize;
  // A damaged count must not reserve more than the buffer can hold.
  const std::uint64_t atMost = (size - offset) / kSmallestEvent;
  const std::size_t before = events.size();
  events.reserve(before + static_cast<std::size_t>(std::min<std::uint64_t>(count, atMost)));

  for (std::uint32_t i = 0; i < count; ++i) {
    MessageBlockPtr event;
    const ReadResult result = ReadEvent(buffer, size, offset, event);
    if (result == ReadResult::EndOfBuffer) {
      break;
    }
    if (result == ReadResult::OutOfMemory) {
      for (std::size_t made = before; made < events.size(); ++made) {
        events[made]->release();
      }
      events.resize(before);
      return false;
    }
    events.push_back(event.release());
  }
  return true;
}

}  // namespace OrloStoreAndForward
