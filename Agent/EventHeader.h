#pragma once

#include <boost/asio/ip/address.hpp>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "WindowsAgentCommon/MessageBlockPtr.h"

// The head block of an event: what the agent notes about a message beside the message itself. It is
// stored in the event cache with every event, so it is kept small; and every layout that was ever
// written must stay readable.
//
//   offset  size  field, little-endian
//   0       1     bit 7: 1; bits 3 to 6: origin, see EventOrigin; bits 0 to 2: see EventFlags
//   1       6     receive time, UTC: tenths of a millisecond since 1601
//   7       n     what the origin says of the source; nothing follows it
//
// So an event of a sender with an IPv4 address has a head of 11 bytes. Earlier versions wrote this
// layout, which is told apart by its first byte:
//
//   0       1     1
//   1       1     flags, see EventFlags
//   2       8     receive time, UTC, as FILETIME (100 ns since 1601)
//   10      2     length of the source text
//   12      n     source text, UTF-8: "stdin", "tcp:192.0.2.1:51413"; nothing follows it
namespace OrloAgent {

namespace EventFlags {
// The message did not end with a line end: the last line of an input without one, or a piece of a
// line that was too long. Text outputs write none either.
constexpr std::uint8_t kNoLineEnd = 0x01;
// The message was longer than the source takes; this is its beginning.
constexpr std::uint8_t kCut = 0x02;
constexpr std::uint8_t kAll = kNoLineEnd | kCut;
}  // namespace EventFlags

// The numbers are stored. The sender's port is not: it is another one with every connection, and
// would be a good part of a header.
enum class EventOrigin : std::uint8_t {
  Text = 0,   // a text, UTF-8, that says it all
  Stdin = 1,  // nothing more
  File = 2,   // the path, UTF-8
  Tcp = 3,    // the sender's address, 4 or 16 bytes in network order; the same for the following
  Tls = 4,
  Udp = 5
};

struct EventHeader {
  std::uint8_t flags = 0;
  std::uint64_t receiveTime = 0;  // FILETIME; what is read is a multiple of 0.1 ms
  EventOrigin origin = EventOrigin::Text;
  std::string_view source;  // as the origin says

  // "stdin", "file:/var/log/messages", "tcp:192.0.2.1", "udp:[2001:db8::1]".
  std::string DescribeSource() const;
};

// Reads a header of either layout; nothing when the bytes are not exactly one. `source` points into
// the bytes.
std::optional<EventHeader> ParseEventHeader(std::string_view bytes);

// Builds the headers of one source. The constant part is laid out once. Const use from any thread.
class EventHeaderTemplate {
 public:
  EventHeaderTemplate(EventOrigin origin, std::string_view source);

  // An IPv4 address within IPv6, as a socket for both gives it, is taken for what it is. An address
  // that means something on one interface only becomes a text with the interface's name.
  EventHeaderTemplate(EventOrigin transport, const boost::asio::ip::address& sender);

  std::size_t GetSize() const { return m_bytes.size(); }

  // Writes GetSize() bytes.
  void Write(char* target, std::uint8_t flags, std::uint64_t receiveTime) const;

 private:
  std::string m_bytes;
};

// An event: a head block with the header, and the message as its continuation. Null when there is
// no memory.
WindowsAgentCommon::MessageBlockPtr MakeEvent(const EventHeaderTemplate& header, std::uint8_t flags,
                                              std::uint64_t receiveTime, std::string_view message);

}  // namespace OrloAgent
