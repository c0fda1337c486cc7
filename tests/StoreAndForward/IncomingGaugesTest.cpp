#include "StoreAndForward/IncomingGauges.h"

#include <ace/Message_Block.h>
#include <gtest/gtest.h>

#include <map>
#include <thread>

namespace OrloStoreAndForward {
namespace {

std::map<std::string, std::int64_t> Read() {
  std::map<std::string, std::int64_t> values;
  for (const auto& reading : WindowsAgentCommon::ReadGauges("S")) {
    values[reading.name] = reading.value;
  }
  return values;
}

TEST(IncomingGauges, TellWhatIsInTheQueue) {
  ACE_Message_Queue<ACE_MT_SYNCH> queue;
  const IncomingGauges gauges("S", queue);
  EXPECT_EQ(Read().at("QueueEvents"), 0);
  auto* const block = new ACE_Message_Block(100);
  block->wr_ptr(70);
  queue.enqueue_tail(block);
  EXPECT_EQ(Read().at("QueueEvents"), 1);
  EXPECT_EQ(Read().at("QueueBytes"), static_cast<std::int64_t>(queue.message_length()));
  EXPECT_GE(Read().at("QueueBytes"), 70);
}

TEST(IncomingGauges, AgeOfTheChunkBeginsWithItsFirstEventAndEndsWithTheChunk) {
  ACE_Message_Queue<ACE_MT_SYNCH> queue;
  IncomingGauges gauges("S", queue);
  gauges.SetChunk(0);
  EXPECT_EQ(Read().at("ChunkAgeMilliseconds"), 0);
  gauges.SetChunk(1);
  while (Read().at("ChunkAgeMilliseconds") < 20) {
    std::this_thread::yield();
  }
  gauges.SetChunk(2);
  EXPECT_EQ(Read().at("ChunkEvents"), 2);
  EXPECT_GE(Read().at("ChunkAgeMilliseconds"), 20) << "further events make it no younger";
  gauges.SetChunk(0);
  EXPECT_EQ(Read().at("ChunkEvents"), 0);
  EXPECT_EQ(Read().at("ChunkAgeMilliseconds"), 0);
}

TEST(IncomingGauges, WaysAreCountedInChunksAndEvents) {
  ACE_Message_Queue<ACE_MT_SYNCH> queue;
  IncomingGauges gauges("S", queue);
  gauges.CountNear(3);
  gauges.CountNear(4);
  gauges.CountSpilled(10);
  gauges.CountFar(10);
  const auto values = Read();
  EXPECT_EQ(values.at("ChunksNear"), 2);
  EXPECT_EQ(values.at("EventsNear"), 7);
  EXPECT_EQ(values.at("ChunksSpilled"), 1);
  EXPECT_EQ(values.at("EventsSpilled"), 10);
  EXPECT_EQ(values.at("ChunksFar"), 1);
  EXPECT_EQ(values.at("EventsFar"), 10);
}

}  // namespace
}  // namespace OrloStoreAndForward
