#include "CacheTool/ChunkCheck.h"

#include <algorithm>

#include "Agent/EventHeader.h"
#include "Platform/Windows.h"
#include "StoreAndForward/ChunkFormat.h"
#include "WindowsAgentCommon/Text.h"

namespace OrloCacheTool {

using WindowsAgentCommon::Format;

namespace {

constexpr std::uint64_t kLengthSize = 4;
// An event with an empty head and an empty payload.
constexpr std::uint64_t kSmallestEvent = 2 * kLengthSize;
constexpr std::uint64_t kLargestSize = 0xffffffff;

std::uint32_t LoadLittleEndian(std::string_view bytes) {
  std::uint32_t value = 0;
  for (std::size_t i = kLengthSize; i-- > 0;) {
    value = value << 8 | static_cast<unsigned char>(bytes[i]);
  }
  return value;
}

void Add(ChunkReport& report, Finding finding, std::string text) {
  report.findings.push_back({finding, std::move(text)});
}

// False: nothing else can be said about the file.
bool CheckSize(ChunkReport& report, std::uint64_t size, const CheckOptions& options) {
  if (size < kLengthSize) {
    Add(report, Finding::NoCount,
        size == 0 ? "it is empty" : Format("it has %d bytes, fewer than the count takes", size));
    return false;
  }
  if (size > kLargestSize) {
    Add(report, Finding::TooLarge, Format("it has %d bytes; no chunk is 4 GiB or larger", size));
    return false;
  }
  if (size % options.pageSize != 0) {
    Add(report, Finding::PartialPage,
        Format("its size, %d bytes, is no multiple of the page size, %d", size, options.pageSize));
  }
  return true;
}

// No name of a source has a zero byte in it. The length of a block that was taken for a part of the
// name has.
bool IsHeadOfAnAgent(std::string_view head) {
  const auto header = OrloAgent::ParseEventHeader(head);
  const bool isText = header && (header->origin == OrloAgent::EventOrigin::Text ||
                                 header->origin == OrloAgent::EventOrigin::File);
  return header && (!isText || header->source.find('\0') == std::string_view::npos);
}

void CheckCount(ChunkReport& report) {
  if (report.count == 0) {
    Add(report, Finding::NoEvents,
        "it says 0 events, and a stage writes no such chunk; zeros are what a loss of power leaves "
        "of a file");
  }
}

// Reads the events and remembers the first head that no agent writes.
void CheckEvents(ChunkReport& report, std::string_view bytes, const CheckOptions& options) {
  EventReader reader(bytes);
  report.count = reader.GetCount();
  CheckCount(report);
  std::uint64_t unknown = 0;
  std::uint64_t firstUnknown = 0;
  while (const auto event = reader.Next()) {
    if (!options.checkHeads || IsHeadOfAnAgent(event->head)) {
      report.readable = reader.GetRead();
    } else if (unknown++ == 0) {
      firstUnknown = reader.GetRead();
    }
  }
  report.complete = reader.GetRead();
  report.dataSize = reader.GetEnd();
  if (report.complete < report.count) {
    Add(report, Finding::EventsBeyondEnd,
        Format("it says %d events, and its bytes end within event %d", report.count,
               report.complete + 1));
  }
  if (unknown > 0) {
    Add(report, Finding::UnknownHead,
        Format("no agent writes a head like that of event %d (of %d events in all)", firstUnknown,
               unknown));
  }
}

// Behind the events there is padding up to the end of the page, and nothing else.
void CheckPadding(ChunkReport& report, std::string_view bytes, const CheckOptions& options) {
  const auto padding = bytes.substr(static_cast<std::size_t>(report.dataSize));
  const auto other = std::count_if(padding.begin(), padding.end(),
                                   [](char character) { return character != '\0'; });
  if (other > 0) {
    Add(report, Finding::BytesBehindEvents,
        Format("behind its last event there are %d bytes that are no padding", other));
  }
  if (bytes.size() > OrloStoreAndForward::RoundUpToPage(report.dataSize, options.pageSize)) {
    Add(report, Finding::PagesBehindEvents,
        Format("its events take %d bytes, and it has %d, more than their pages", report.dataSize,
               bytes.size()));
  }
}

}  // namespace

EventReader::EventReader(std::string_view bytes) : m_bytes(bytes) {
  if (bytes.size() >= kLengthSize) {
    m_count = LoadLittleEndian(bytes);
    m_end = kLengthSize;
  }
}

std::optional<StoredEvent> EventReader::Next() {
  if (m_read == m_count) {
    return std::nullopt;
  }
  std::uint64_t offset = m_end;
  const auto head = NextBlock(offset);
  const auto payload = head ? NextBlock(offset) : std::nullopt;
  if (!payload) {
    return std::nullopt;
  }
  m_end = offset;
  ++m_read;
  return StoredEvent{*head, *payload};
}

std::optional<std::string_view> EventReader::NextBlock(std::uint64_t& offset) const {
  const std::string_view rest = m_bytes.substr(static_cast<std::size_t>(offset));
  if (rest.size() < kLengthSize) {
    return std::nullopt;
  }
  const std::uint32_t length = LoadLittleEndian(rest);
  if (rest.size() - kLengthSize < length) {
    return std::nullopt;
  }
  offset += kLengthSize + length;
  return rest.substr(kLengthSize, length);
}

bool ChunkReport::Has(Finding finding) const {
  return std::any_of(findings.begin(), findings.end(),
                     [finding](const FindingText& one) { return one.finding == finding; });
}

std::uint32_t GetPageSize() {
  SYSTEM_INFO system{};
  GetSystemInfo(&system);
  return system.dwPageSize;
}

ChunkReport CheckChunk(std::string_view bytes, const CheckOptions& options) {
  ChunkReport report;
  if (CheckSize(report, bytes.size(), options)) {
    CheckEvents(report, bytes, options);
    // Where the events end too early, what is behind them is what is left of one.
    if (!report.Has(Finding::EventsBeyondEnd)) {
      CheckPadding(report, bytes, options);
    }
  }
  return report;
}

ChunkReport GlanceAtChunk(std::string_view beginning, std::uint64_t size,
                          const CheckOptions& options) {
  ChunkReport report;
  if (!CheckSize(report, size, options)) {
    return report;
  }
  report.count = EventReader(beginning).GetCount();
  CheckCount(report);
  if ((size - kLengthSize) / kSmallestEvent < report.count) {
    Add(report, Finding::EventsBeyondEnd,
        Format("it says %d events, for which its %d bytes are too few", report.count, size));
  }
  return report;
}

std::string DescribeEffect(const ChunkReport& report) {
  if (report.Has(Finding::NoCount)) {
    return "an agent delivers nothing of it, or events of a chunk that it read before once more";
  }
  if (report.Has(Finding::TooLarge)) {
    return "an agent reads its beginning only, and delivers what it can make out there";
  }
  if (report.Has(Finding::NoEvents)) {
    return "an agent finds no events in it, and removes it";
  }
  std::string text = Format("an agent delivers %d of its events", report.complete);
  if (report.Has(Finding::EventsBeyondEnd)) {
    text +=
        ", and may go on with what a chunk that it read before left in its memory; the rest of the "
        "chunk is lost";
  }
  if (report.Has(Finding::UnknownHead)) {
    text += ", with heads that it can't read";
  }
  if (report.Has(Finding::BytesBehindEvents)) {
    text += ", and never what is behind them";
  }
  return text;
}

}  // namespace OrloCacheTool
