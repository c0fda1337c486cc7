#include <algorithm>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "Agent/FrameReader.h"
#include "fuzz/FuzzTarget.h"

// The input is three bytes of options (framing and what becomes of long messages; limit of a
// message, less one; how the stream is cut), then the stream.

namespace {

using Fuzz::Require;
using OrloAgent::Frame;
using OrloAgent::FrameReader;
using OrloAgent::FrameReaderOptions;
using Framing = FrameReaderOptions::Framing;
using TooLong = FrameReaderOptions::TooLong;

// What the reader asks for at once, while it is being watched.
bool bWatched = false;
std::size_t largestAllocation = 0;

}  // namespace

// The reader has one buffer of its own, so the largest allocation bounds what it holds.
void* operator new(std::size_t size) {
  if (bWatched) {
    largestAllocation = std::max(largestAllocation, size);
  }
  void* const memory = std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

// Libraries mix these with forms that are not replaced.
extern "C" const char* __asan_default_options() { return "alloc_dealloc_mismatch=0"; }

void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { std::free(memory); }

namespace {

struct Message {
  std::string bytes;
  bool cut = false;
  bool lineEnd = true;

  bool operator==(const Message&) const = default;
};

struct Outcome {
  std::vector<Message> messages;
  bool isReadable = true;
  // Whether the stream ended without a message being dropped; of no meaning if it isn't readable.
  bool isComplete = true;

  bool operator==(const Outcome&) const = default;
};

class Collector : public OrloAgent::IFrameSink {
 public:
  Collector(const FrameReaderOptions& options, Outcome& outcome)
      : m_options(options), m_outcome(outcome) {}

  void OnFrame(const Frame& frame) override {
    bWatched = false;
    Require(frame.bytes.size() <= m_options.maxSize, "no frame is longer than the limit");
    Require(!frame.cut || frame.bytes.size() == m_options.maxSize, "a cut frame is of the limit");
    m_outcome.messages.push_back({std::string(frame.bytes), frame.cut, frame.lineEnd});
    bWatched = true;
  }

 private:
  const FrameReaderOptions& m_options;
  Outcome& m_outcome;
};

// The pieces follow from the seed alone; 0 gives one piece, 1 single bytes.
Outcome Read(std::string_view stream, const FrameReaderOptions& options, std::uint32_t seed) {
  Outcome outcome;
  Collector collector(options, outcome);
  FrameReader reader(options);
  std::uint32_t state = seed;
  bWatched = true;
  while (!stream.empty()) {
    state = state * 1664525u + 1013904223u;
    const std::size_t wanted = seed == 0 ? stream.size() : seed == 1 ? 1 : (state >> 24) % 24;
    const std::size_t taken = std::min(wanted, stream.size());
    const bool isReadable = reader.Feed(stream.substr(0, taken), collector);
    Require(outcome.isReadable || !isReadable, "a stream that can't be read stays so");
    outcome.isReadable = isReadable;
    stream.remove_prefix(taken);
  }
  if (outcome.isReadable) {
    outcome.isComplete = reader.Finish(collector);
  }
  bWatched = false;
  return outcome;
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

Outcome ExpectCounted(std::string_view stream, const FrameReaderOptions& options) {
  Outcome outcome;
  while (!stream.empty()) {
    std::size_t digits = 0;
    std::uint64_t length = 0;
    while (digits < std::min<std::size_t>(stream.size(), 10) && IsDigit(stream[digits])) {
      length = length * 10 + static_cast<std::uint64_t>(stream[digits] - '0');
      ++digits;
    }
    if (digits == stream.size()) {
      outcome.isComplete = false;
      return outcome;
    }
    if (digits == 0 || stream[digits] != ' ') {
      outcome.isReadable = false;
      return outcome;
    }
    stream.remove_prefix(digits + 1);
    const auto kept = static_cast<std::size_t>(std::min<std::uint64_t>(length, options.maxSize));
    if (stream.size() < kept) {
      outcome.isComplete = false;
      return outcome;
    }
    outcome.messages.push_back({std::string(stream.substr(0, kept)), length > kept, true});
    stream.remove_prefix(static_cast<std::size_t>(std::min<std::uint64_t>(length, stream.size())));
  }
  return outcome;
}

Outcome ExpectLines(std::string_view stream, const FrameReaderOptions& options) {
  Outcome outcome;
  while (!stream.empty()) {
    const std::size_t end = stream.find('\n');
    const bool isEnded = end != stream.npos;
    std::string_view line = stream.substr(0, end);
    stream.remove_prefix(isEnded ? end + 1 : stream.size());
    if (options.tooLong == TooLong::Cut && line.size() > options.maxSize) {
      outcome.messages.push_back({std::string(line.substr(0, options.maxSize)), true, true});
      continue;
    }
    while (line.size() > options.maxSize) {
      outcome.messages.push_back({std::string(line.substr(0, options.maxSize)), false, false});
      line.remove_prefix(options.maxSize);
    }
    outcome.messages.push_back({std::string(line), false, isEnded});
  }
  return outcome;
}

// Three bytes that only a client of TLS begins with.
bool IsTls(std::string_view stream) {
  return stream.size() >= 3 && stream.starts_with("\x16\x03") &&
         static_cast<unsigned char>(stream[2]) <= 4;
}

Outcome Expect(std::string_view stream, const FrameReaderOptions& options) {
  if (options.framing == Framing::DetectPlain && IsTls(stream)) {
    Outcome refused;
    refused.isReadable = false;
    return refused;
  }
  const bool isCounted =
      options.framing != Framing::Newline && !stream.empty() && IsDigit(stream.front());
  return isCounted ? ExpectCounted(stream, options) : ExpectLines(stream, options);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::size_t kOptionBytes = 3;
  if (size < kOptionBytes) {
    return 0;
  }
  FrameReaderOptions options;
  options.framing = (data[0] & 1) != 0   ? Framing::Newline
                    : (data[0] & 4) != 0 ? Framing::DetectPlain
                                         : Framing::Detect;
  options.tooLong = (data[0] & 2) != 0 ? TooLong::Split : TooLong::Cut;
  // The beginning of a stream that may be refused is kept as a whole.
  options.maxSize = data[1] + std::size_t{options.framing == Framing::DetectPlain ? 3u : 1u};
  const std::string_view stream(reinterpret_cast<const char*>(data) + kOptionBytes,
                                size - kOptionBytes);
  largestAllocation = 0;

  const Outcome expected = Expect(stream, options);
  Require(Read(stream, options, 0) == expected, "a stream in one piece gives its messages");
  Require(Read(stream, options, 1 + data[2]) == expected,
          "a stream in any pieces gives the same messages");

  // A string doubles its room when it grows, and keeps a little more than it is asked for.
  Require(largestAllocation <= 2 * options.maxSize + 32, "memory is bounded by the limit");
  return 0;
}
