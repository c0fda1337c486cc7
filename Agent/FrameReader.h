#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace OrloAgent {

// One message taken out of a stream of bytes. The bytes are valid during the call only.
struct Frame {
  std::string_view bytes;
  // The message was longer than the limit; these are its first bytes.
  bool cut = false;
  // A line end followed the message. Always true for octet-counted ones, which are complete.
  bool lineEnd = true;
};

class IFrameSink {
 public:
  virtual ~IFrameSink() = default;
  virtual void OnFrame(const Frame& frame) = 0;
};

struct FrameReaderOptions {
  enum class Framing {
    // The first byte of the stream decides: a digit means octet counting, anything else lines.
    Detect,
    // The same, but a stream that begins as a TLS connection does is refused.
    DetectPlain,
    Newline
  };
  enum class TooLong {
    // Only the first maxSize bytes of the message are delivered; the rest is passed over.
    Cut,
    // The message is delivered in pieces of maxSize bytes; all but the last lack a line end. For
    // lines only: octet-counted messages are always cut.
    Split
  };

  // The limit of one message, in bytes, and of what the reader ever holds in memory. At least 3
  // where TLS is refused.
  std::size_t maxSize = 64 * 1024;
  Framing framing = Framing::Detect;
  TooLong tooLong = TooLong::Cut;
};

// Takes messages out of the bytes of one connection, as RFC 6587 frames them: "5 hello" (octet
// counting, a length of at most ten digits) or "hello\n". Messages may be empty and may hold any
// bytes. What does not depend on how the bytes are cut into calls: the frames.
//
// No locks, no input or output; one thread at a time.
class FrameReader {
 public:
  explicit FrameReader(const FrameReaderOptions& options) : m_options(options) {}

  // Delivers every message that the bytes complete. False: a length can't be read, so nothing
  // after it can be told apart, or the stream is refused; the messages before it were delivered,
  // and further calls deliver nothing and give false again.
  bool Feed(std::string_view bytes, IFrameSink& sink);

  // The stream has ended. A line without its end is delivered (with lineEnd false); an
  // octet-counted message that is not complete is dropped, and then the result is false.
  bool Finish(IFrameSink& sink);

  // Whether the stream was refused because it begins as a TLS connection does.
  bool IsTls() const { return m_state == State::Tls; }

 private:
  enum class State { Start, Greeting, Line, RestOfLine, Length, Body, RestOfBody, Malformed, Tls };

  std::string_view TakeStart(std::string_view bytes);
  std::string_view TakeGreeting(std::string_view bytes);

  std::string_view TakeLine(std::string_view bytes, IFrameSink& sink);
  std::string_view TakeLength(std::string_view bytes, IFrameSink& sink);
  std::string_view TakeBody(std::string_view bytes, IFrameSink& sink);
  std::string_view PassOver(std::string_view bytes);
  void BeginBody(IFrameSink& sink);
  void Deliver(std::string_view piece, bool cut, bool lineEnd, IFrameSink& sink);

  const FrameReaderOptions m_options;
  State m_state = State::Start;
  // The beginning of a message whose end has not come; never longer than the limit.
  std::string m_partial;
  unsigned m_digits = 0;
  // The length of the octet-counted message, then how much of it is still to come.
  std::uint64_t m_length = 0;
  // How many bytes of the message are kept.
  std::size_t m_kept = 0;
};

}  // namespace OrloAgent
