#include "StoreAndForward/ChunkFormat.h"

#include <ace/Message_Block.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>

#include "tests/support/CountingAllocators.h"
#include "tests/support/Events.h"

namespace OrloStoreAndForward {
namespace {

using TestSupport::CountingAllocators;
using TestSupport::HeadOf;
using TestSupport::MakeEvent;
using TestSupport::PayloadOf;
using TestSupport::ReleaseAll;

using Bytes = std::vector<unsigned char>;
using Events = std::vector<ACE_Message_Block*>;

Bytes ReadFileBytes(const std::string& name) {
  std::ifstream file(std::filesystem::path(ORLO_TEST_DATA) / name, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(file), {});
}

Bytes Write(const Events& events, std::uint32_t pageSize) {
  Bytes bytes(RoundUpToPage(ChunkDataSize(events), pageSize), 0);
  WriteChunk(events, bytes.data());
  return bytes;
}

// The buffer is allocated at its exact size, so that AddressSanitizer sees a read behind it.
Events Read(const Bytes& bytes) {
  const auto exact = std::make_unique<unsigned char[]>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), exact.get());
  Events events;
  EXPECT_TRUE(ReadChunk(exact.get(), bytes.size(), events));
  return events;
}

Bytes LittleEndian(std::initializer_list<std::uint32_t> values) {
  Bytes bytes;
  for (const std::uint32_t value : values) {
    for (int shift = 0; shift < 32; shift += 8) {
      bytes.push_back(static_cast<unsigned char>(value >> shift));
    }
  }
  return bytes;
}

TEST(ChunkFormat, OneEventIsWrittenAsTheGoldenFile) {
  const Bytes golden = ReadFileBytes("chunk-one-event.bin");
  ASSERT_EQ(golden.size(), 4096u);
  EXPECT_EQ(Write({MakeEvent("0123456789", std::string(90, 'p'))}, 4096), golden);
}

TEST(ChunkFormat, SeveralEventsAreWrittenAsTheGoldenFile) {
  const Bytes golden = ReadFileBytes("chunk-three-events.bin");
  ASSERT_EQ(golden.size(), 4096u);
  EXPECT_EQ(Write({MakeEvent("h1", "first"), MakeEvent("", ""),
                   MakeEvent(std::string("\0\xFF", 2), "third\n")},
                  4096),
            golden);
}

TEST(ChunkFormat, GoldenFilesAreReadBack) {
  Events events = Read(ReadFileBytes("chunk-three-events.bin"));
  ASSERT_EQ(events.size(), 3u);
  EXPECT_EQ(HeadOf(events[0]), "h1");
  EXPECT_EQ(PayloadOf(events[0]), "first");
  EXPECT_EQ(HeadOf(events[1]), "");
  EXPECT_EQ(PayloadOf(events[1]), "");
  EXPECT_EQ(HeadOf(events[2]), std::string("\0\xFF", 2));
  EXPECT_EQ(PayloadOf(events[2]), "third\n");
  ReleaseAll(events);
}

TEST(ChunkFormat, PaddingOfAnyContentIsNotLookedAt) {
  Bytes bytes = ReadFileBytes("chunk-three-events.bin");
  const std::size_t dataSize = 4 + 3 * 8 + 2 + 5 + 2 + 6;
  std::fill(bytes.begin() + dataSize, bytes.end(), static_cast<unsigned char>(0xEE));
  Events events = Read(bytes);
  EXPECT_EQ(events.size(), 3u);
  ReleaseAll(events);
}

TEST(ChunkFormat, OneEventOfTenAndNinetyBytesTakes112BytesAndOnePage) {
  Events events{MakeEvent(std::string(10, 'h'), std::string(90, 'p'))};
  EXPECT_EQ(ChunkDataSize(events), 112u);
  EXPECT_EQ(RoundUpToPage(112, 4096), 4096u);
  ReleaseAll(events);
}

TEST(ChunkFormat, WholePagesAreNotRoundedFurther) {
  EXPECT_EQ(RoundUpToPage(4096, 4096), 4096u);
  EXPECT_EQ(RoundUpToPage(4097, 4096), 8192u);
  EXPECT_EQ(RoundUpToPage(0, 4096), 0u);
  EXPECT_EQ(RoundUpToPage(1, 65536), 65536u);
}

TEST(ChunkFormat, DataSizeIsCountedBeyond32Bits) {
  // Nothing of this size is touched: the block only claims the length.
  char byte = 0;
  ACE_Message_Block huge(&byte, std::size_t{3} << 30);
  huge.wr_ptr(std::size_t{3} << 30);
  ACE_Message_Block payload(&byte, std::size_t{3} << 30);
  payload.wr_ptr(std::size_t{3} << 30);
  huge.cont(&payload);
  EXPECT_EQ(ChunkDataSize({&huge}), 4u + 8u + (std::uint64_t{6} << 30));
  huge.cont(nullptr);
}

TEST(ChunkFormat, NoEventsAreACountOfZero) {
  EXPECT_EQ(ChunkDataSize({}), 4u);
  const Bytes bytes = Write({}, 4096);
  EXPECT_EQ(bytes, Bytes(4096, 0));
  EXPECT_TRUE(Read(bytes).empty());
}

TEST(ChunkFormat, AThousandEventsKeepTheirOrder) {
  CountingAllocators allocators;
  Events events = Read(Write(TestSupport::MakeEvents(1000), 4096));
  ASSERT_EQ(events.size(), 1000u);
  for (std::size_t i = 0; i < events.size(); ++i) {
    EXPECT_EQ(PayloadOf(events[i]), "event " + std::to_string(i));
  }
  ReleaseAll(events);
  EXPECT_TRUE(allocators.NothingAlive());
}

