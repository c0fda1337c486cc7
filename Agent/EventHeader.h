#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// The head block of an event: what the agent notes about a message beside the message itself. It is
// stored in the event cache, so every layout that was ever written must stay readable.
//
//   offset  size  field, little-endian
//   0       1     version, 1
//   1       1     flags, see EventFlags
//   2       8     receive time, UTC, as FILETIME (100 ns since 1601)
//   10      2     length of the source text
//   12      n     source text, UTF-8: "stdin", "tcp:192.0.2.1:51413"
//
// Nothing follows the source text.
namespace OrloAgent {

namespace EventFlags {
// The message did not end with a line end: the last line of an input without one, or a piece of a
// line that was too long. Text outputs write none either.
constexpr std::uint8_t kNoLineEnd = 0x01;
// The message was longer than the source takes; this is its beginning.
constexpr std::uint8_t kCut = 0x02;
constexpr std::uint8_t kAll = kNoLineEnd | kCut;
}  // namespace EventFlags

struct EventHeader {
  std::uint8_t flags = 0;
  std::uint64_t receiveTime = 0;
  std::string_view source;
};

// Reads a header; nothing when the bytes are not exactly one. `source` points into the bytes.
std::optional<EventHeader> ParseEventHeader(std::string_view bytes);

// Builds the headers of one source. The constant part is laid out once. Const use from any thread.
class EventHeaderTemplate {
 public:
  // A source text longer than 65535 bytes is cut.
  explicit EventHeaderTemplate(std::string_view source);

  std::size_t GetSize() const { return m_bytes.size(); }

  // Writes GetSize() bytes.
  void Write(char* target, std::uint8_t flags, std::uint64_t receiveTime) const;

 private:
  std::string m_bytes;
};

}  // namespace OrloAgent
