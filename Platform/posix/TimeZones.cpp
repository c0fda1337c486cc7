#include "Platform/posix/TimeZones.h"

#include <cstdlib>
#include <fstream>
#include <iterator>

#include "Platform/posix/Names.h"
#include "Platform/posix/PosixRules.h"
#include "Platform/posix/WindowsZones.h"

namespace Platform {

namespace {

constexpr std::size_t kHeaderSize = 44;

// Far more than any zone needs; keeps a wrong file from being read into memory as a whole.
constexpr std::streamsize kMaximumFileSize = 1 << 20;

std::uint64_t BigEndian32(std::string_view bytes, std::size_t offset) {
  std::uint64_t value = 0;
  for (std::size_t i = 0; i < 4; ++i) {
    value = value << 8 | static_cast<unsigned char>(bytes[offset + i]);
  }
  return value;
}

// The size of a header and the data block behind it; nothing if there is no header.
std::optional<std::uint64_t> BlockSize(std::string_view bytes, std::size_t timeSize) {
  if (bytes.size() < kHeaderSize || !bytes.starts_with("TZif")) {
    return std::nullopt;
  }
  const std::uint64_t utIndicators = BigEndian32(bytes, 20);
  const std::uint64_t standardIndicators = BigEndian32(bytes, 24);
  const std::uint64_t leapSeconds = BigEndian32(bytes, 28);
  const std::uint64_t transitions = BigEndian32(bytes, 32);
  const std::uint64_t types = BigEndian32(bytes, 36);
  const std::uint64_t nameBytes = BigEndian32(bytes, 40);
  return kHeaderSize + transitions * (timeSize + 1) + types * 6 + nameBytes +
         leapSeconds * (timeSize + 4) + standardIndicators + utIndicators;
}

std::optional<std::string> ReadZoneFile(const char* zone) {
  const char* directory = std::getenv("TZDIR");
  std::string path = directory != nullptr && *directory != '\0' ? directory : "/usr/share/zoneinfo";
  path += '/';
  path += zone;
  std::ifstream file(path, std::ios::binary);
  std::string bytes(static_cast<std::size_t>(kMaximumFileSize), '\0');
  file.read(bytes.data(), kMaximumFileSize);
  // Stopping before the limit is the only good end; a directory, too, opens but can't be read.
  if (file.bad() || !file.eof()) {
    return std::nullopt;
  }
  bytes.resize(static_cast<std::size_t>(file.gcount()));
  return bytes;
}

void AppendLittleEndian(std::uint32_t value, std::size_t size, std::uint8_t*& position) {
  for (std::size_t i = 0; i < size; ++i) {
    *position++ = static_cast<std::uint8_t>(value >> (8 * i));
  }
}

void AppendDate(const SYSTEMTIME& date, std::uint8_t*& position) {
  for (const WORD field : {date.wYear, date.wMonth, date.wDayOfWeek, date.wDay, date.wHour,
                           date.wMinute, date.wSecond, date.wMilliseconds}) {
    AppendLittleEndian(field, 2, position);
  }
}

}  // namespace

std::array<std::uint8_t, 44> BytesOfRecord(const TimeZoneRecord& record) {
  std::array<std::uint8_t, 44> bytes{};
  std::uint8_t* position = bytes.data();
  for (const LONG bias : {record.Bias, record.StandardBias, record.DaylightBias}) {
    AppendLittleEndian(static_cast<std::uint32_t>(bias), 4, position);
  }
  AppendDate(record.StandardDate, position);
  AppendDate(record.DaylightDate, position);
  return bytes;
}

std::optional<std::string> FooterOfTzif(std::string_view bytes) {
  const std::optional<std::uint64_t> first = BlockSize(bytes, 4);
  // Files of the first version have a zero here, no second block and no footer.
  if (!first || bytes[4] < '2' || *first > bytes.size()) {
    return std::nullopt;
  }
  bytes.remove_prefix(static_cast<std::size_t>(*first));
  const std::optional<std::uint64_t> second = BlockSize(bytes, 8);
  if (!second || *second > bytes.size()) {
    return std::nullopt;
  }
  bytes.remove_prefix(static_cast<std::size_t>(*second));
  if (!bytes.starts_with('\n')) {
    return std::nullopt;
  }
  bytes.remove_prefix(1);
  const std::size_t end = bytes.find('\n');
  if (end == std::string_view::npos || end == 0) {
    return std::nullopt;
  }
  return std::string(bytes.substr(0, end));
}

std::optional<WindowsZone> LoadWindowsZone(std::wstring_view windowsName) {
  for (const WindowsZoneEntry& entry : WindowsZones()) {
    if (!NamesAreEqual(entry.windowsName, windowsName)) {
      continue;
    }
    if (entry.zone == nullptr) {
      return WindowsZone{RecordFromPosixRules(entry.rules)};
    }
    const std::optional<std::string> bytes = ReadZoneFile(entry.zone);
    const std::optional<std::string> footer = bytes ? FooterOfTzif(*bytes) : std::nullopt;
    if (!footer) {
      return std::nullopt;
    }
    WindowsZone zone{RecordFromPosixRules(*footer)};
    // The zones named after an offset are published without the customary -60.
    if (zone.record && zone.record->DaylightDate.wMonth == 0 &&
        std::wstring_view(entry.windowsName).starts_with(L"UTC")) {
      zone.record->DaylightBias = 0;
    }
    return zone;
  }
  return std::nullopt;
}

}  // namespace Platform
