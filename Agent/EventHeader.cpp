#include "Agent/EventHeader.h"

#include <algorithm>
#include <cstring>

namespace OrloAgent {

namespace {

constexpr char kVersion = 1;
constexpr std::size_t kFlagsAt = 1;
constexpr std::size_t kTimeAt = 2;
constexpr std::size_t kSourceLengthAt = 10;
constexpr std::size_t kSourceAt = 12;
constexpr std::size_t kLongestSource = 0xffff;

std::uint64_t ReadLittleEndian(std::string_view bytes) {
  std::uint64_t value = 0;
  for (std::size_t i = bytes.size(); i-- > 0;) {
    value = (value << 8) | static_cast<unsigned char>(bytes[i]);
  }
  return value;
}

void WriteLittleEndian(char* target, std::size_t size, std::uint64_t value) {
  for (std::size_t i = 0; i < size; ++i) {
    target[i] = static_cast<char>(value >> (8 * i));
  }
}

}  // namespace

std::optional<EventHeader> ParseEventHeader(std::string_view bytes) {
  if (bytes.size() < kSourceAt || bytes[0] != kVersion) {
    return std::nullopt;
  }
  EventHeader header;
  header.flags = static_cast<std::uint8_t>(bytes[kFlagsAt]);
  header.receiveTime = ReadLittleEndian(bytes.substr(kTimeAt, 8));
  header.source = bytes.substr(kSourceAt);
  const bool isComplete =
      ReadLittleEndian(bytes.substr(kSourceLengthAt, 2)) == header.source.size();
  if (!isComplete || (header.flags & ~EventFlags::kAll) != 0) {
    return std::nullopt;
  }
  return header;
}

EventHeaderTemplate::EventHeaderTemplate(std::string_view source) : m_bytes(kSourceAt, '\0') {
  source = source.substr(0, kLongestSource);
  m_bytes[0] = kVersion;
  WriteLittleEndian(m_bytes.data() + kSourceLengthAt, 2, source.size());
  m_bytes += source;
}

void EventHeaderTemplate::Write(char* target, std::uint8_t flags, std::uint64_t receiveTime) const {
  std::memcpy(target, m_bytes.data(), m_bytes.size());
  target[kFlagsAt] = static_cast<char>(flags);
  WriteLittleEndian(target + kTimeAt, 8, receiveTime);
}

}  // namespace OrloAgent
