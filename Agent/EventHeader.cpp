#include "Agent/EventHeader.h"

#include <ace/Message_Block.h>

#include <algorithm>
#include <cstring>

#include "WindowsAgentCommon/MessageBlocks.h"

namespace OrloAgent {

using WindowsAgentCommon::MessageBlockPtr;

namespace {

namespace ip = boost::asio::ip;

constexpr unsigned kMark = 0x80;
constexpr unsigned kOriginShift = 3;
constexpr unsigned kOriginMask = 0x0f;
constexpr unsigned kFlagsMask = 0x07;
constexpr std::size_t kTimeAt = 1;
constexpr std::size_t kTimeSize = 6;
constexpr std::size_t kSourceAt = 7;
constexpr std::uint64_t kTicksPerUnit = 1000;

// The earlier layout.
constexpr char kVersion1 = 1;
constexpr std::size_t kVersion1FlagsAt = 1;
constexpr std::size_t kVersion1TimeAt = 2;
constexpr std::size_t kVersion1LengthAt = 10;
constexpr std::size_t kVersion1SourceAt = 12;

std::uint64_t ReadLittleEndian(std::string_view bytes) {
  std::uint64_t value = 0;
  for (std::size_t i = bytes.size(); i-- > 0;) {
    value = (value << 8) | static_cast<unsigned char>(bytes[i]);
  }
  return value;
}

template <std::size_t size>
void WriteLittleEndian(char* target, std::uint64_t value) {
  for (std::size_t i = 0; i < size; ++i) {
    target[i] = static_cast<char>(value >> (8 * i));
  }
}

const char* GetTransportName(EventOrigin origin) {
  switch (origin) {
    case EventOrigin::Tcp:
      return "tcp:";
    case EventOrigin::Tls:
      return "tls:";
    case EventOrigin::Udp:
      return "udp:";
    default:
      return "";
  }
}

std::string DescribeSender(EventOrigin transport, const ip::address& sender) {
  std::string text = GetTransportName(transport);
  text.append(sender.is_v6() ? "[" : "");
  text.append(sender.to_string());
  text.append(sender.is_v6() ? "]" : "");
  return text;
}

bool IsSourceOf(EventOrigin origin, std::string_view source) {
  switch (origin) {
    case EventOrigin::Text:
    case EventOrigin::File:
      return true;
    case EventOrigin::Stdin:
      return source.empty();
    case EventOrigin::Tcp:
    case EventOrigin::Tls:
    case EventOrigin::Udp:
      return source.size() == ip::address_v4::bytes_type().size() ||
             source.size() == ip::address_v6::bytes_type().size();
  }
  return false;
}

template <typename Address>
Address ReadAddress(std::string_view source) {
  typename Address::bytes_type bytes;
  std::copy(source.begin(), source.end(), bytes.begin());
  return Address(bytes);
}

std::optional<EventHeader> ParseVersion1(std::string_view bytes) {
  if (bytes.size() < kVersion1SourceAt || bytes[0] != kVersion1) {
    return std::nullopt;
  }
  EventHeader header;
  header.flags = static_cast<std::uint8_t>(bytes[kVersion1FlagsAt]);
  header.receiveTime = ReadLittleEndian(bytes.substr(kVersion1TimeAt, 8));
  header.source = bytes.substr(kVersion1SourceAt);
  const bool isComplete =
      ReadLittleEndian(bytes.substr(kVersion1LengthAt, 2)) == header.source.size();
  if (!isComplete || (header.flags & ~EventFlags::kAll) != 0) {
    return std::nullopt;
  }
  return header;
}

std::string MakeBytes(EventOrigin origin, std::string_view source) {
  std::string bytes(kSourceAt, '\0');
  bytes[0] = static_cast<char>(kMark | static_cast<unsigned>(origin) << kOriginShift);
  bytes += source;
  return bytes;
}

template <typename Address>
std::string MakeBytesOf(EventOrigin transport, const Address& sender) {
  const auto bytes = sender.to_bytes();
  return MakeBytes(transport, std::string(bytes.begin(), bytes.end()));
}

std::string MakeBytes(EventOrigin transport, const ip::address& sender) {
  if (sender.is_v4()) {
    return MakeBytesOf(transport, sender.to_v4());
  }
  const ip::address_v6 address = sender.to_v6();
  if (address.is_v4_mapped()) {
    return MakeBytesOf(transport, ip::make_address_v4(ip::v4_mapped, address));
  }
  if (address.scope_id() != 0) {
    return MakeBytes(EventOrigin::Text, DescribeSender(transport, address));
  }
  return MakeBytesOf(transport, address);
}

MessageBlockPtr MakeBlock(std::size_t size) {
  ACE_Message_Block* block = nullptr;
  WindowsAgentCommon::CreateDataMessageBlock(size, block);
  return MessageBlockPtr(block);
}

}  // namespace

std::string EventHeader::DescribeSource() const {
  switch (origin) {
    case EventOrigin::Text:
      break;
    case EventOrigin::Stdin:
      return "stdin";
    case EventOrigin::File:
      return std::string("file:").append(source);
    case EventOrigin::Tcp:
    case EventOrigin::Tls:
    case EventOrigin::Udp:
      return source.size() == ip::address_v4::bytes_type().size()
                 ? DescribeSender(origin, ReadAddress<ip::address_v4>(source))
                 : DescribeSender(origin, ReadAddress<ip::address_v6>(source));
  }
  return std::string(source);
}

std::optional<EventHeader> ParseEventHeader(std::string_view bytes) {
  const unsigned first = bytes.empty() ? 0 : static_cast<unsigned char>(bytes[0]);
  if ((first & kMark) == 0) {
    return ParseVersion1(bytes);
  }
  if (bytes.size() < kSourceAt) {
    return std::nullopt;
  }
  EventHeader header;
  header.flags = static_cast<std::uint8_t>(first & kFlagsMask);
  header.receiveTime = ReadLittleEndian(bytes.substr(kTimeAt, kTimeSize)) * kTicksPerUnit;
  header.origin = static_cast<EventOrigin>(first >> kOriginShift & kOriginMask);
  header.source = bytes.substr(kSourceAt);
  if ((header.flags & ~EventFlags::kAll) != 0 || !IsSourceOf(header.origin, header.source)) {
    return std::nullopt;
  }
  return header;
}

EventHeaderTemplate::EventHeaderTemplate(EventOrigin origin, std::string_view source)
    : m_bytes(MakeBytes(origin, source)) {}

EventHeaderTemplate::EventHeaderTemplate(EventOrigin transport, const ip::address& sender)
    : m_bytes(MakeBytes(transport, sender)) {}

void EventHeaderTemplate::Write(char* target, std::uint8_t flags, std::uint64_t receiveTime) const {
  std::memcpy(target, m_bytes.data(), m_bytes.size());
  target[0] = static_cast<char>(target[0] | flags);
  WriteLittleEndian<kTimeSize>(target + kTimeAt, receiveTime / kTicksPerUnit);
}

MessageBlockPtr MakeEvent(const EventHeaderTemplate& header, std::uint8_t flags,
                          std::uint64_t receiveTime, std::string_view message) {
  MessageBlockPtr head = MakeBlock(header.GetSize());
  MessageBlockPtr payload = MakeBlock(message.size());
  if (!head || !payload) {
    return nullptr;
  }
  header.Write(head->wr_ptr(), flags, receiveTime);
  head->wr_ptr(header.GetSize());
  payload->copy(message.data(), message.size());
  head->cont(payload.release());
  return head;
}

}  // namespace OrloAgent
