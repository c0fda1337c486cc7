#include "tests/StoreAndForward/CacheModelOperations.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <sstream>
#include <stdexcept>

namespace OrloStoreAndForward {

namespace {

using Platform::TestFaults::FileCall;
using Kind = CacheOperationKind;

struct KindText {
  Kind kind;
  std::string_view name;
  std::size_t numbers;
  bool hasPath;
};

constexpr std::array kKinds{KindText{Kind::Push, "push", 1, false},
                            KindText{Kind::Front, "front", 0, false},
                            KindText{Kind::Pop, "pop", 0, false},
                            KindText{Kind::Restart, "restart", 0, false},
                            KindText{Kind::Clock, "clock", 1, false},
                            KindText{Kind::RefuseRoom, "refuse-room", 1, false},
                            KindText{Kind::RefuseMemory, "refuse-memory", 1, false},
                            KindText{Kind::ReadOnly, "read-only", 1, false},
                            KindText{Kind::Delete, "delete", 1, false},
                            KindText{Kind::Resize, "resize", 2, false},
                            KindText{Kind::Damage, "damage", 3, false},
                            KindText{Kind::Stray, "stray", 1, true},
                            KindText{Kind::MakeDirectory, "directory", 0, true},
                            KindText{Kind::Vanish, "vanish", 0, false}};

struct CallText {
  FileCall call;
  std::string_view name;
};

constexpr std::array kCalls{CallText{FileCall::CreateFileW, "CreateFile"},
                            CallText{FileCall::ReadFile, "ReadFile"},
                            CallText{FileCall::WriteFile, "WriteFile"},
                            CallText{FileCall::CloseHandle, "CloseHandle"},
                            CallText{FileCall::FindFirstFileW, "FindFirstFile"},
                            CallText{FileCall::FindNextFileW, "FindNextFile"},
                            CallText{FileCall::CreateDirectoryW, "CreateDirectory"},
                            CallText{FileCall::RemoveDirectoryW, "RemoveDirectory"},
                            CallText{FileCall::GetFileAttributesW, "GetFileAttributes"},
                            CallText{FileCall::Unlink, "Unlink"}};

constexpr std::string_view kBlock = "Block";

std::int64_t ParseNumber(std::string_view word) {
  std::int64_t value = 0;
  const char* const end = word.data() + word.size();
  const auto [stopped, error] = std::from_chars(word.data(), end, value);
  if (error != std::errc{} || stopped != end) {
    throw std::invalid_argument("not a number: " + std::string(word));
  }
  return value;
}

std::uint32_t ParseSize(std::string_view word) {
  const std::int64_t value = ParseNumber(word);
  if (value < 0 || value > 1 << 24) {
    throw std::invalid_argument("not a size: " + std::string(word));
  }
  return static_cast<std::uint32_t>(value);
}

BlockSize ParseBlock(std::string_view word) {
  const std::size_t plus = word.find('+');
  if (plus == std::string_view::npos) {
    return {ParseSize(word), 0};
  }
  return {ParseSize(word.substr(0, plus)), ParseSize(word.substr(plus + 1))};
}

EventSize ParseEvent(std::string_view word) {
  const std::size_t colon = word.find(':');
  if (colon == std::string_view::npos) {
    throw std::invalid_argument("not an event: " + std::string(word));
  }
  EventSize event{ParseBlock(word.substr(0, colon)), std::nullopt};
  if (word.substr(colon + 1) != "-") {
    event.payload = ParseBlock(word.substr(colon + 1));
  }
  return event;
}

void ParseFault(const std::vector<std::string>& words, CacheOperation& operation) {
  if (words.size() == 2 && words[0] == kBlock) {
    operation.blocks = ParseNumber(words[1]);
    return;
  }
  const auto call =
      words.empty() ? kCalls.end() : std::find_if(kCalls.begin(), kCalls.end(), [&](auto& entry) {
        return entry.name == words[0];
      });
  if (call == kCalls.end() || words.size() < 2 || words.size() > 3) {
    throw std::invalid_argument("not a fault");
  }
  operation.fault =
      CacheFault{call->call, ParseSize(words[1]), words.size() == 3 ? ParseNumber(words[2]) : -1};
}

// What the model can't foretell: "not found" sends the making of directories through all parents.
void RefuseUnforeseeable(const CacheOperation& operation) {
  constexpr std::uint32_t kPathNotFound = 3;
  if (!operation.fault) {
    return;
  }
  const CacheFault& fault = *operation.fault;
  const bool isRestart = operation.kind == Kind::Restart;
  if ((fault.error == 0 && fault.call != FileCall::WriteFile) ||
      (isRestart && fault.call == FileCall::GetFileAttributesW && fault.error <= kPathNotFound)) {
    throw std::invalid_argument("a fault whose result is not defined");
  }
}

CacheOperation ParseLine(const std::string& line) {
  std::istringstream stream(line);
  std::vector<std::string> words;
  std::vector<std::string> faultWords;
  bool hasFault = false;
  for (std::string word; stream >> word;) {
    if (word == "!" && !hasFault) {
      hasFault = true;
    } else {
      (hasFault ? faultWords : words).push_back(word);
    }
  }
  const auto kind =
      words.empty() ? kKinds.end() : std::find_if(kKinds.begin(), kKinds.end(), [&](auto& entry) {
        return entry.name == words[0];
      });
  if (kind == kKinds.end()) {
    throw std::invalid_argument("not an operation");
  }
  const std::size_t fixed = 1 + kind->numbers + (kind->hasPath ? 1 : 0);
  if (words.size() < fixed || (words.size() > fixed && kind->kind != Kind::Push)) {
    throw std::invalid_argument("not the number of arguments");
  }
  CacheOperation operation;
  operation.kind = kind->kind;
  for (std::size_t i = 1; i <= kind->numbers; ++i) {
    operation.numbers.push_back(ParseNumber(words[i]));
  }
  if (kind->hasPath) {
    operation.path = words[fixed - 1];
  }
  std::transform(words.begin() + static_cast<std::ptrdiff_t>(fixed), words.end(),
                 std::back_inserter(operation.events), ParseEvent);
  if (hasFault) {
    ParseFault(faultWords, operation);
  }
  RefuseUnforeseeable(operation);
  return operation;
}

void Append(std::ostream& text, const BlockSize& block) {
  text << block.length;
  if (block.read != 0) {
    text << '+' << block.read;
  }
}

}  // namespace

std::string ToText(const CacheOperation& operation) {
  std::ostringstream text;
  text << std::find_if(kKinds.begin(), kKinds.end(), [&](auto& entry) {
            return entry.kind == operation.kind;
          })->name;
  for (const std::int64_t number : operation.numbers) {
    text << ' ' << number;
  }
  if (!operation.path.empty()) {
    text << ' ' << operation.path;
  }
  for (const EventSize& event : operation.events) {
    text << ' ';
    Append(text, event.head);
    text << ':';
    if (event.payload) {
      Append(text, *event.payload);
    } else {
      text << '-';
    }
  }
  if (operation.fault) {
    text << " ! "
         << std::find_if(kCalls.begin(), kCalls.end(),
                         [&](auto& entry) { return entry.call == operation.fault->call; })
                ->name
         << ' ' << operation.fault->error;
    if (operation.fault->detail >= 0) {
      text << ' ' << operation.fault->detail;
    }
  } else if (operation.blocks) {
    text << " ! " << kBlock << ' ' << *operation.blocks;
  }
  return text.str();
}

std::string ToText(const CacheOperations& operations) {
  std::string text;
  for (const CacheOperation& operation : operations) {
    text += ToText(operation) + '\n';
  }
  return text;
}

CacheOperations ParseCacheOperations(std::string_view text) {
  CacheOperations operations;
  std::istringstream lines{std::string(text)};
  for (std::string line; std::getline(lines, line);) {
    if (line.find_first_not_of(" \t\r") == std::string::npos || line.front() == '#') {
      continue;
    }
    try {
      operations.push_back(ParseLine(line));
    } catch (const std::invalid_argument& error) {
      throw std::invalid_argument("\"" + line + "\": " + error.what());
    }
  }
  return operations;
}

std::string ModelBytes(std::uint64_t tag, std::size_t part, std::size_t size) {
  std::uint64_t state = tag * 0x9E3779B97F4A7C15u + part * 0xD1B54A32D192ED03u + 1;
  std::string bytes(size, '\0');
  for (char& byte : bytes) {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    const std::uint64_t random = state >> 32;
    byte = static_cast<char>(random % 8 == 0 ? random >> 8 : random % 8 < 4 ? random % 4 : 0);
  }
  return bytes;
}

}  // namespace OrloStoreAndForward
