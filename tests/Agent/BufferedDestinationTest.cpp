#include "Agent/BufferedDestination.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>
#include <vector>

#include "Agent/EventHeader.h"
#include "tests/support/Events.h"

namespace OrloAgent {

namespace {

// Takes so many bytes, and then none.
class LimitedChannel : public IChannel {
 public:
  LimitedChannel(std::size_t room, std::string& written) : m_room(room), m_written(written) {}
  Readiness Prepare(bool) override { return Readiness::Ready; }
  WriteResult Write(std::string_view bytes, std::chrono::milliseconds) override {
    const std::size_t count = std::min(bytes.size(), m_room);
    m_room -= count;
    m_written += bytes.substr(0, count);
    return {count, false};
  }
  void Close() override {}

 private:
  std::size_t m_room;
  std::string& m_written;
};

ACE_Message_Block* Event(const std::string& message, std::uint8_t flags) {
  const EventHeaderTemplate header(EventOrigin::Stdin, std::string_view());
  std::string head(header.GetSize(), '\0');
  header.Write(head.data(), flags, 0);
  return TestSupport::MakeEvent(head, message);
}

class TakeUnsentTest : public testing::TestWithParam<OutputFraming> {
 protected:
  // What comes back of events of which only so many bytes were written.
  using Messages = std::vector<std::tuple<std::string, int>>;
  Messages TakeUnsent(std::size_t written, const std::vector<ACE_Message_Block*>& events) {
    BufferedWriterOptions options;
    options.flushSize = 1;
    options.stopTimeout = std::chrono::milliseconds(0);
    BufferedDestination destination(std::make_unique<LimitedChannel>(written, m_written),
                                    GetParam(), options);
    for (ACE_Message_Block* const event : events) {
      EXPECT_EQ(destination.put(event), 0);
    }
    destination.Stop();
    Messages messages;
    for (const auto& event : destination.TakeUnsent()) {
      const std::string head = TestSupport::HeadOf(event.get());
      const auto header = ParseEventHeader(head);
      EXPECT_TRUE(header);
      messages.emplace_back(TestSupport::PayloadOf(event.get()), header ? header->flags : -1);
    }
    EXPECT_EQ(destination.GetUnsentEvents(), 0u);
    return messages;
  }

  std::string m_written;
};

constexpr std::uint8_t kNoLineEnd = EventFlags::kNoLineEnd;
constexpr std::uint8_t kCut = EventFlags::kCut;

INSTANTIATE_TEST_SUITE_P(AllFramings, TakeUnsentTest,
                         testing::Values(OutputFraming::Lines, OutputFraming::Newline,
                                         OutputFraming::OctetCounted));

TEST_P(TakeUnsentTest, EventsComeBackAsTheyWereWithAndWithoutALineEnd) {
  EXPECT_EQ(TakeUnsent(0, {Event("with", 0), Event("without", kNoLineEnd), Event("", 0),
                           Event("5 \n", kCut), Event("\n", kNoLineEnd | kCut)}),
            (Messages{{"with", 0},
                      {"without", kNoLineEnd},
                      {"", 0},
                      {"5 \n", kCut},
                      {"\n", kNoLineEnd | kCut}}));
}

TEST_P(TakeUnsentTest, AnEventOfWhichAPartWasWrittenComesBackWhole) {
  EXPECT_EQ(TakeUnsent(12, {Event("gone", 0), Event("partly written", kNoLineEnd)}),
            (Messages{{"partly written", kNoLineEnd}}));
  EXPECT_EQ(m_written.size(), 12u);
}

TEST_P(TakeUnsentTest, AnEventInSeveralBlocksComesBackInOne) {
  ACE_Message_Block* const split = Event("one ", kNoLineEnd);
  split->cont()->cont(TestSupport::MakeEvent("two ", "three"));
  EXPECT_EQ(TakeUnsent(0, {split}), (Messages{{"one two three", kNoLineEnd}}));
}

TEST_P(TakeUnsentTest, AnEventWithAnUnknownHeadComesBackWithALineEnd) {
  EXPECT_EQ(TakeUnsent(0, {TestSupport::MakeEvent("what another stage made", "text")}),
            (Messages{{"text", 0}}));
}

}  // namespace

}  // namespace OrloAgent
