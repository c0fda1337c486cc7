// Every small damage of a chunk: no byte of it makes the check read where it must not, or call
// something healthy that contradicts itself.
#include <gtest/gtest.h>

#include <random>

#include "Agent/EventHeader.h"
#include "CacheTool/ChunkCheck.h"
#include "StoreAndForward/ChunkFormat.h"
#include "tests/CacheTool/CacheFiles.h"
#include "tests/support/Events.h"

namespace OrloCacheTool {

namespace {

// Events with heads of the oldest layout and of the newest.
std::vector<std::vector<HeadAndPayload>> MakeSamples() {
  const auto newHead = [](OrloAgent::EventOrigin origin, const std::string& source) {
    const OrloAgent::EventHeaderTemplate made(origin, source);
    std::string head(made.GetSize(), '\0');
    made.Write(head.data(), 0, 131'018'331'071'230'000);
    return head;
  };
  using OrloAgent::EventOrigin;
  return {
      {{MakeHead("stdin", 1), "hello"}, {MakeHead("tcp:192.0.2.1:514"), ""}, {MakeHead(), "end\n"}},
      {{newHead(EventOrigin::Tcp, "\xc0\x01\x02\x03"), "hello"},
       {newHead(EventOrigin::Stdin, ""), ""},
       {newHead(EventOrigin::File, "/var/log/messages"), "end\n"}}};
}

// Offsets of the bytes of which every change is one of structure: the count, the blocks' lengths,
// padding. Not the last event's lengths: what is taken for it may go on into the padding, and end
// with zeros as a payload may.
std::vector<bool> FindStructure(const std::string& chunk,
                                const std::vector<HeadAndPayload>& events) {
  std::vector<bool> structure(chunk.size(), false);
  std::size_t offset = 0;
  const auto mark = [&](std::size_t size, bool isStructure) {
    std::fill_n(structure.begin() + static_cast<std::ptrdiff_t>(offset), size, isStructure);
    offset += size;
  };
  mark(4, true);
  for (const HeadAndPayload& event : events) {
    const bool isLast = &event == &events.back();
    mark(4, !isLast);
    mark(event.first.size(), false);
    mark(4, !isLast);
    mark(event.second.size(), false);
  }
  mark(chunk.size() - offset, true);
  return structure;
}

// What the stage makes of the bytes.
std::vector<HeadAndPayload> ReadAsStage(const std::string& bytes) {
  std::vector<ACE_Message_Block*> blocks;
  EXPECT_TRUE(OrloStoreAndForward::ReadChunk(reinterpret_cast<const unsigned char*>(bytes.data()),
                                             bytes.size(), blocks));
  std::vector<HeadAndPayload> events;
  for (const ACE_Message_Block* block : blocks) {
    events.emplace_back(TestSupport::HeadOf(block), TestSupport::PayloadOf(block));
  }
  TestSupport::ReleaseAll(blocks);
  return events;
}

// Nothing contradicts itself: there are events, and those that the stage makes of the bytes would
// give them again.
bool IsConsistent(const std::string& bytes, const std::vector<HeadAndPayload>& events) {
  for (const auto& [head, payload] : events) {
    const auto header = OrloAgent::ParseEventHeader(head);
    if (!header) {
      return false;
    }
    if (header->origin <= OrloAgent::EventOrigin::File &&
        header->source.find('\0') != std::string_view::npos) {
      return false;
    }
  }
  return !events.empty() && MakeChunk(events) == bytes;
}

// Returns whether the check finds the chunk healthy; fails the test if it is wrong in that.
bool IsHealthy(const std::string& bytes) {
  // On the heap and no larger than that, so that AddressSanitizer sees a step beyond either end.
  const std::vector<char> exact(bytes.begin(), bytes.end());
  const ChunkReport report =
      CheckChunk(std::string_view(exact.data(), exact.size()), CheckOptions());
  EXPECT_FALSE(DescribeEffect(report).empty());
  const auto events = ReadAsStage(bytes);
  EXPECT_EQ(report.complete, events.size());
  EXPECT_EQ(report.IsHealthy(), IsConsistent(bytes, events));
  EXPECT_LE(report.readable, report.complete);
  return report.IsHealthy();
}

}  // namespace

TEST(ChunkDamage, EveryChangeOfAByteOfTheStructureIsFound) {
  for (const auto& events : MakeSamples()) {
    const std::string good = MakeChunk(events);
    ASSERT_TRUE(IsHealthy(good));
    const std::vector<bool> structure = FindStructure(good, events);
    int unseen = 0;
    for (std::size_t at = 0; at < good.size(); ++at) {
      const bool isPadding = at >= 160;
      for (unsigned change = 1; change < 256; change = isPadding ? change * 16 : change + 1) {
        std::string bad = good;
        bad[at] = static_cast<char>(static_cast<unsigned char>(bad[at]) ^ change);
        const bool isHealthy = IsHealthy(bad);
        ASSERT_FALSE(isHealthy && structure[at]) << "byte " << at << " changed by " << change;
        unseen += isHealthy ? 1 : 0;
      }
    }
    EXPECT_GT(unseen, 0) << "nothing can see a change inside a payload";
  }
}

TEST(ChunkDamage, EveryCutIsFound) {
  for (const auto& events : MakeSamples()) {
    const std::string good = MakeChunk(events);
    for (std::size_t size = 0; size < good.size(); ++size) {
      ASSERT_FALSE(IsHealthy(good.substr(0, size))) << size;
    }
  }
}

TEST(ChunkDamage, EveryCutToWholePagesIsFound) {
  std::vector<HeadAndPayload> events(40, {MakeHead(), std::string(1000, 'x')});
  const std::string good = MakeChunk(events);
  ASSERT_TRUE(IsHealthy(good));
  for (std::size_t size = 4096; size < good.size(); size += 4096) {
    ASSERT_FALSE(IsHealthy(good.substr(0, size))) << size;
    // As a file system leaves it that had room for the length but not for the bytes.
    std::string zeroed = good.substr(0, size);
    zeroed.resize(good.size(), '\0');
    // The last page holds nothing but the end of a payload.
    ASSERT_EQ(IsHealthy(zeroed), size == good.size() - 4096) << size;
  }
}

TEST(ChunkDamage, EveryByteTooManyIsFound) {
  std::string bad = MakeChunk(MakeSamples().front());
  for (int i = 0; i < 4200; ++i) {
    bad += '\0';
    ASSERT_FALSE(IsHealthy(bad)) << bad.size();
  }
}

TEST(ChunkDamage, FilesOfAnythingAreJudgedAsWhatTheyAre) {
  std::mt19937 random(20160307);  // NOLINT(cert-msc51-cpp)
  for (int round = 0; round < 3000; ++round) {
    std::string bytes(random() % 300, '\0');
    for (char& byte : bytes) {
      // Mostly small numbers, so that lengths often point inside.
      byte = static_cast<char>(random() % 4 != 0 ? random() % 4 : random());
    }
    if (round % 2 == 0) {
      bytes.resize(4096, '\0');
    }
    IsHealthy(bytes);
  }
}

}  // namespace OrloCacheTool
