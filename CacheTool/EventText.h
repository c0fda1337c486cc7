#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include "CacheTool/ChunkCheck.h"

// Events as people and scripts see them. Nothing here trusts the bytes: they come from whoever sent
// messages to the agent.
namespace OrloCacheTool {

// Text for a terminal: printable characters in UTF-8 as they are, every other byte as \xNN, so that
// no message can command the terminal. At most `limit` bytes of `bytes` are shown, and "..." where
// some are not.
std::string ToPrintable(std::string_view bytes, std::size_t limit = std::string_view::npos);

bool IsUtf8(std::string_view bytes);

// Two lower-case digits for each byte.
std::string ToHex(std::string_view bytes);

// From 100 ns since 1601, UTC: 2016-03-07T14:05:07.1234567Z. Empty for a time that no calendar has.
std::string FormatReceiveTime(std::uint64_t fileTime);

// "1 event", "2 events".
std::string Count(std::uint64_t number, const std::string& what);

// One event as JSON. What the head tells is spelt out; `head` has its bytes in hexadecimal digits.
// The payload is `text` if it is UTF-8, otherwise `bytes`, in hexadecimal digits. `number` counts
// from 1.
nlohmann::ordered_json EventToJson(const StoredEvent& event, const std::string& chunk,
                                   std::uint64_t number);

// An event with its own bytes.
struct OwnedEvent {
  std::string head;
  std::string payload;
};

// Reads what EventToJson has written, or any object with `head` and one of `text` and `bytes`;
// everything else in it is ignored. Throws ToolError with what is wrong with the line.
OwnedEvent EventFromJson(std::string_view line);

}  // namespace OrloCacheTool
