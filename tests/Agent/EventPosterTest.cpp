#include "Agent/EventPoster.h"

#include <gtest/gtest.h>

#include <vector>

#include "OrloStream/StreamManager.h"
#include "WindowsAgentCommon/MessageBlockPtr.h"
#include "tests/Agent/BareStream.h"
#include "tests/support/LogCapture.h"

namespace OrloAgent {

using WindowsAgentCommon::LogLevel;

namespace {

// The only task of its stream; takes an event or refuses it, and looks how many were counted then.
class Gatekeeper : public WindowsAgentCommon::OrloTask {
 public:
  Gatekeeper(const bool& takes, const PostCounts& counts, std::vector<std::uint64_t>& seen)
      : m_takes(takes), m_counts(counts), m_seen(seen) {}
  void Initialize(const WindowsAgentCommon::EnvironmentBlock&) override {}
  void Stop() override {}
  int put(ACE_Message_Block* block, ACE_Time_Value*) override {
    const WindowsAgentCommon::MessageBlockPtr event(block);
    m_seen.push_back(m_counts.posted);
    return m_takes ? 0 : -1;
  }

 private:
  const bool& m_takes;
  const PostCounts& m_counts;
  std::vector<std::uint64_t>& m_seen;
};

class EventPosterTest : public testing::Test {
 protected:
  EventPosterTest() {
    m_gate.Open(m_manager.Create(
        TestSupport::BareStream(std::make_unique<Gatekeeper>(m_takes, m_counts, m_seen))));
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
  PostCounts m_counts;
  // What was counted at each post.
  std::vector<std::uint64_t> m_seen;
  OrloStream::StreamManager m_manager{"."};
  StreamGate m_gate;
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

TEST_F(EventPosterTest, AnEventIsNotCountedWhileItIsNotKnownWhatBecomesOfIt) {
  EventPoster poster = MakePoster(Untaken::OfferedAgain);
  m_takes = false;
  Post(poster);
  Post(poster);
  m_takes = true;
  Post(poster);
  Post(poster);
  EXPECT_EQ(m_seen, (std::vector<std::uint64_t>{0, 0, 0, 1})) << "a count never goes down";
  EXPECT_EQ(m_counts.posted, 2u);
}

}  // namespace

}  // namespace OrloAgent
