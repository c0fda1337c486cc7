#include "OrloStream/Stream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "tests/OrloStream/StreamParts.h"
#include "tests/support/Events.h"

namespace OrloStream {
namespace {

using StreamParts::Definition;
using StreamParts::Entries;
using StreamParts::Stage;
using StreamParts::TestDestination;
using TestSupport::MakeEvent;

class StreamTest : public StreamParts::StreamManagerFixture {
 protected:
  Stream& CreateWithResult(int result) {
    StreamDefinition definition = Definition(L"S", {Stage("UpperStage")});
    definition.destination = std::make_unique<TestDestination>(result);
    return m_manager->Create(std::move(definition));
  }
};

TEST_F(StreamTest, PostGivesBackTheStatusWordOfTheChain) {
  EXPECT_TRUE(CreateWithResult(0x40000000).Post(MakeEvent("h", "p")).Backpressure());
  EXPECT_TRUE(m_allocators.NothingAlive());
}

TEST_F(StreamTest, ABlockIsReleasedOnceWhateverTheResult) {
  Stream& stream = CreateWithResult(-1);
  const Status status = stream.Post(MakeEvent("h", "p"));
  EXPECT_TRUE(status.Failed());
  EXPECT_EQ(status.GetWord(), 0xFFFFFFFFu);
  EXPECT_TRUE(m_allocators.NothingAlive());
}

TEST_F(StreamTest, APosterThatKeepsAReferenceStillHasItsBlock) {
  Stream& stream = CreateWithResult(0);
  ACE_Message_Block* const event = MakeEvent("h", "payload");
  stream.Post(event->duplicate());
  EXPECT_EQ(event->reference_count(), 1);
  EXPECT_EQ(TestSupport::PayloadOf(event), "payload");
  event->release();
}

TEST_F(StreamTest, ThreadsPostAtOnce) {
  Stream& stream = CreateWithResult(0);
  Journal::Clear();
  std::vector<std::thread> threads;
  for (int number = 0; number < 4; ++number) {
    threads.emplace_back([&] {
      for (int i = 0; i < 500; ++i) {
        stream.Post(MakeEvent("h", "p"));
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  const Entries entries = Journal::GetEntries();
  EXPECT_EQ(std::count(entries.begin(), entries.end(), "Destination.put p"), 2000);
  EXPECT_TRUE(m_allocators.NothingAlive());
}

}  // namespace
}  // namespace OrloStream
