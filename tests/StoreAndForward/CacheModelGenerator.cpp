#include "tests/StoreAndForward/CacheModelGenerator.h"

#include <algorithm>
#include <iterator>

#include "Platform/Windows.h"
#include "tests/StoreAndForward/CacheModel.h"

namespace OrloStoreAndForward {

namespace {

using Platform::TestFaults::FileCall;
using Kind = CacheOperationKind;

struct Weight {
  Kind kind;
  std::array<unsigned, 4> ofProfile;  // in the order of CacheModelProfile
};

constexpr std::array kWeights{
    Weight{Kind::Push, {30, 28, 30, 28}},      Weight{Kind::Front, {18, 25, 18, 20}},
    Weight{Kind::Pop, {18, 16, 18, 17}},       Weight{Kind::Restart, {4, 5, 5, 5}},
    Weight{Kind::Clock, {25, 22, 22, 22}},     Weight{Kind::RefuseRoom, {0, 0, 5, 3}},
    Weight{Kind::RefuseMemory, {0, 0, 5, 3}},  Weight{Kind::ReadOnly, {0, 0, 5, 3}},
    Weight{Kind::Delete, {0, 4, 0, 2}},        Weight{Kind::Resize, {0, 9, 0, 5}},
    Weight{Kind::Damage, {0, 9, 0, 5}},        Weight{Kind::Stray, {0, 4, 0, 2}},
    Weight{Kind::MakeDirectory, {0, 3, 0, 2}}, Weight{Kind::Vanish, {0, 1, 0, 1}}};

constexpr std::array<unsigned, 4> kFaultPercent{0, 0, 30, 15};

// Just before a minute, an hour, a leap day, a year: where names change most.
constexpr std::array<std::int64_t, 5> kStarts{CacheModel::kStart, 1456790390000, 1704067190000,
                                              951782390000, 4102444790000};

constexpr std::array<std::uint32_t, 6> kErrors{ERROR_ACCESS_DENIED,     ERROR_DISK_FULL,
                                               ERROR_SHARING_VIOLATION, ERROR_TOO_MANY_OPEN_FILES,
                                               ERROR_IO_DEVICE,         ERROR_NOT_ENOUGH_MEMORY};

constexpr std::uint64_t kPage = 4096;

std::uint64_t DataSize(const CacheOperation& operation) {
  std::uint64_t size = 4;
  for (const EventSize& event : operation.events) {
    size += 8 + event.head.length + event.payload.value_or(BlockSize{}).length;
  }
  return size;
}

}  // namespace

CacheModelGenerator::CacheModelGenerator(std::uint64_t seed, CacheModelProfile profile)
    : m_random(seed), m_profile(profile), m_now(kStarts[Below(kStarts.size())]) {
  m_pushedAt.push_back(m_now);
}

CacheOperations CacheModelGenerator::Next(std::size_t count) {
  CacheOperations operations;
  operations.reserve(count);
  std::generate_n(std::back_inserter(operations), count, [this] { return Next(); });
  return operations;
}

CacheOperationKind CacheModelGenerator::ChooseKind() {
  constexpr std::int64_t kDeep = 8;
  if (m_depth > kDeep && Below(2) == 0) {
    return Kind::Pop;
  }
  const auto profile = static_cast<std::size_t>(m_profile);
  unsigned sum = 0;
  for (const Weight& weight : kWeights) {
    sum += weight.ofProfile[profile];
  }
  std::uint64_t drawn = Below(sum);
  for (const Weight& weight : kWeights) {
    if (drawn < weight.ofProfile[profile]) {
      return weight.kind;
    }
    drawn -= weight.ofProfile[profile];
  }
  return Kind::Front;
}

CacheOperation CacheModelGenerator::Next() {
  CacheOperation operation;
  operation.kind = ChooseKind();
  const auto number = [this](std::uint64_t limit) {
    return static_cast<std::int64_t>(Below(limit));
  };
  switch (operation.kind) {
    case Kind::Push:
      operation.numbers = {++m_tag};
      AddEvents(operation);
      m_pushedAt.push_back(m_now);
      ++m_depth;
      break;
    case Kind::Pop:
      m_depth = std::max<std::int64_t>(0, m_depth - 1);
      break;
    case Kind::Clock:
      MoveClock();
      operation.numbers = {m_now};
      break;
    case Kind::RefuseRoom:
    case Kind::RefuseMemory:
    case Kind::ReadOnly:
      operation.numbers = {Below(3) == 0 ? 1 : 0};
      break;
    case Kind::Delete:
      operation.numbers = {number(64)};
      break;
    case Kind::Resize:
      operation.numbers = {number(64), number(Below(2) == 0 ? 100 : 3 * kPage)};
      break;
    case Kind::Damage:
      operation.numbers = {number(64), number(Below(2) == 0 ? 16 : kPage), number(256)};
      break;
    case Kind::Stray:
      operation.numbers = {number(Below(2) == 0 ? 64 : 2 * kPage)};
      operation.path = ChoosePath();
      break;
    case Kind::MakeDirectory:
      operation.path = ChoosePath();
      break;
    default:
      break;
  }
  if (Below(100) < kFaultPercent[static_cast<std::size_t>(m_profile)]) {
    AddFault(operation);
  }
  return operation;
}

void CacheModelGenerator::AddEvents(CacheOperation& operation) {
  for (std::uint64_t left = Below(6); left > 0; --left) {
    EventSize event{ChooseBlock(), std::nullopt};
    if (Below(10) != 0) {
      event.payload = ChooseBlock();
    }
    operation.events.push_back(event);
  }
  if (!operation.events.empty() && Below(4) == 0) {
    // Just short of a page's end, at it, and just behind it.
    EventSize& last = operation.events.back();
    last.payload = BlockSize{};
    const std::uint64_t wanted = kPage * (1 + Below(3)) - 1 + Below(3);
    const std::uint64_t size = DataSize(operation);
    last.payload->length = static_cast<std::uint32_t>(wanted > size ? wanted - size : 0);
  }
}

BlockSize CacheModelGenerator::ChooseBlock() {
  constexpr std::array<std::uint64_t, 6> kLimits{1, 8, 8, 40, 40, 600};
  BlockSize block;
  block.length = static_cast<std::uint32_t>(Below(kLimits[Below(kLimits.size())]));
  if (Below(8) == 0) {
    block.read = static_cast<std::uint32_t>(Below(10));
  }
  return block;
}

void CacheModelGenerator::AddFault(CacheOperation& operation) {
  CacheFault fault{{}, kErrors[Below(kErrors.size())], -1};
  switch (operation.kind) {
    case Kind::Push: {
      constexpr std::array kCalls{FileCall::GetFileAttributesW, FileCall::CreateDirectoryW,
                                  FileCall::CreateFileW,        FileCall::WriteFile,
                                  FileCall::CloseHandle,        FileCall::WriteFile};
      fault.call = kCalls[Below(kCalls.size())];
      if (fault.call == FileCall::GetFileAttributesW && Below(2) == 0) {
        fault.error = Below(2) == 0 ? ERROR_FILE_NOT_FOUND : ERROR_PATH_NOT_FOUND;
      }
      if (fault.call == FileCall::WriteFile) {
        fault.error = Below(2) == 0 ? 0 : fault.error;
        fault.detail = static_cast<std::int64_t>(Below(Below(2) == 0 ? 64 : 2 * kPage));
      }
      break;
    }
    case Kind::Front: {
      constexpr std::array kCalls{FileCall::CreateFileW, FileCall::ReadFile, FileCall::CloseHandle};
      const std::uint64_t chosen = Below(kCalls.size() + 1);
      if (chosen == kCalls.size()) {
        operation.blocks = static_cast<std::int64_t>(Below(8));
        return;
      }
      fault.call = kCalls[chosen];
      break;
    }
    case Kind::Pop: {
      constexpr std::array kCalls{FileCall::Unlink, FileCall::FindFirstFileW,
                                  FileCall::FindNextFileW, FileCall::RemoveDirectoryW};
      fault.call = kCalls[Below(kCalls.size())];
      break;
    }
    case Kind::Restart: {
      constexpr std::array kCalls{FileCall::FindFirstFileW, FileCall::FindNextFileW,
                                  FileCall::FindNextFileW, FileCall::GetFileAttributesW,
                                  FileCall::CreateDirectoryW};
      fault.call = kCalls[Below(kCalls.size())];
      if (fault.call == FileCall::FindFirstFileW) {
        fault.detail = static_cast<std::int64_t>(Below(4));
      } else if (fault.call == FileCall::FindNextFileW) {
        fault.detail = static_cast<std::int64_t>(Below(12)) - 1;
      }
      break;
    }
    default:
      return;
  }
  operation.fault = fault;
}

void CacheModelGenerator::MoveClock() {
  constexpr std::int64_t kSecond = 1000;
  constexpr std::int64_t kMinute = 60 * kSecond;
  switch (Below(8)) {
    case 0:
      m_now += static_cast<std::int64_t>(Below(1000));
      break;
    case 1:
    case 2:
      m_now += kSecond;
      break;
    case 3:
      m_now += 5 * kSecond;
      break;
    case 4:
      m_now = (m_now / kMinute + 1) * kMinute;
      break;
    case 5:
      m_now += static_cast<std::int64_t>(Below(70)) * kSecond;
      break;
    case 6:
      m_now -= static_cast<std::int64_t>(Below(70)) * kSecond;
      break;
    default:
      m_now = m_pushedAt[Below(m_pushedAt.size())];
      break;
  }
}

std::string CacheModelGenerator::ChoosePath() {
  constexpr std::array<const char*, 14> kPaths{"2016-03-07-14-05/07", "2016-03-07-14-05/xx",
                                               "2016-03-07-14-05/1",  "2016-03-07-14-05/07.bak",
                                               "2016-03-07-14-05",    "2016-03-07-14-06",
                                               "0-first/00",          "zz-last/07",
                                               "zz-last/07x",         "plain",
                                               "with.dot/07",         "2023-12-31-23-59/51",
                                               "2016-02-29-23-59/60", "2016-02-29-23-59/5"};
  return kPaths[Below(kPaths.size())];
}

}  // namespace OrloStoreAndForward
