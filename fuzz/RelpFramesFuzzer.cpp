#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "Agent/RelpFrames.h"
#include "fuzz/FuzzTarget.h"

// The input is a byte that says how the stream is cut, then what a receiver of RELP sends.

namespace {

using namespace OrloAgent;
using Fuzz::Require;

struct Outcome {
  std::string frames;  // each as AppendRelpFrame writes it
  bool isReadable = true;

  bool operator==(const Outcome&) const = default;
};

// Leading zeros are read, and not written again.
bool HasPlainNumbers(std::string_view stream) {
  return stream.find(" 0") == std::string_view::npos && stream.find("\n0") == stream.npos &&
         (stream.empty() || stream[0] != '0');
}

void LookAt(const RelpFrame& frame) {
  Require(frame.number <= kLastRelpNumber, "a number has nine digits at most");
  Require(!frame.command.empty() && frame.command.size() <= 32, "a command has its length");
  Require(frame.data.size() <= RelpFrameReader::kLargestData, "no frame is larger than is taken");
  const RelpAnswer answer = ParseRelpAnswer(frame.data);
  if (answer.isReadable) {
    Require(answer.status >= 0 && answer.status <= 999, "a status has three digits");
    Require(answer.text.find('\n') == std::string_view::npos, "the text is in one line");
    Require(answer.text.size() + answer.lines.size() <= frame.data.size(),
            "an answer is no more than its data");
  }
  OffersRelpCommand(answer.lines, "syslog");
}

Outcome Read(std::string_view stream, std::size_t piece) {
  Outcome outcome;
  RelpFrameReader reader;
  for (std::size_t at = 0; at < stream.size() && outcome.isReadable; at += piece) {
    // A copy of exactly that size, so that a read behind it is seen.
    const std::vector<char> bytes(
        stream.begin() + static_cast<std::ptrdiff_t>(at),
        stream.begin() + static_cast<std::ptrdiff_t>(std::min(at + piece, stream.size())));
    reader.Append({bytes.data(), bytes.size()});
    RelpFrame frame;
    RelpFrameReader::Result result = RelpFrameReader::Result::More;
    while ((result = reader.Next(frame)) == RelpFrameReader::Result::Frame) {
      LookAt(frame);
      AppendRelpFrame(frame.number, frame.command, frame.data, outcome.frames);
    }
    outcome.isReadable = result == RelpFrameReader::Result::More;
  }
  return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  const std::string_view stream(reinterpret_cast<const char*>(data) + 1, size - 1);
  const Outcome whole = Read(stream, std::max<std::size_t>(stream.size(), 1));
  Require(Read(stream, data[0] + std::size_t{1}) == whole,
          "frames are the same however their bytes come");
  if (HasPlainNumbers(stream)) {
    Require(stream.substr(0, whole.frames.size()) == whole.frames,
            "frames that are written again are the bytes that were read");
  }
  return 0;
}
