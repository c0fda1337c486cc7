#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Frames of RELP, the reliable event logging protocol:
//
//   TXNR SP COMMAND SP DATALEN [SP DATA] LF
//
// The client numbers its commands, the server answers each with the command "rsp" and the same
// number; number 0 is for hints that nobody answers. The data of an answer is a status of three
// digits, a text in the same line, and possibly more lines.
namespace OrloAgent {

// After this number comes 1 again.
constexpr std::uint32_t kLastRelpNumber = 999'999'999;

// Behind what `output` holds.
void AppendRelpFrame(std::uint32_t number, std::string_view command, std::string_view data,
                     std::string& output);

// The number of the command that comes `distance` commands after the one with that number.
std::uint32_t AdvanceRelpNumber(std::uint32_t number, std::uint64_t distance);

// How many commands `number` comes after `first`, 0 to kLastRelpNumber - 1.
std::uint32_t GetRelpDistance(std::uint32_t first, std::uint32_t number);

struct RelpFrame {
  std::uint32_t number = 0;
  // These point into the reader's memory, until its next call.
  std::string_view command;
  std::string_view data;
};

// What a server says in an answer.
struct RelpAnswer {
  // False if the data was no answer.
  bool isReadable = false;
  int status = 0;
  std::string_view text;
  // The lines behind the first.
  std::string_view lines;
};
RelpAnswer ParseRelpAnswer(std::string_view data);

// Whether the lines of an answer to "open" offer the command.
bool OffersRelpCommand(std::string_view lines, std::string_view command);

// Takes frames out of a stream of bytes. No more than a frame of kLargestData is ever kept.
class RelpFrameReader {
 public:
  static constexpr std::size_t kLargestData = 128 * 1024;

  void Append(std::string_view bytes);

  enum class Result {
    Frame,
    // There is no whole one yet.
    More,
    // These bytes are no frame, or a larger one than is taken; nothing behind them can be read.
    Unreadable
  };
  Result Next(RelpFrame& frame);

 private:
  std::vector<char> m_bytes;
  std::size_t m_begin = 0;
};

}  // namespace OrloAgent
