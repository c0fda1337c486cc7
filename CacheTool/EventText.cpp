#include "CacheTool/EventText.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>

#include "Agent/EventHeader.h"
#include "CacheTool/ToolError.h"
#include "Platform/Windows.h"
#include "WindowsAgentCommon/Text.h"

namespace OrloCacheTool {

using WindowsAgentCommon::Format;

namespace {

constexpr char kDigits[] = "0123456789abcdef";
constexpr std::uint64_t kTicksPerSecond = 10'000'000;

unsigned ByteAt(std::string_view bytes, std::size_t at) {
  return static_cast<unsigned char>(bytes[at]);
}

// The bytes of the character that the text begins with; 0 if it begins with none.
std::size_t CharacterSize(std::string_view bytes) {
  const unsigned first = ByteAt(bytes, 0);
  if (first < 0x80) {
    return 1;
  }
  const std::size_t size = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  if (first < 0xc2 || first > 0xf4 || bytes.size() < size) {
    return 0;
  }
  for (std::size_t at = 1; at < size; ++at) {
    if ((ByteAt(bytes, at) & 0xc0u) != 0x80) {
      return 0;
    }
  }
  const unsigned second = ByteAt(bytes, 1);
  // Longer forms than needed, halves of surrogate pairs, and what is beyond Unicode.
  const bool isWrong = (first == 0xe0 && second < 0xa0) || (first == 0xed && second > 0x9f) ||
                       (first == 0xf0 && second < 0x90) || (first == 0xf4 && second > 0x8f);
  return isWrong ? 0 : size;
}

// The controls of ASCII and those behind it.
bool IsControl(std::string_view character) {
  const unsigned first = ByteAt(character, 0);
  return first < 0x20 || first == 0x7f || (first == 0xc2 && ByteAt(character, 1) < 0xa0);
}

int DigitValue(char digit) {
  if (digit >= '0' && digit <= '9') {
    return digit - '0';
  }
  const char lower = static_cast<char>(digit | 0x20);
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

std::optional<std::string> FromHex(const std::string& digits) {
  if (digits.size() % 2 != 0) {
    return std::nullopt;
  }
  std::string bytes;
  for (std::size_t at = 0; at < digits.size(); at += 2) {
    const int high = DigitValue(digits[at]);
    const int low = DigitValue(digits[at + 1]);
    if (high < 0 || low < 0) {
      return std::nullopt;
    }
    bytes += static_cast<char>(high * 16 + low);
  }
  return bytes;
}

// Nothing if the object does not have it.
std::optional<std::string> GetHex(const nlohmann::json& object, const char* key) {
  const auto found = object.find(key);
  if (found == object.end()) {
    return std::nullopt;
  }
  auto bytes = found->is_string() ? FromHex(found->get_ref<const std::string&>()) : std::nullopt;
  if (!bytes) {
    throw ToolError(Format("\"%s\" is not made of pairs of hexadecimal digits", key));
  }
  return bytes;
}

}  // namespace

std::string ToPrintable(std::string_view bytes, std::size_t limit) {
  std::string text;
  std::size_t at = 0;
  while (at < bytes.size() && at < limit) {
    const std::string_view rest = bytes.substr(at);
    const std::size_t size = CharacterSize(rest);
    if (size != 0 && !IsControl(rest)) {
      text += rest.substr(0, size);
    } else {
      for (const char byte : rest.substr(0, std::max<std::size_t>(size, 1))) {
        text += "\\x" + ToHex({&byte, 1});
      }
    }
    at += std::max<std::size_t>(size, 1);
  }
  return at < bytes.size() ? text + "..." : text;
}

bool IsUtf8(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::size_t size = CharacterSize(bytes);
    if (size == 0) {
      return false;
    }
    bytes.remove_prefix(size);
  }
  return true;
}

std::string ToHex(std::string_view bytes) {
  std::string digits;
  digits.reserve(2 * bytes.size());
  for (std::size_t at = 0; at < bytes.size(); ++at) {
    digits += kDigits[ByteAt(bytes, at) >> 4];
    digits += kDigits[ByteAt(bytes, at) & 0xf];
  }
  return digits;
}

std::string FormatReceiveTime(std::uint64_t fileTime) {
  const FILETIME time{static_cast<DWORD>(fileTime), static_cast<DWORD>(fileTime >> 32)};
  SYSTEMTIME utc{};
  if (FileTimeToSystemTime(&time, &utc) == FALSE) {
    return {};
  }
  return Format("%04d-%02d-%02dT%02d:%02d:%02d.%07dZ", utc.wYear, utc.wMonth, utc.wDay, utc.wHour,
                utc.wMinute, utc.wSecond, fileTime % kTicksPerSecond);
}

std::string Count(std::uint64_t number, const std::string& what) {
  return std::to_string(number) + " " + what + (number == 1 ? "" : "s");
}

nlohmann::ordered_json EventToJson(const StoredEvent& event, const std::string& chunk,
                                   std::uint64_t number) {
  nlohmann::ordered_json json;
  json["chunk"] = ToPrintable(chunk);
  json["event"] = number;
  if (const auto header = OrloAgent::ParseEventHeader(event.head)) {
    json["received"] = FormatReceiveTime(header->receiveTime);
    json["source"] = ToPrintable(header->DescribeSource());
    json["flags"] = nlohmann::ordered_json::array();
    if ((header->flags & OrloAgent::EventFlags::kNoLineEnd) != 0) {
      json["flags"].push_back("no_line_end");
    }
    if ((header->flags & OrloAgent::EventFlags::kCut) != 0) {
      json["flags"].push_back("cut");
    }
  }
  json["head"] = ToHex(event.head);
  if (IsUtf8(event.payload)) {
    json["text"] = event.payload;
  } else {
    json["bytes"] = ToHex(event.payload);
  }
  return json;
}

OwnedEvent EventFromJson(std::string_view line) {
  const auto json = nlohmann::json::parse(line.begin(), line.end(), nullptr, false);
  if (!json.is_object()) {
    throw ToolError("it is no JSON object");
  }
  const auto head = GetHex(json, "head");
  auto payload = GetHex(json, "bytes");
  if (const auto text = json.find("text"); text != json.end()) {
    if (payload || !text->is_string()) {
      throw ToolError(payload ? "it has both \"text\" and \"bytes\"" : "\"text\" is no text");
    }
    payload = text->get<std::string>();
  }
  if (!head || !payload) {
    throw ToolError("it lacks \"head\", or both \"text\" and \"bytes\"");
  }
  return {*head, std::move(*payload)};
}

}  // namespace OrloCacheTool
