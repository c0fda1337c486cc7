#include "Agent/EventPoster.h"

#include <gtest/gtest.h>

#include "OrloStream/StreamManager.h"
#include "WindowsAgentCommon/MessageBlockPtr.h"
#include "tests/Agent/BareStream.h"
#include "tests/support/LogCapture.h"

namespace OrloAgent {

using WindowsAgentCommon::LogLevel;

namespace {

// The only task of its stream; takes an event or refuses it.
class Gatekeeper : public WindowsAgentCommon::OrloTask {
 public:
  explicit Gatekeeper(const bool& takes) : m_takes(takes) {}
  void Initialize(const WindowsAgentCommon::EnvironmentBlock&) override {}
  void Stop() override {}
  int put(ACE_Message_Block* block, ACE_Time_Value*) override {
    const WindowsAgentCommon::MessageBlockPtr event(block);
    return m_takes ? 0 : -1;
  }

 private:
  const bool& m_takes;
};

class EventPosterTest : public testing::Test {
 protected:
  EventPosterTest() {
    m_gate.Open(m_manager.Create(TestSupport::BareStream(std::make_unique<Gatekeeper>(m_takes))));
  }

  EventPoster MakePoster(Untaken untaken) {
    return EventPoster(m_gate, m_counts, WindowsAgentCommon::LoggerFactory::GetLog("Code.Poster"),
                       untaken);
  }

  bool Post(EventPoster& poster) {
    const EventHeaderTemplate header(EventOrigin::Stdin, std::string_view());
    return poster.Post(header, 0, 0, "an event");
  }

  TestSupport::LogCapture m_messages;
  bool m_takes = true;
  OrloStream::StreamManager m_manager{"."};
  StreamGate m_gate;
  PostCounts m_counts;
};

TEST_F(EventPosterTest, SaysWhetherTheStreamHasTakenTheEvent) {
  EventPoster poster = MakePoster(Untaken::Lost);
  EXPECT_TRUE(Post(poster));
  m_takes = false;
  EXPECT_FALSE(Post(poster));
  m_takes = true;
  EXPECT_TRUE(Post(poster));
  m_gate.Close();
  m_gate.Abandon();
  EXPECT_FALSE(Post(poster));
  EXPECT_EQ(m_counts.posted, 3u);
  EXPECT_EQ(m_counts.notMade, 1u);
}

TEST_F(EventPosterTest, WhatIsLostAfterAReportIsReportedAtTheEnd) {
  EventPoster poster = MakePoster(Untaken::Lost);
  m_takes = false;
  for (int i = 0; i < 5; ++i) {
    Post(poster);
  }
  const std::string reason =
      " events were lost before they were queued: the stream's first stage "
      "refused them.";
  EXPECT_EQ(m_messages.Count(LogLevel::Error, "1" + reason), 1u);
  poster.Finish();
  EXPECT_EQ(m_messages.Count(LogLevel::Error, "4" + reason), 1u);
  poster.Finish();
  EXPECT_EQ(m_messages.Lines().size(), 2u);
}

TEST_F(EventPosterTest, WhatIsOfferedAgainCountsNeitherAsPostedNorAsLost) {
  EventPoster poster = MakePoster(Untaken::OfferedAgain);
  m_takes = false;
  EXPECT_FALSE(Post(poster));
  EXPECT_FALSE(Post(poster));
  EXPECT_EQ(m_messages.Count(LogLevel::Warn,
                             "Events are not queued (the stream's first stage refused them); they "
                             "are offered again."),
            1u);
  m_gate.Close();
  m_gate.Abandon();
  EXPECT_FALSE(Post(poster));
  poster.Finish();
  EXPECT_EQ(m_messages.Lines().size(), 1u) << "an event that waits for the next start is no news";
  EXPECT_EQ(m_counts.posted, 0u);
  EXPECT_EQ(m_counts.notMade, 0u);
}

}  // namespace

}  // namespace OrloAgent
