#include "Agent/FrameBuffer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using OrloAgent::FrameBuffer;

void Append(FrameBuffer& buffer, std::string_view frame) {
  ASSERT_TRUE(buffer.HasRoomFor(frame.size()));
  buffer.Append(&frame, 1, frame.size());
}

TEST(FrameBuffer, PartsAreJoinedAndFramesFollowEachOther) {
  FrameBuffer buffer(16);
  const std::string_view parts[] = {"3 ", "abc", ""};
  buffer.Append(parts, 3, 5);
  Append(buffer, "1 x");
  EXPECT_EQ(buffer.GetUnsent(), "3 abc1 x");
  EXPECT_EQ(buffer.GetUnsentFrames(), 2u);
}

TEST(FrameBuffer, AFrameCountsAsSentWhenItsLastByteIs) {
  FrameBuffer buffer(16);
  Append(buffer, "abc");
  Append(buffer, "defg");
  buffer.MarkSent(2);
  EXPECT_EQ(buffer.GetUnsentFrames(), 2u);
  EXPECT_FALSE(buffer.IsAtFrameStart());
  buffer.MarkSent(1);
  EXPECT_EQ(buffer.GetUnsentFrames(), 1u);
  EXPECT_TRUE(buffer.IsAtFrameStart());
  buffer.MarkSent(4);
  EXPECT_EQ(buffer.GetUnsentFrames(), 0u);
  EXPECT_EQ(buffer.GetUnsent(), "");
}

TEST(FrameBuffer, ARestartBeginsWithTheFirstFrameThatIsIncomplete) {
  FrameBuffer buffer(16);
  Append(buffer, "abc");
  Append(buffer, "defg");
  Append(buffer, "h");
  buffer.MarkSent(5);
  EXPECT_EQ(buffer.GetUnsent(), "fgh");
  buffer.RestartFrame();
  EXPECT_EQ(buffer.GetUnsent(), "defgh");
  EXPECT_EQ(buffer.GetUnsentFrames(), 2u);
}

TEST(FrameBuffer, RoomIsMeasuredFromTheFirstFrameThatIsIncomplete) {
  FrameBuffer buffer(8);
  Append(buffer, "abcd");
  Append(buffer, "efgh");
  EXPECT_FALSE(buffer.HasRoomFor(1));
  buffer.MarkSent(3);
  EXPECT_FALSE(buffer.HasRoomFor(1)) << "the frame may have to be sent again";
  buffer.MarkSent(1);
  EXPECT_TRUE(buffer.HasRoomFor(4));
  EXPECT_FALSE(buffer.HasRoomFor(5));
}

TEST(FrameBuffer, AnEmptyBufferTakesAFrameOfAnySize) {
  FrameBuffer buffer(8);
  const std::string large(100, 'x');
  Append(buffer, large);
  EXPECT_EQ(buffer.GetUnsent(), large);
  EXPECT_FALSE(buffer.HasRoomFor(1));
  buffer.MarkSent(100);
  Append(buffer, "abc");
  EXPECT_EQ(buffer.GetUnsent(), "abc");
}

TEST(FrameBuffer, UnsentMessagesComeBackWithoutWhatStandsAroundThemAndWithTheirFlags) {
  FrameBuffer buffer(64);
  const auto append = [&](std::vector<std::string_view> parts, const OrloAgent::FrameNotes& notes) {
    std::size_t size = 0;
    for (const std::string_view part : parts) {
      size += part.size();
    }
    buffer.Append(parts.data(), parts.size(), size, notes);
  };
  append({"4 ", "gone"}, {2, 0, 0});
  append({"12 ", "1 of", " its", " two", ""}, {3, 0, 1});
  append({"", "line", "\n"}, {0, 1, 2});
  append({"", "\n\n", ""}, {0, 0, 3});
  append({"0 ", "", ""}, {2, 0, 0});
  buffer.MarkSent(11);
  using Messages = std::vector<OrloAgent::UnsentMessage>;
  EXPECT_EQ(buffer.TakeUnsentMessages(),
            (Messages{{"1 of its two", 1}, {"line", 2}, {"\n\n", 3}, {"", 0}}));
  EXPECT_EQ(buffer.GetUnsentFrames(), 0u);
  EXPECT_EQ(buffer.GetUnsent(), "");
  append({"1 ", "x"}, {2, 0, 0});
  EXPECT_EQ(buffer.TakeUnsentMessages(), (Messages{{"x", 0}}));
}

TEST(FrameBuffer, BytesComeOutInOrderWhateverIsAppendedAndSentInBetween) {
  FrameBuffer buffer(64);
  std::string appended;
  std::string sent;
  unsigned random = 1;
  const auto next = [&](unsigned limit) {
    random = random * 1103515245u + 12345u;
    return (random >> 16) % limit;
  };
  for (int step = 0; step < 20'000; ++step) {
    const std::string frame(1 + next(30), static_cast<char>('a' + step % 26));
    if (buffer.HasRoomFor(frame.size())) {
      Append(buffer, frame);
      appended += frame;
    }
    const std::string_view unsent = buffer.GetUnsent();
    const std::size_t size = next(static_cast<unsigned>(unsent.size()) + 1);
    sent += unsent.substr(0, size);
    buffer.MarkSent(size);
  }
  sent += buffer.GetUnsent();
  EXPECT_EQ(sent, appended);
}

}  // namespace
