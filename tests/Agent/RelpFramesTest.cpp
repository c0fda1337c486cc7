#include "Agent/RelpFrames.h"

#include <gtest/gtest.h>

namespace {

using namespace OrloAgent;
using Result = RelpFrameReader::Result;

std::string Frame(std::uint32_t number, std::string_view command, std::string_view data) {
  std::string output;
  AppendRelpFrame(number, command, data, output);
  return output;
}

TEST(RelpFrames, AFrameIsNumberCommandLengthAndData) {
  EXPECT_EQ(Frame(1, "syslog", "<13>a b\nc"), "1 syslog 9 <13>a b\nc\n");
  EXPECT_EQ(Frame(kLastRelpNumber, "close", ""), "999999999 close 0\n");
}

TEST(RelpFrames, FramesAreReadHoweverTheirBytesCome) {
  const std::string bytes = Frame(1, "rsp", "200 OK") + Frame(0, "serverclose", "") +
                            Frame(23, "rsp", std::string("5\0\n 0", 5));
  for (std::size_t piece = 1; piece <= bytes.size(); ++piece) {
    RelpFrameReader reader;
    RelpFrame frame;
    std::string seen;
    for (std::size_t at = 0; at < bytes.size(); at += piece) {
      reader.Append(std::string_view(bytes).substr(at, piece));
      Result result = Result::More;
      while ((result = reader.Next(frame)) == Result::Frame) {
        seen += Frame(frame.number, frame.command, frame.data);
      }
      ASSERT_EQ(result, Result::More);
    }
    EXPECT_EQ(seen, bytes) << piece;
  }
}

TEST(RelpFrames, BytesThatAreNoFrameAreFoundOut) {
  const std::string cases[] = {"x rsp 1 a\n",
                               "1234567890 rsp 1 a\n",
                               " rsp 1 a\n",
                               "1  1 a\n",
                               "1 rsp x a\n",
                               "1 rsp -1 a\n",
                               "1 rsp 131073 ",
                               "1 rsp 1 ab",
                               "1 rsp 1\n",
                               "1 " + std::string(33, 'c') + " 1 a\n",
                               std::string(100, '1'),
                               "1 rsp " + std::string(100, '1'),
                               "HTTP/1.1 400 Bad Request\r\n"};
  for (const std::string& bytes : cases) {
    RelpFrameReader reader;
    RelpFrame frame;
    reader.Append(bytes);
    EXPECT_EQ(reader.Next(frame), Result::Unreadable) << bytes;
  }
}

TEST(RelpFrames, AnAnswerHasAStatusATextAndLines) {
  const RelpAnswer taken = ParseRelpAnswer("200 OK\nrelp_version=0\ncommands=syslog");
  EXPECT_TRUE(taken.isReadable);
  EXPECT_EQ(taken.status, 200);
  EXPECT_EQ(taken.text, "OK");
  EXPECT_EQ(taken.lines, "relp_version=0\ncommands=syslog");
  const RelpAnswer bare = ParseRelpAnswer("500");
  EXPECT_TRUE(bare.isReadable);
  EXPECT_EQ(bare.status, 500);
  EXPECT_EQ(bare.text, "");
  EXPECT_FALSE(ParseRelpAnswer("").isReadable);
  EXPECT_FALSE(ParseRelpAnswer("20").isReadable);
  EXPECT_FALSE(ParseRelpAnswer("2000 OK").isReadable);
  EXPECT_FALSE(ParseRelpAnswer("OK").isReadable);
}

TEST(RelpFrames, ACommandIsOfferedIfItStandsInTheListOfCommands) {
  EXPECT_TRUE(OffersRelpCommand("relp_version=0\ncommands=eventlog,syslog\n", "syslog"));
  EXPECT_TRUE(OffersRelpCommand("commands=syslog", "syslog"));
  EXPECT_FALSE(OffersRelpCommand("commands=syslogs,sys", "syslog"));
  EXPECT_FALSE(OffersRelpCommand("relp_software=syslog", "syslog"));
  EXPECT_FALSE(OffersRelpCommand("", "syslog"));
}

TEST(RelpFrames, AfterTheLastNumberComesOne) {
  EXPECT_EQ(AdvanceRelpNumber(1, 0), 1u);
  EXPECT_EQ(AdvanceRelpNumber(kLastRelpNumber, 1), 1u);
  EXPECT_EQ(AdvanceRelpNumber(2, std::uint64_t{kLastRelpNumber} * 5 + 3), 5u);
  EXPECT_EQ(GetRelpDistance(5, 5), 0u);
  EXPECT_EQ(GetRelpDistance(kLastRelpNumber, 1), 1u);
  EXPECT_EQ(GetRelpDistance(5, 4), kLastRelpNumber - 1);
}

}  // namespace
