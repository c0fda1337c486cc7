#include <ace/Malloc_Allocator.h>
#include <ace/Message_Block.h>

#include <cstring>
#include <vector>

#include "StoreAndForward/ChunkFormat.h"
#include "WindowsAgentCommon/MessageBlocks.h"
#include "fuzz/FuzzTarget.h"

// The input is a chunk file.

namespace {

using Fuzz::Require;
using Events = std::vector<ACE_Message_Block*>;

constexpr std::size_t kLengthSize = 4;

class CountingAllocator : public ACE_New_Allocator {
 public:
  void* malloc(size_t bytes) override {
    if (m_left == 0) {
      return nullptr;
    }
    --m_left;
    ++m_alive;
    return ACE_New_Allocator::malloc(bytes);
  }
  void free(void* memory) override {
    m_alive -= memory == nullptr ? 0 : 1;
    ACE_New_Allocator::free(memory);
  }

  long Alive() const { return m_alive; }
  // From now on every allocation fails after this many have succeeded.
  void FailAfter(std::size_t allocations) { m_left = allocations; }

 private:
  long m_alive = 0;
  std::size_t m_left = SIZE_MAX;
};

CountingAllocator& Allocator() {
  static CountingAllocator& allocator = []() -> CountingAllocator& {
    static CountingAllocator made;
    WindowsAgentCommon::SetMessageBlockAllocators({&made, &made, &made});
    return made;
  }();
  return allocator;
}

std::uint64_t Load(const std::uint8_t* bytes) {
  return bytes[0] + bytes[1] * 0x100ULL + bytes[2] * 0x10000ULL + bytes[3] * 0x1000000ULL;
}

// Whether a whole event stands at the beginning of the bytes.
bool HoldsEvent(const std::uint8_t* bytes, std::size_t size) {
  for (int block = 0; block < 2; ++block) {
    if (size < kLengthSize || size - kLengthSize < Load(bytes)) {
      return false;
    }
    const std::size_t taken = kLengthSize + Load(bytes);
    bytes += taken;
    size -= taken;
  }
  return true;
}

bool IsEvent(const ACE_Message_Block* head) {
  const ACE_Message_Block* payload = head->cont();
  return payload != nullptr && payload->cont() == nullptr &&
         head->msg_type() == ACE_Message_Block::MB_DATA &&
         payload->msg_type() == ACE_Message_Block::MB_DATA && head->size() == head->length() &&
         payload->size() == payload->length();
}

// Without memory for the `allocations`-th piece, all that was made is freed again.
void ReadWithoutMemory(const std::uint8_t* data, std::size_t size, std::size_t allocations) {
  ACE_Message_Block other;
  Events events{&other};
  Allocator().FailAfter(allocations);
  Require(!OrloStoreAndForward::ReadChunk(data, size, events), "a failed allocation is reported");
  Allocator().FailAfter(SIZE_MAX);
  Require(events == Events{&other}, "a failed read leaves the events that were there");
  Require(Allocator().Alive() == 0, "a failed read frees what it has made");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Require(Allocator().Alive() == 0, "nothing is alive before");
  Events events;
  Require(OrloStoreAndForward::ReadChunk(data, size, events), "the chunk is read");
  if (size < kLengthSize) {
    Require(events.empty(), "a chunk without a count is empty");
    return 0;
  }
  const std::uint64_t count = Load(data);
  const std::size_t number = events.size();
  Require(number <= count, "there are no more events than the count says");
  for (const ACE_Message_Block* event : events) {
    Require(IsEvent(event), "an event is a head and a payload of exactly their sizes");
  }

  const std::uint64_t taken = OrloStoreAndForward::ChunkDataSize(events);
  Require(taken <= size, "the events take no more bytes than there are");
  std::vector<std::uint8_t> written(static_cast<std::size_t>(taken));
  Require(OrloStoreAndForward::WriteChunk(events, written.data()) == taken,
          "what is written has the size that was announced");
  Require(Allocator().Alive() == 0, "writing releases the events");
  Require(Load(written.data()) == number, "the count that is written is that of the events");
  Require(std::memcmp(written.data() + kLengthSize, data + kLengthSize, taken - kLengthSize) == 0,
          "the events are written as they were read");
  Require(number == count || !HoldsEvent(data + taken, size - taken),
          "reading ends early only where no whole event follows");

  if (number > 0) {
    // Six pieces of memory for each event.
    ReadWithoutMemory(data, size, size % (6 * number));
  }
  return 0;
}