TEST(ChunkFormat, WritingReleasesEachEvent) {
  CountingAllocators allocators;
  Write({MakeEvent("head", "payload"), MakeEvent("head", "payload")}, 4096);
  EXPECT_TRUE(allocators.NothingAlive());
}

TEST(ChunkFormat, OfABlockThatWasReadFromTheFirstBytesOfItsBufferAreStored) {
  ACE_Message_Block* const event = MakeEvent("abcdef", "123456");
  event->rd_ptr(4);          // two bytes unread: "ef"
  event->cont()->rd_ptr(1);  // five bytes unread: "23456"
  Events events = Read(Write({event}, 4096));
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(HeadOf(events[0]), "ab");
  EXPECT_EQ(PayloadOf(events[0]), "12345");
  ReleaseAll(events);
}

TEST(ChunkFormat, EventWithoutAPayloadBlockComesBackWithAnEmptyOne) {
  ACE_Message_Block* const event = MakeEvent("head", "");
  event->cont()->release();
  event->cont(nullptr);
  Events events = Read(Write({event}, 4096));
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(HeadOf(events[0]), "head");
  ASSERT_NE(events[0]->cont(), nullptr);
  EXPECT_EQ(PayloadOf(events[0]), "");
  ReleaseAll(events);
}

TEST(ChunkFormat, RebuiltBlocksAreDataBlocksOfExactlyTheStoredCapacity) {
  Events events = Read(Write({MakeEvent("head", "payload")}, 4096));
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0]->msg_type(), ACE_Message_Block::MB_DATA);
  EXPECT_EQ(events[0]->size(), 4u);
  EXPECT_EQ(events[0]->rd_ptr(), events[0]->base());
  EXPECT_EQ(events[0]->cont()->msg_type(), ACE_Message_Block::MB_DATA);
  EXPECT_EQ(events[0]->cont()->size(), 7u);
  EXPECT_EQ(events[0]->cont()->cont(), nullptr);
  ReleaseAll(events);
}

TEST(ChunkFormat, OnlyTheBytesOfABlockSurvive) {
  ACE_Message_Block* const event = MakeEvent("head", "payload");
  event->msg_type(ACE_Message_Block::MB_PROTO);
  event->msg_priority(7);
  event->set_flags(ACE_Message_Block::USER_FLAGS);
  Events events = Read(Write({event}, 4096));
  EXPECT_EQ(events[0]->msg_type(), ACE_Message_Block::MB_DATA);
  EXPECT_EQ(events[0]->msg_priority(), 0u);
  EXPECT_EQ(events[0]->flags() & ACE_Message_Block::USER_FLAGS, 0u);
  ReleaseAll(events);
}

TEST(ChunkFormat, CountBeyondTheBufferEndsWithTheEventsThatAreThere) {
  Bytes bytes = LittleEndian({1000, 0, 0});
  Events events = Read(bytes);
  EXPECT_EQ(events.size(), 1u);
  ReleaseAll(events);
  events = Read(LittleEndian({0xFFFFFFFF, 0, 0}));
  EXPECT_EQ(events.size(), 1u);
  ReleaseAll(events);
}

TEST(ChunkFormat, LengthThatPointsPastTheBufferEndsTheChunk) {
  CountingAllocators allocators;
  for (const std::uint32_t length : {1u, 5u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFCu, 0xFFFFFFFFu}) {
    Events events = Read(LittleEndian({2, 0, 0, length}));
    EXPECT_EQ(events.size(), 1u) << length;
    ReleaseAll(events);
    events = Read(LittleEndian({2, 0, 0, 0, length}));
    EXPECT_EQ(events.size(), 1u) << length;
    ReleaseAll(events);
  }
  EXPECT_TRUE(allocators.NothingAlive());
}

TEST(ChunkFormat, BufferCutAnywhereGivesTheEventsThatAreWhole) {
  const Bytes whole = Write({MakeEvent("h1", "first"), MakeEvent("h2", "second")}, 1);
  CountingAllocators allocators;
  const std::size_t endOfFirst = 4 + 4 + 2 + 4 + 5;
  for (std::size_t size = 0; size <= whole.size(); ++size) {
    Events events = Read(Bytes(whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)));
    const std::size_t expected = size == whole.size() ? 2 : (size >= endOfFirst ? 1 : 0);
    EXPECT_EQ(events.size(), expected) << size;
    ReleaseAll(events);
  }
  EXPECT_TRUE(allocators.NothingAlive());
}

TEST(ChunkFormat, EveryFlippedByteIsReadWithoutLeavingTheBuffer) {
  const Bytes whole = Write({MakeEvent("h1", "first"), MakeEvent("h2", "second")}, 64);
  CountingAllocators allocators;
  for (std::size_t i = 0; i < whole.size(); ++i) {
    for (int bit = 0; bit < 8; ++bit) {
      Bytes damaged = whole;
      damaged[i] = static_cast<unsigned char>(damaged[i] ^ (1u << bit));
      Events events = Read(damaged);
      EXPECT_LE(events.size(), 7u);
      ReleaseAll(events);
    }
  }
  EXPECT_TRUE(allocators.NothingAlive());
}

TEST(ChunkFormat, WithoutMemoryForABlockNothingIsRebuiltAndNothingLeaks) {
  const Bytes bytes = Write({MakeEvent("h1", "first"), MakeEvent("h2", "second")}, 64);
  for (long allocations = 0; allocations < 4; ++allocations) {
    CountingAllocators allocators;
    allocators.Blocks().FailAfter(allocations);
    Events events;
    EXPECT_FALSE(ReadChunk(bytes.data(), bytes.size(), events));
    EXPECT_TRUE(events.empty());
    EXPECT_TRUE(allocators.NothingAlive());
  }
}

}  // namespace
}  // namespace OrloStoreAndForward
